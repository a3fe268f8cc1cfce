#include "support/child.h"

#include <chrono>
#include <stdexcept>
#include <thread>

#if defined(_WIN32)
#include <windows.h>
#else
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

extern char** environ;
#endif

namespace vextest {

namespace {

// The test's environment, with the extra entries replacing any of the same name.
std::vector<std::string> environment(const std::vector<std::string>& extra_env) {
    std::vector<std::string> env(extra_env);
    auto add = [&](const std::string& entry) {
        for (const auto& extra : extra_env) {
            const auto key = extra.find('=') + 1;
            if (entry.compare(0, key, extra, 0, key) == 0) return;
        }
        env.push_back(entry);
    };
#if defined(_WIN32)
    char* block = GetEnvironmentStringsA();
    for (const char* e = block; *e != '\0'; e += std::char_traits<char>::length(e) + 1)
        add(e);
    FreeEnvironmentStringsA(block);
#else
    for (char** e = environ; *e != nullptr; ++e)
        add(*e);
#endif
    return env;
}

using Clock = std::chrono::steady_clock;

int left_ms(Clock::time_point deadline) {
    auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

#if defined(_WIN32)

std::string windows_path(std::string path) {
    for (char& c : path)
        if (c == '/') c = '\\';
    return path;
}

// The test's standard error as a handle a child can inherit; null when there is none.
HANDLE inheritable_stderr() {
    HANDLE copy = nullptr;
    const HANDLE err = GetStdHandle(STD_ERROR_HANDLE);
    if (err == nullptr || err == INVALID_HANDLE_VALUE ||
        !DuplicateHandle(GetCurrentProcess(), err, GetCurrentProcess(), &copy, 0, TRUE,
                         DUPLICATE_SAME_ACCESS)) {
        return nullptr;
    }
    return copy;
}

// Starts a program with the given standard handles, which it inherits, and nothing else.
HANDLE start(const std::vector<std::string>& args, const std::vector<std::string>& extra_env,
             HANDLE in, HANDLE out, HANDLE err) {
    std::string command;
    for (const std::string& arg : args)
        command += (command.empty() ? "\"" : " \"") + arg + "\"";
    std::string block;
    for (const std::string& entry : environment(extra_env))
        block += entry + '\0';
    block += '\0';

    std::vector<HANDLE> inherit;
    for (HANDLE h : {in, out, err}) {
        bool seen = h == nullptr;
        for (HANDLE other : inherit)
            seen |= other == h;
        if (!seen) inherit.push_back(h);
    }
    SIZE_T size = 0;
    InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    std::vector<char> list_storage(size);
    auto* list = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(list_storage.data());
    if (inherit.empty() || !InitializeProcThreadAttributeList(list, 1, 0, &size) ||
        !UpdateProcThreadAttribute(list, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, inherit.data(),
                                   sizeof(HANDLE) * inherit.size(), nullptr, nullptr)) {
        throw std::runtime_error("cannot set up the handles to inherit");
    }
    STARTUPINFOEXA info{};
    info.StartupInfo.cb = sizeof info;
    info.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    info.StartupInfo.hStdInput = in;
    info.StartupInfo.hStdOutput = out;
    info.StartupInfo.hStdError = err;
    info.lpAttributeList = list;
    PROCESS_INFORMATION process{};
    const std::string program = windows_path(args.front());
    const BOOL ok = CreateProcessA(program.c_str(), command.data(), nullptr, nullptr, TRUE,
                                   EXTENDED_STARTUPINFO_PRESENT, block.data(), nullptr,
                                   &info.StartupInfo, &process);
    DeleteProcThreadAttributeList(list);
    if (!ok) return nullptr;
    CloseHandle(process.hThread);
    return process.hProcess;
}

// Waits for a process until the deadline, kills it then, and closes it: its exit status, or
// -1 when it had to be killed.
int reap(HANDLE process, Clock::time_point deadline) {
    if (process == nullptr) return -1;
    DWORD code = static_cast<DWORD>(-1);
    if (WaitForSingleObject(process, static_cast<DWORD>(left_ms(deadline))) != WAIT_OBJECT_0 ||
        !GetExitCodeProcess(process, &code)) {
        TerminateProcess(process, 9);
        WaitForSingleObject(process, 10000);
        code = static_cast<DWORD>(-1);
    }
    CloseHandle(process);
    return static_cast<int>(code);
}

// A pipe whose write end a child inherits.
bool child_pipe(HANDLE& read_end, HANDLE& write_end) {
    SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    if (!CreatePipe(&read_end, &write_end, &inheritable, 0)) return false;
    SetHandleInformation(read_end, HANDLE_FLAG_INHERIT, 0);
    return true;
}

#else

// Starts a program with the test's environment plus `extra_env` and these descriptors as its
// standard input, output and error (-1: the test's own); -1 when it cannot be started.
pid_t start(const std::vector<std::string>& args, const std::vector<std::string>& extra_env, int in,
            int out, int err) {
    std::vector<std::string> strings = environment(extra_env);
    std::vector<char*> envp;
    for (auto& e : strings)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    std::vector<std::string> copy(args);
    std::vector<char*> argv;
    for (std::string& arg : copy)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const int fds[3] = {in, out, err};
    for (int i = 0; i < 3; ++i)
        if (fds[i] >= 0) posix_spawn_file_actions_adddup2(&actions, fds[i], i);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data()) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// Waits for a process until the deadline, kills it then, and reaps it: its exit status, or -1
// when it ended by a signal or had to be killed.
int reap(pid_t pid, Clock::time_point deadline) {
    while (pid > 0) {
        int status = 0;
        const pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        if (r < 0) break;
        if (Clock::now() >= deadline) {
            ::kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return -1;
}

#endif

}  // namespace

#if defined(_WIN32)

Child::Child(const std::vector<std::string>& extra_env, const std::string& program) {
    SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    HANDLE child_in = nullptr;
    HANDLE child_out = nullptr;
    if (!CreatePipe(&child_in, &in_, &inheritable, 0)) throw std::runtime_error("pipe failed");
    if (!CreatePipe(&out_, &child_out, &inheritable, 0)) {
        CloseHandle(child_in);
        CloseHandle(in_);
        throw std::runtime_error("pipe failed");
    }
    SetHandleInformation(in_, HANDLE_FLAG_INHERIT, 0);
    SetHandleInformation(out_, HANDLE_FLAG_INHERIT, 0);
    HANDLE child_err = inheritable_stderr();
    process_ = start({program}, extra_env, child_in, child_out, child_err);
    CloseHandle(child_in);
    CloseHandle(child_out);
    if (child_err != nullptr) CloseHandle(child_err);
    if (process_ == nullptr) {
        CloseHandle(in_);
        CloseHandle(out_);
        throw std::runtime_error("CreateProcess failed: " + program);
    }
}

Child::~Child() {
    if (in_ != nullptr) CloseHandle(in_);
    if (process_ != nullptr && wait_exit(10000) == -1) kill_hard();
    if (out_ != nullptr) CloseHandle(out_);
}

void Child::send(const std::string& command) {
    const std::string line = command + "\n";
    DWORD written = 0;
    WriteFile(in_, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
}

bool Child::read_some(int timeout_ms) {
    // Anonymous pipes cannot be waited on: look for data, a little at a time.
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        DWORD available = 0;
        if (!PeekNamedPipe(out_, nullptr, 0, nullptr, &available, nullptr)) return false;
        if (available > 0) {
            char buf[512];
            DWORD n = 0;
            if (!ReadFile(out_, buf, sizeof buf, &n, nullptr) || n == 0) return false;
            buffered_.append(buf, n);
            return true;
        }
        if (left_ms(deadline) == 0) return true;
        Sleep(1);
    }
}

int Child::wait_exit(int timeout_ms) {
    if (process_ == nullptr) return -1;
    if (WaitForSingleObject(process_, static_cast<DWORD>(timeout_ms)) != WAIT_OBJECT_0) return -1;
    DWORD code = 0;
    GetExitCodeProcess(process_, &code);
    CloseHandle(process_);
    process_ = nullptr;
    return static_cast<int>(code);
}

void Child::kill_hard() {
    if (process_ == nullptr) return;
    TerminateProcess(process_, 9);
    WaitForSingleObject(process_, INFINITE);
    CloseHandle(process_);
    process_ = nullptr;
}

std::vector<int> run_together(const std::vector<std::vector<std::string>>& commands,
                              int timeout_ms) {
    HANDLE err = inheritable_stderr();
    std::vector<HANDLE> processes;
    for (const auto& args : commands)
        processes.push_back(start(args, {}, nullptr, err, err));
    if (err != nullptr) CloseHandle(err);
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    std::vector<int> codes;
    for (HANDLE p : processes)
        codes.push_back(reap(p, deadline));
    return codes;
}

RunResult run(const std::vector<std::string>& args, const std::vector<std::string>& extra_env,
              int timeout_ms) {
    RunResult r;
    HANDLE reads[2] = {nullptr, nullptr};
    HANDLE writes[2] = {nullptr, nullptr};
    if (!child_pipe(reads[0], writes[0])) return r;
    if (!child_pipe(reads[1], writes[1])) {
        CloseHandle(reads[0]);
        CloseHandle(writes[0]);
        return r;
    }
    HANDLE process = start(args, extra_env, nullptr, writes[0], writes[1]);
    CloseHandle(writes[0]);
    CloseHandle(writes[1]);
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    // Anonymous pipes cannot be waited on: look for data on both, a little at a time.
    std::string* sinks[2] = {&r.out, &r.err};
    int open_pipes = process != nullptr ? 2 : 0;
    while (open_pipes > 0 && left_ms(deadline) > 0) {
        bool got = false;
        for (int i = 0; i < 2; ++i) {
            DWORD available = 0;
            if (reads[i] == nullptr) continue;
            if (PeekNamedPipe(reads[i], nullptr, 0, nullptr, &available, nullptr)) {
                if (available == 0) continue;
                char buf[4096];
                DWORD n = 0;
                if (ReadFile(reads[i], buf, sizeof buf, &n, nullptr) && n > 0) {
                    sinks[i]->append(buf, n);
                    got = true;
                    continue;
                }
            }
            // A broken pipe: the writers have all gone. Any other failure: try again.
            if (GetLastError() != ERROR_BROKEN_PIPE) continue;
            CloseHandle(reads[i]);
            reads[i] = nullptr;
            --open_pipes;
        }
        if (!got) Sleep(1);
    }
    for (HANDLE h : reads)
        if (h != nullptr) CloseHandle(h);
    r.status = reap(process, deadline);
    return r;
}

bool process_running(long pid) {
    HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(pid));
    if (process == nullptr) return false;
    const bool running = WaitForSingleObject(process, 0) == WAIT_TIMEOUT;
    CloseHandle(process);
    return running;
}

#else

Child::Child(const std::vector<std::string>& extra_env, const std::string& program) {
    int to_child[2];
    int from_child[2];
    if (pipe2(to_child, O_CLOEXEC) != 0 || pipe2(from_child, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
    pid_ = start({program}, extra_env, to_child[0], from_child[1], -1);
    close(to_child[0]);
    close(from_child[1]);
    if (pid_ <= 0) {
        close(to_child[1]);
        close(from_child[0]);
        throw std::runtime_error("posix_spawn failed: " + program);
    }
    in_ = to_child[1];
    out_ = from_child[0];
    signal(SIGPIPE, SIG_IGN);
}

Child::~Child() {
    if (in_ >= 0) close(in_);
    if (pid_ > 0 && wait_exit(10000) == -1) kill_hard();
    if (out_ >= 0) close(out_);
}

void Child::send(const std::string& command) {
    std::string line = command + "\n";
    const char* p = line.data();
    std::size_t left = line.size();
    while (left > 0) {
        ssize_t n = write(in_, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        p += n;
        left -= static_cast<std::size_t>(n);
    }
}

bool Child::read_some(int timeout_ms) {
    for (;;) {
        pollfd pfd{out_, POLLIN, 0};
        int r = poll(&pfd, 1, timeout_ms);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return true;
        char buf[512];
        ssize_t n = read(out_, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        buffered_.append(buf, static_cast<std::size_t>(n));
        return true;
    }
}

int Child::wait_exit(int timeout_ms) {
    if (pid_ <= 0) return -1;
    auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        int status = 0;
        pid_t r = waitpid(pid_, &status, WNOHANG);
        if (r == pid_) {
            pid_ = -1;
            return status;
        }
        if (r < 0 || Clock::now() >= deadline) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void Child::kill_hard() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
}

std::vector<int> run_together(const std::vector<std::vector<std::string>>& commands,
                              int timeout_ms) {
    std::vector<pid_t> pids;
    for (const auto& args : commands)
        pids.push_back(start(args, {}, -1, -1, -1));
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    std::vector<int> codes;
    for (pid_t pid : pids)
        codes.push_back(reap(pid, deadline));
    return codes;
}

RunResult run(const std::vector<std::string>& args, const std::vector<std::string>& extra_env,
              int timeout_ms) {
    RunResult r;
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0) return r;
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(out[0]);
        close(out[1]);
        return r;
    }
    const int no_input = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const pid_t pid = start(args, extra_env, no_input, out[1], err[1]);
    if (no_input >= 0) close(no_input);
    close(out[1]);
    close(err[1]);
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    std::string* sinks[2] = {&r.out, &r.err};
    int open_fds = pid > 0 ? 2 : 0;
    while (open_fds > 0) {
        const int ready = poll(fds, 2, left_ms(deadline));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) break;  // the time is up
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            char buf[4096];
            const ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n < 0 && errno == EINTR) continue;
            if (n > 0) {
                sinks[i]->append(buf, static_cast<std::size_t>(n));
            } else {
                fds[i].fd = -1;
                --open_fds;
            }
        }
    }
    close(out[0]);
    close(err[0]);
    r.status = reap(pid, deadline);
    return r;
}

bool process_running(long pid) {
    return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

#endif

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

}  // namespace vextest
