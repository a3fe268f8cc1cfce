// The process runner on POSIX systems: posix_spawn, pipes, signals, waitpid.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "process.h"

extern char** environ;

namespace vex::process {

namespace {

// This process's environment with `changes` ("NAME=value") replacing any of the same name.
std::vector<std::string> environment(const std::vector<std::string>& changes) {
    std::vector<std::string> env(changes);
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry(*e);
        bool replaced = false;
        for (const auto& change : changes) {
            const auto key = change.find('=') + 1;
            replaced |= entry.compare(0, key, change, 0, key) == 0;
        }
        if (!replaced) env.push_back(entry);
    }
    return env;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> p;
    for (auto& s : strings)
        p.push_back(s.data());
    p.push_back(nullptr);
    return p;
}

int fd(std::intptr_t v) {
    return static_cast<int>(v);
}

void close_fd(std::intptr_t& v) {
    if (v >= 0) close(fd(v));
    v = -1;
}

}  // namespace

Process Process::start(const std::vector<std::string>& args, const Options& options) {
    Process p;
    if (args.empty()) return p;
    std::vector<std::string> argv_strings(args);
    std::vector<std::string> env_strings = environment(options.env);
    std::vector<char*> argv = pointers(argv_strings);
    std::vector<char*> envp = pointers(env_strings);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    // For each standard stream: the child's end (dup2'ed) and ours.
    const Stream streams[3] = {options.in, options.out, options.err};
    int theirs[3] = {-1, -1, -1};
    std::intptr_t* ours[3] = {&p.in_, &p.out_, &p.err_};
    bool ok = true;
    for (int i = 0; i < 3; ++i) {
        if (streams[i] == Stream::pipe) {
            int fds[2];
            if (pipe2(fds, O_CLOEXEC) != 0) {
                ok = false;
                continue;
            }
            theirs[i] = i == 0 ? fds[0] : fds[1];
            *ours[i] = i == 0 ? fds[1] : fds[0];
        } else if (streams[i] == Stream::none) {
            theirs[i] = ::open("/dev/null", (i == 0 ? O_RDONLY : O_WRONLY) | O_CLOEXEC);
            ok &= theirs[i] >= 0;
        }
        if (theirs[i] >= 0) posix_spawn_file_actions_adddup2(&actions, theirs[i], i);
    }
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    // Stop requests reach it as they would a program started from a shell.
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGINT);
    sigaddset(&defaults, SIGTERM);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
    if (options.own_group) {
        posix_spawnattr_setpgroup(&attr, 0);
        flags = static_cast<short>(flags | POSIX_SPAWN_SETPGROUP);
    }
    posix_spawnattr_setflags(&attr, flags);
    pid_t pid = -1;
    if (ok && posix_spawn(&pid, argv[0], &actions, &attr, argv.data(), envp.data()) != 0) pid = -1;
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
    for (int t : theirs)
        if (t >= 0) close(t);
    if (pid <= 0) {
        p.close_input();
        p.close_output();
        return p;
    }
    p.id_ = pid;
    if (options.in == Stream::pipe) ::signal(SIGPIPE, SIG_IGN);  // a child gone: a failed write
    return p;
}

bool Process::write(const std::string& data) {
    const char* at = data.data();
    std::size_t left = data.size();
    while (left > 0 && in_ >= 0) {
        const ssize_t n = ::write(fd(in_), at, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        at += n;
        left -= static_cast<std::size_t>(n);
    }
    return left == 0;
}

void Process::close_input() {
    close_fd(in_);
}

Read Process::read(std::string& into, int timeout_ms, bool from_error) {
    const std::intptr_t from = from_error ? err_ : out_;
    if (from < 0) return Read::end;
    for (;;) {
        pollfd pfd{fd(from), POLLIN, 0};
        const int r = poll(&pfd, 1, timeout_ms);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return Read::timeout;
        char buf[4096];
        const ssize_t n = ::read(fd(from), buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return Read::end;
        into.append(buf, static_cast<std::size_t>(n));
        return Read::data;
    }
}

void Process::close_output() {
    close_fd(out_);
    close_fd(err_);
}

void Process::kill() {
    signal(SIGKILL);
}

void Process::signal(int sig) {
    if (id_ > 0) ::kill(static_cast<pid_t>(id_), sig);
}

std::optional<Exit> Process::wait(int timeout_ms) {
    if (id_ <= 0) return std::nullopt;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        int status = 0;
        const pid_t r = waitpid(static_cast<pid_t>(id_), &status, timeout_ms < 0 ? 0 : WNOHANG);
        if (r == static_cast<pid_t>(id_)) {
            id_ = -1;
            if (WIFEXITED(status)) return Exit{WEXITSTATUS(status), 0};
            return Exit{-1, WIFSIGNALED(status) ? WTERMSIG(status) : 0};
        }
        if (r < 0 && errno != EINTR) {  // not a child of this process (any more)
            id_ = -1;
            return Exit{-1, 0};
        }
        if (timeout_ms >= 0 && std::chrono::steady_clock::now() >= end) return std::nullopt;
        if (r == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

bool wait_output(const std::vector<Process*>& processes, int timeout_ms) {
    std::vector<pollfd> fds;
    for (const Process* p : processes)
        if (p->out_ >= 0) fds.push_back({fd(p->out_), POLLIN, 0});
    if (fds.empty()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(timeout_ms));
        return false;
    }
    for (;;) {
        const int r = poll(fds.data(), fds.size(), timeout_ms);
        if (r < 0 && errno == EINTR) continue;
        return r > 0;
    }
}

std::string self_path() {
    std::error_code ec;
    const auto p = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::string("/proc/self/exe") : p.string();
}

void exec_self(const std::vector<std::string>& args) {
    std::vector<std::string> strings{self_path()};
    strings.insert(strings.end(), args.begin(), args.end());
    std::vector<char*> argv = pointers(strings);
    execv(argv[0], argv.data());
}

void set_env(const std::string& name, const std::string& value) {
    setenv(name.c_str(), value.c_str(), 1);
}

void unset_env(const std::string& name) {
    unsetenv(name.c_str());
}

long self_id() {
    return static_cast<long>(getpid());
}

long parent_id() {
    return static_cast<long>(getppid());
}

}  // namespace vex::process
