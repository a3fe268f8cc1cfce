#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "control_page.h"

namespace stress {

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
