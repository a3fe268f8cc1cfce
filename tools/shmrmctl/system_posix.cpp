// shmrmctl's system layer on POSIX systems: signals, termios.
#include <poll.h>
#if defined(__linux__)
#include <sys/prctl.h>
#endif
#include <signal.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "system.h"

namespace shmrmctl::sys {

namespace {

volatile sig_atomic_t g_stop = 0;
void on_stop(int) {
    g_stop = 1;
}

sigset_t stop_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    return set;
}

void write_fd(int fd, const std::string& s) {
    std::size_t done = 0;
    while (done < s.size()) {
        const ssize_t n = ::write(fd, s.data() + done, s.size() - done);
        if (n <= 0) {
            if (n < 0 && errno == EINTR) continue;
            return;
        }
        done += static_cast<std::size_t>(n);
    }
}

}  // namespace

void init_output() {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
}

void install_stop_handlers() {
    struct sigaction sa {};
    sa.sa_handler = on_stop;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no restart: a blocking wait returns at once
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGHUP, &sa, nullptr);   // the terminal closed
    sigaction(SIGPIPE, &sa, nullptr);  // the reader of standard output went away
}

void ignore_broken_pipe() {
    struct sigaction sa {};
    sa.sa_handler = SIG_IGN;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGPIPE, &sa, nullptr);
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

void wait_for_stop() {
    // The signals are blocked between the test and the wait, so none is missed.
    const sigset_t set = stop_signals();
    sigset_t old;
    sigprocmask(SIG_BLOCK, &set, &old);
    while (!stop_requested())
        sigsuspend(&old);
    sigprocmask(SIG_SETMASK, &old, nullptr);
}

std::vector<std::string> parent_env() {
    return {std::string(kParentVariable) + "=" + std::to_string(getpid())};
}

void follow_parent() {
    const char* given = std::getenv(kParentVariable);
    if (given == nullptr) return;
    const long parent = std::strtol(given, nullptr, 10);
    vex::process::unset_env(kParentVariable);  // not passed on to this process's own children
#if defined(__linux__)
    prctl(PR_SET_PDEATHSIG, SIGTERM);
#endif
    // The parent may have ended before the signal was asked for (or, without one, at all).
    if (getppid() != parent) raise(SIGTERM);
}

void* open_stop_request(const vex::process::Process&) {
    return nullptr;  // a signal
}
void send_stop_request(vex::process::Process& child, void*) {
    child.signal(SIGTERM);
}
void close_stop_request(void*) {}

std::string make_temp_dir(const std::string& prefix, std::string& error) {
    std::error_code ec;
    std::string path = (std::filesystem::temp_directory_path(ec) / (prefix + "XXXXXX")).string();
    if (ec || mkdtemp(path.data()) == nullptr) {
        error = std::string("mkdtemp: ") + (ec ? ec.message() : std::strerror(errno));
        return {};
    }
    return path;
}

bool interactive() {
    return isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0;
}

struct Console::Saved {
    termios modes{};
    bool ok = false;
};

std::size_t output_columns() {
    if (const char* columns = std::getenv("COLUMNS")) {
        char* end = nullptr;
        const long n = std::strtol(columns, &end, 10);
        if (end != columns && *end == '\0' && n > 0) return static_cast<std::size_t>(n);
    }
    winsize ws{};
    if (isatty(STDOUT_FILENO) != 0 && ioctl(STDOUT_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0)
        return ws.ws_col;
    return 0;
}

Console::Console(bool screen) : saved_(std::make_unique<Saved>()), screen_(screen) {
    saved_->ok = tcgetattr(STDIN_FILENO, &saved_->modes) == 0;
    if (saved_->ok) {
        termios raw = saved_->modes;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        raw.c_cc[VMIN] = 0;
        raw.c_cc[VTIME] = 0;
        tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    }
    if (screen_) write("\x1b[?1049h\x1b[?25l\x1b[H\x1b[2J");
}

Console::~Console() {
    if (screen_) write("\x1b[0m\x1b[?25h\x1b[?1049l");
    if (saved_->ok) tcsetattr(STDIN_FILENO, TCSANOW, &saved_->modes);
}

Console::Size Console::size() const {
    winsize ws{};
    Size s;
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_row > 0 && ws.ws_col > 0) {
        s.rows = ws.ws_row;
        s.cols = ws.ws_col;
    }
    return s;
}

void Console::write(const std::string& text) const {
    write_fd(STDOUT_FILENO, text);
}

bool Console::read_keys(int timeout_ms, std::string& keys) const {
    pollfd in{STDIN_FILENO, POLLIN, 0};
    if (poll(&in, 1, timeout_ms) <= 0 || (in.revents & (POLLIN | POLLHUP)) == 0) return true;
    char buf[32];
    const ssize_t n = ::read(STDIN_FILENO, buf, sizeof buf);
    if (n < 0) return errno == EINTR || errno == EAGAIN;
    if (n == 0) return false;  // the terminal went away
    keys.append(buf, static_cast<std::size_t>(n));
    return true;
}

std::size_t view_page() {
    return 1;  // a view is as long as the mapping
}

std::tm local_now() {
    const std::time_t t = std::time(nullptr);
    std::tm tm{};
    localtime_r(&t, &tm);
    return tm;
}

std::uint32_t tick_now() {
    timespec ts{};
    clock_gettime(CLOCK_BOOTTIME, &ts);
    const auto ms = static_cast<unsigned long long>(ts.tv_sec) * 1000ULL +
                    static_cast<unsigned long long>(ts.tv_nsec) / 1000000ULL;
    return static_cast<std::uint32_t>(ms);
}

}  // namespace shmrmctl::sys

namespace shmrmctl::sys {

std::string error_text(int errno_value) {
    return std::strerror(errno_value);
}

std::string system_error_text(unsigned error) {
    return std::strerror(static_cast<int>(error));
}

}  // namespace shmrmctl::sys
