#include <algorithm>
#include <chrono>
#include <utility>

#include "process.h"

namespace vex::process {

Process::~Process() {
    close_input();
    close_output();
    if (started()) kill_and_wait();
}

Process::Process(Process&& other) noexcept
    : id_(std::exchange(other.id_, -1)),
      handle_(std::exchange(other.handle_, nullptr)),
      in_(std::exchange(other.in_, -1)),
      out_(std::exchange(other.out_, -1)),
      err_(std::exchange(other.err_, -1)) {}

Process& Process::operator=(Process&& other) noexcept {
    if (this != &other) {
        Process gone(std::move(*this));
        id_ = std::exchange(other.id_, -1);
        handle_ = std::exchange(other.handle_, nullptr);
        in_ = std::exchange(other.in_, -1);
        out_ = std::exchange(other.out_, -1);
        err_ = std::exchange(other.err_, -1);
    }
    return *this;
}

bool Process::started() const {
    return id_ > 0;
}
long Process::id() const {
    return id_;
}
void* Process::handle() const {
    return handle_;
}

Exit Process::kill_and_wait() {
    kill();
    return wait(-1).value_or(Exit{-1, 0});
}

Process Process::start_self(const std::vector<std::string>& args, const Options& options) {
    std::vector<std::string> all{self_path()};
    all.insert(all.end(), args.begin(), args.end());
    return start(all, options);
}

Result run(const std::vector<std::string>& args, const std::vector<std::string>& env,
           int timeout_ms) {
    using Clock = std::chrono::steady_clock;
    Result r;
    Options options;
    options.env = env;
    options.in = Stream::none;
    options.out = options.err = Stream::pipe;
    Process p = Process::start(args, options);
    if (!p.started()) return r;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    auto left = [&] {
        const auto ms =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        return ms > 0 ? static_cast<int>(ms) : 0;
    };
    // Both pipes at once, so that neither fills up while the other is read.
    bool out_open = true, err_open = true;
    while ((out_open || err_open) && left() > 0) {
        bool got = false;
        if (out_open) {
            const Read rd = p.read(r.out, 0);
            out_open = rd != Read::end;
            got |= rd == Read::data;
        }
        if (err_open) {
            const Read rd = p.read(r.err, 0, true);
            err_open = rd != Read::end;
            got |= rd == Read::data;
        }
        if (got) continue;
        // Nothing yet: wait a little for more, on the standard output while it is open.
        if (out_open) {
            wait_output({&p}, std::min(left(), 10));
        } else if (err_open) {
            err_open = p.read(r.err, std::min(left(), 10), true) != Read::end;
        }
    }
    p.close_output();
    r.exit = p.wait(left());
    if (!r.exit) p.kill_and_wait();
    return r;
}

}  // namespace vex::process
