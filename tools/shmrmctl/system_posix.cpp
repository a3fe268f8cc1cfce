// shmrmctl's system layer on POSIX systems: signals, posix_spawn, termios.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "system.h"

extern char** environ;

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

struct Child::State {
    pid_t pid = -1;
    int out = -1;  // the child's standard output, when captured
    std::string got;
};

Child::Child(const std::vector<std::string>& args, bool capture_stdout)
    : state_(std::make_unique<State>()) {
    const std::string exe = self_path();
    std::vector<char*> argv{const_cast<char*>(exe.c_str())};
    for (const auto& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none;
    sigemptyset(&none);
    const sigset_t defaults = stop_signals();
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setflags(
        &attr,
        static_cast<short>(POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP));
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    int fds[2] = {-1, -1};
    if (capture_stdout) {
        if (pipe2(fds, O_CLOEXEC) == 0) {
            posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
        } else {
            fds[0] = fds[1] = -1;
        }
    }
    if ((!capture_stdout || fds[0] >= 0) &&
        posix_spawn(&state_->pid, exe.c_str(), &actions, &attr, argv.data(), environ) != 0) {
        state_->pid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    if (fds[1] >= 0) close(fds[1]);
    state_->out = fds[0];
}

Child::~Child() {
    if (state_ == nullptr) return;
    stop();
    if (state_->out >= 0) close(state_->out);
}
Child::Child(Child&&) noexcept = default;
Child& Child::operator=(Child&&) noexcept = default;

bool Child::started() const {
    return state_->pid > 0;
}
long Child::id() const {
    return static_cast<long>(state_->pid);
}

bool Child::wait_for_line(const std::string& prefix, int timeout_ms) {
    if (state_->out < 0) return false;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (std::chrono::steady_clock::now() < end) {
        pollfd p{state_->out, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0) continue;
        char buf[256];
        const ssize_t n = read(state_->out, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        state_->got.append(buf, static_cast<std::size_t>(n));
        if (state_->got.find('\n') != std::string::npos) return state_->got.rfind(prefix, 0) == 0;
    }
    return false;
}

int Child::stop(int bound_ms) {
    const pid_t pid = state_->pid;
    if (pid <= 0) return -1;
    state_->pid = -1;
    kill(pid, SIGTERM);
    int status = 0;
    for (int waited = 0; waited < bound_ms; waited += 50) {
        if (waitpid(pid, &status, WNOHANG) == pid) {
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        usleep(50000);
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return -1;
}

int run_again_with(const std::string& name, const std::string& value, char** argv,
                   const std::vector<std::string>& more_args) {
    set_env(name, value);
    std::vector<char*> args;
    for (char** a = argv; *a != nullptr; ++a)
        args.push_back(*a);
    for (const auto& a : more_args)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    // A child, not a replaced image: this process lets go of what it loaded when it ends. While it
    // waits, an interrupt from the terminal reaches the child on its own and a stop request is
    // passed on.
    pid_t pid = -1;
    if (posix_spawn(&pid, "/proc/self/exe", nullptr, nullptr, args.data(), environ) != 0) {
        std::perror("shmrmctl: starting again");
        return 1;
    }
    install_stop_handlers();
    bool passed_on = false;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return 1;
        if (stop_requested() && !passed_on) {
            passed_on = true;
            kill(pid, SIGTERM);
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string self_path() {
    std::error_code ec;
    const auto p = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::string("/proc/self/exe") : p.string();
}

std::string make_temp_dir(const std::string& prefix, std::string& error) {
    std::error_code ec;
    std::string path = (std::filesystem::temp_directory_path(ec) / (prefix + "XXXXXX")).string();
    if (ec || mkdtemp(path.data()) == nullptr) {
        error = std::string("mkdtemp: ") + (ec ? ec.message() : std::strerror(errno));
        return {};
    }
    return path;
}

void set_env(const std::string& name, const std::string& value) {
    setenv(name.c_str(), value.c_str(), 1);
}

bool interactive() {
    return isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0;
}

struct Console::Saved {
    termios modes{};
    bool ok = false;
};

Console::Console() : saved_(std::make_unique<Saved>()) {
    saved_->ok = tcgetattr(STDIN_FILENO, &saved_->modes) == 0;
    if (saved_->ok) {
        termios raw = saved_->modes;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        raw.c_cc[VMIN] = 0;
        raw.c_cc[VTIME] = 0;
        tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    }
    write("\x1b[?1049h\x1b[?25l\x1b[H\x1b[2J");
}

Console::~Console() {
    write("\x1b[0m\x1b[?25h\x1b[?1049l");
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

long process_id() {
    return static_cast<long>(getpid());
}
long parent_process_id() {
    return static_cast<long>(getppid());
}

}  // namespace shmrmctl::sys
