#include "support/child.h"

#include <chrono>
#include <stdexcept>

#if defined(_WIN32)
#include <windows.h>
#else
#include <signal.h>

#include <cerrno>
#endif

namespace vextest {

namespace {

using Clock = std::chrono::steady_clock;

int left_ms(Clock::time_point deadline) {
    auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

Child::Child(const std::vector<std::string>& extra_env, const std::string& program) {
    vex::process::Options options;
    options.env = extra_env;
    options.in = options.out = vex::process::Stream::pipe;
    process_ = vex::process::Process::start({program}, options);
    if (!process_.started()) throw std::runtime_error("cannot start " + program);
}

Child::~Child() {
    process_.close_input();
    if (process_.started() && wait_exit(10000) == -1) kill_hard();
}

void Child::send(const std::string& command) {
    process_.write(command + "\n");
}

bool Child::read_some(int timeout_ms) {
    return process_.read(buffered_, timeout_ms) != vex::process::Read::end;
}

int Child::wait_exit(int timeout_ms) {
    const auto exit = process_.wait(timeout_ms);
    return exit ? exit->status() : -1;
}

void Child::kill_hard() {
    if (process_.started()) process_.kill_and_wait();
}

std::string Child::reply(int timeout_ms) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        auto nl = buffered_.find('\n');
        if (nl != std::string::npos) {
            std::string line = buffered_.substr(0, nl);
            buffered_.erase(0, nl + 1);
            return line;
        }
        const int left = left_ms(deadline);
        if (left == 0) return "timeout";
        if (!read_some(left)) return "eof";
    }
}

std::string Child::ask(const std::string& command, int timeout_ms) {
    send(command);
    return reply(timeout_ms);
}

int Child::rc(const std::string& command, int timeout_ms) {
    std::string line = ask(command, timeout_ms);
    try {
        return std::stoi(line);
    } catch (...) {
        return -1000;  // no result: "timeout", "eof" or an unknown command
    }
}

std::vector<int> run_together(const std::vector<std::vector<std::string>>& commands,
                              int timeout_ms) {
    std::vector<vex::process::Process> processes;
    for (const auto& args : commands)
        processes.push_back(vex::process::Process::start(args));
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    std::vector<int> codes;
    for (auto& p : processes) {
        const auto exit = p.wait(left_ms(deadline));
        codes.push_back(exit && exit->exited() ? exit->code : -1);
    }
    return codes;  // any still running are killed as they go
}

RunResult run(const std::vector<std::string>& args, const std::vector<std::string>& extra_env,
              int timeout_ms) {
    vex::process::Result r = vex::process::run(args, extra_env, timeout_ms);
    RunResult result;
    result.status = r.exit && r.exit->exited() ? r.exit->code : -1;
    result.out = std::move(r.out);
    result.err = std::move(r.err);
    return result;
}

bool process_running(long pid) {
#if defined(_WIN32)
    HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(pid));
    if (process == nullptr) return false;
    const bool running = WaitForSingleObject(process, 0) == WAIT_TIMEOUT;
    CloseHandle(process);
    return running;
#else
    return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
#endif
}

}  // namespace vextest
