#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "process.h"

extern char** environ;

namespace stress {

bool start_self(const std::vector<std::string>& args, Child& child) {
    std::vector<char*> argv{const_cast<char*>("/proc/self/exe")};
    for (const auto& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    int fds[2] = {-1, -1};
    if (pipe2(fds, O_CLOEXEC) != 0) return false;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, "/proc/self/exe", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (rc != 0) {
        close(fds[0]);
        return false;
    }
    child.id = pid;
    child.output = fds[0];
    return true;
}

void kill_now(const Child& child) {
    if (child.id > 0) kill(static_cast<pid_t>(child.id), SIGKILL);
}

std::optional<int> reap(const Child& child, int wait_ms) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(wait_ms);
    for (;;) {
        int status = 0;
        const pid_t r = waitpid(static_cast<pid_t>(child.id), &status, WNOHANG);
        if (r == static_cast<pid_t>(child.id)) {
            if (WIFEXITED(status)) return WEXITSTATUS(status);
            return 128 + (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
        }
        if (r < 0 && errno != EINTR) return 255;  // not our child (any more)
        if (std::chrono::steady_clock::now() >= end) return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void read_output(const std::vector<Child>& children, std::vector<std::string>& text,
                 std::vector<bool>& open, int wait_ms) {
    std::vector<pollfd> fds;
    std::vector<std::size_t> which;
    for (std::size_t i = 0; i < children.size(); ++i) {
        if (!open[i] || children[i].output < 0) continue;
        fds.push_back({children[i].output, POLLIN, 0});
        which.push_back(i);
    }
    if (fds.empty()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(wait_ms));
        return;
    }
    if (poll(fds.data(), fds.size(), wait_ms) <= 0) return;
    for (std::size_t j = 0; j < fds.size(); ++j) {
        if ((fds[j].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
        char buf[4096];
        const ssize_t n = read(fds[j].fd, buf, sizeof buf);
        if (n > 0) {
            text[which[j]].append(buf, static_cast<std::size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            open[which[j]] = false;
        }
    }
}

int run_self(char** argv) {
    pid_t pid = -1;
    if (posix_spawn(&pid, "/proc/self/exe", nullptr, nullptr, argv, environ) != 0) return 1;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return 1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

long self_id() {
    return static_cast<long>(getpid());
}
long parent_id() {
    return static_cast<long>(getppid());
}

namespace {

struct Slot {
    pthread_mutex_t guard;
    int holding;
};

struct Page {
    int stop;
    Slot slots[ControlPage::kMaxWorkers];
};

Page* page_of(void* p) {
    return static_cast<Page*>(p);
}

void* map_page(const std::string& path, bool create) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC | (create ? O_CREAT | O_EXCL : 0), 0600);
    if (fd < 0) return nullptr;
    if (create && ftruncate(fd, sizeof(Page)) != 0) {
        close(fd);
        return nullptr;
    }
    void* p = mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return p == MAP_FAILED ? nullptr : p;
}

}  // namespace

std::unique_ptr<ControlPage> ControlPage::create(const std::string& path) {
    void* p = map_page(path, true);
    if (p == nullptr) return nullptr;
    for (Slot& s : page_of(p)->slots) {
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
        pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
        pthread_mutex_init(&s.guard, &attr);
        pthread_mutexattr_destroy(&attr);
    }
    return std::unique_ptr<ControlPage>(new ControlPage(p));
}

std::unique_ptr<ControlPage> ControlPage::open(const std::string& path) {
    void* p = map_page(path, false);
    return p == nullptr ? nullptr : std::unique_ptr<ControlPage>(new ControlPage(p));
}

ControlPage::~ControlPage() {
    munmap(page_, sizeof(Page));
}

void ControlPage::request_stop() {
    std::atomic_ref(page_of(page_)->stop).store(1, std::memory_order_relaxed);
}
bool ControlPage::stop_requested() const {
    return std::atomic_ref(page_of(page_)->stop).load(std::memory_order_relaxed) != 0;
}

bool ControlPage::take_guard(int w, unsigned timeout_ms) {
    pthread_mutex_t* m = &page_of(page_)->slots[w].guard;
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += static_cast<time_t>(timeout_ms / 1000);
    deadline.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    int r;
    do {
        r = pthread_mutex_timedlock(m, &deadline);
    } while (r == EINTR);
    if (r == EOWNERDEAD) {
        pthread_mutex_consistent(m);
        r = 0;
    }
    return r == 0;
}

void ControlPage::release_guard(int w) {
    pthread_mutex_unlock(&page_of(page_)->slots[w].guard);
}

void ControlPage::set_holding(int w, bool holding) {
    std::atomic_ref(page_of(page_)->slots[w].holding)
        .store(holding ? 1 : 0, std::memory_order_relaxed);
}
bool ControlPage::holding(int w) const {
    return std::atomic_ref(page_of(page_)->slots[w].holding).load(std::memory_order_relaxed) != 0;
}

}  // namespace stress
