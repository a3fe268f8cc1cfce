#include "support/child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace vextest {

Child::Child(const std::vector<std::string>& extra_env, const std::string& program) {
    // The test's environment, with the extra entries replacing any of the same name.
    std::vector<std::string> env_strings(extra_env);
    for (char** e = environ; *e != nullptr; ++e) {
        std::string entry(*e);
        bool replaced = false;
        for (const auto& extra : extra_env) {
            replaced |= entry.compare(0, extra.find('=') + 1, extra, 0, extra.find('=') + 1) == 0;
        }
        if (!replaced) env_strings.push_back(entry);
    }
    std::vector<char*> envp;
    for (auto& e : env_strings) envp.push_back(e.data());
    envp.push_back(nullptr);

    int to_child[2];
    int from_child[2];
    if (pipe2(to_child, O_CLOEXEC) != 0 || pipe2(from_child, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, to_child[0], 0);
    posix_spawn_file_actions_adddup2(&actions, from_child[1], 1);
    char* argv[] = {const_cast<char*>(program.c_str()), nullptr};
    int r = posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv, envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(to_child[0]);
    close(from_child[1]);
    if (r != 0) {
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

std::string Child::reply(int timeout_ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        auto nl = buffered_.find('\n');
        if (nl != std::string::npos) {
            std::string line = buffered_.substr(0, nl);
            buffered_.erase(0, nl + 1);
            return line;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        if (left <= 0) return "timeout";
        pollfd pfd{out_, POLLIN, 0};
        int r = poll(&pfd, 1, static_cast<int>(left));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return "timeout";
        char buf[512];
        ssize_t n = read(out_, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return "eof";
        buffered_.append(buf, static_cast<std::size_t>(n));
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

int Child::wait_exit(int timeout_ms) {
    if (pid_ <= 0) return -1;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        int status = 0;
        pid_t r = waitpid(pid_, &status, WNOHANG);
        if (r == pid_) {
            pid_ = -1;
            return status;
        }
        if (r < 0 || std::chrono::steady_clock::now() >= deadline) return -1;
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

}  // namespace vextest
