// shmrmctl's children: this program started again, stopped on request, and the namespace
// change that starts it again as a child.
#include <chrono>
#include <cstdio>
#include <utility>

#include "system.h"

namespace shmrmctl::sys {

using vex::process::Process;

Child::Child(const std::vector<std::string>& args, bool capture_stdout) {
    vex::process::Options options;
    if (capture_stdout) options.out = vex::process::Stream::pipe;
    options.own_group = true;
    options.env = parent_env();
    process_ = Process::start_self(args, options);
    if (process_.started()) stop_ = open_stop_request(process_);
}

Child::~Child() {
    stop();
}

Child::Child(Child&& other) noexcept
    : process_(std::move(other.process_)),
      stop_(std::exchange(other.stop_, nullptr)),
      got_(std::move(other.got_)) {}

Child& Child::operator=(Child&& other) noexcept {
    if (this != &other) {
        stop();
        process_ = std::move(other.process_);
        stop_ = std::exchange(other.stop_, nullptr);
        got_ = std::move(other.got_);
    }
    return *this;
}

bool Child::started() const {
    return process_.started();
}
long Child::id() const {
    return process_.id();
}

bool Child::wait_for_line(const std::string& prefix, int timeout_ms) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (std::chrono::steady_clock::now() < end) {
        if (process_.read(got_, 100) == vex::process::Read::end) return false;
        if (got_.find('\n') != std::string::npos) return got_.rfind(prefix, 0) == 0;
    }
    return false;
}

int Child::stop(int bound_ms) {
    int status = -1;
    if (process_.started()) {
        send_stop_request(process_, stop_);
        if (const auto exit = process_.wait(bound_ms)) {
            status = exit->exited() ? exit->code : -1;
        } else {
            process_.kill_and_wait();
        }
    }
    close_stop_request(stop_);
    stop_ = nullptr;
    return status;
}

int run_again_with(const std::string& name, const std::string& value, char** argv,
                   const std::vector<std::string>& more_args) {
    // A child, not a replaced image: this process lets go of what it loaded when it ends. While it
    // waits, a stop request it gets is passed on.
    install_stop_handlers();
    set_env(name, value);
    std::vector<std::string> args;
    for (char** a = argv + 1; *a != nullptr; ++a)
        args.emplace_back(*a);
    args.insert(args.end(), more_args.begin(), more_args.end());
    vex::process::Options options;
    options.env = parent_env();
    Process again = Process::start_self(args, options);
    if (!again.started()) {
        std::fprintf(stderr, "shmrmctl: cannot start %s again\n", self_path().c_str());
        return 1;
    }
    void* stop = open_stop_request(again);
    auto exit = again.wait(50);
    while (!exit && !stop_requested())
        exit = again.wait(50);
    if (!exit) {
        send_stop_request(again, stop);
        exit = again.wait(30000);
    }
    close_stop_request(stop);
    if (!exit) return 1;  // killed as `again` goes
    return exit->status() < 0 ? 1 : exit->status();
}

}  // namespace shmrmctl::sys
