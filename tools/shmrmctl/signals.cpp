#include "signals.h"

#include <signal.h>

#include <cerrno>
#include <cmath>
#include <ctime>

namespace shmrmctl {

namespace {
volatile sig_atomic_t g_stop = 0;
void on_stop(int) {
    g_stop = 1;
}
}  // namespace

void install_stop_handlers() {
    struct sigaction sa {};
    sa.sa_handler = on_stop;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no restart: a blocking wait returns at once
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

bool stop_requested() {
    return g_stop != 0;
}
void request_stop() {
    g_stop = 1;
}

bool pause_for(double seconds) {
    double whole = 0;
    const double frac = std::modf(seconds, &whole);
    timespec left{static_cast<time_t>(whole), static_cast<long>(frac * 1e9)};
    while (!stop_requested() && nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
    return !stop_requested();
}

}  // namespace shmrmctl
