// POSIX named mappings and mutexes with the lifetime and ownership rules of os.h.
//
// A named mapping is a POSIX shared-memory object. Every handle and every view holds an open
// file description of it with a shared record lock (OFD lock) on it; the kernel drops such a
// lock when the description is closed, also when its process dies. Whether anyone still holds
// the mapping is therefore the question whether an exclusive lock could be taken. Create, open
// and release ask it under a guard (an flock on a companion object), so that they never race:
// an object nobody holds is stale, and is replaced (create) or removed (open, last release).
//
// A named mutex is a robust, recursive, process-shared pthread mutex in its own shared-memory
// object, initialised once under an flock; an owner that dies hands it on with EOWNERDEAD.
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>

#include "os.h"

namespace vex::os {

namespace {

thread_local unsigned t_last_error = 0;

// The calling thread's id, asked of the system once per thread.
pid_t self_tid() {
    thread_local const pid_t tid = gettid();
    return tid;
}

constexpr mode_t kObjectMode = 0660;
constexpr std::size_t kNameMax = 256;

template <typename F>
int no_eintr(F f) {
    int r;
    do {
        r = f();
    } while (r == -1 && errno == EINTR);
    return r;
}

bool fail(int error) {
    t_last_error = static_cast<unsigned>(error);
    return false;
}

// "/<name>" as POSIX wants shared-memory names; false when the name cannot be used.
bool shm_name(const char* name, const char* suffix, char (&out)[kNameMax]) {
    if (name == nullptr || *name == '\0' || std::strchr(name, '/') != nullptr) return fail(EINVAL);
    int n = std::snprintf(out, sizeof out, "/%s%s", name, suffix);
    if (n < 0 || static_cast<std::size_t>(n) >= sizeof out) return fail(ENAMETOOLONG);
    return true;
}

int shm_open_object(const char* name, int flags) {
    int fd = no_eintr([&] { return shm_open(name, flags | O_RDWR | O_CLOEXEC, kObjectMode); });
    if (fd >= 0 && (flags & O_CREAT) != 0) (void)fchmod(fd, kObjectMode);
    return fd;
}

// An OFD record lock over the whole object; type F_RDLCK, F_WRLCK or F_UNLCK. Non-blocking.
bool ofd_lock(int fd, short type) {
    struct flock fl {};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    return no_eintr([&] { return fcntl(fd, F_OFD_SETLK, &fl); }) == 0;
}

// Serialises create, open and release of one mapping name across processes.
class Guard {
  public:
    explicit Guard(const char* shm) {
        char name[kNameMax];
        int n = std::snprintf(name, sizeof name, "%s.guard", shm);
        if (n < 0 || static_cast<std::size_t>(n) >= sizeof name) {
            fail(ENAMETOOLONG);
            return;
        }
        fd_ = shm_open_object(name, O_CREAT);
        if (fd_ < 0) {
            fail(errno);
            return;
        }
        // A blocking flock on a descriptor of our own fails only when the kernel has no memory
        // left for the lock.
        if (no_eintr([&] { return flock(fd_, LOCK_EX); }) != 0) {  // GCOVR_EXCL_START
            fail(errno);
            close(fd_);
            fd_ = -1;
        }  // GCOVR_EXCL_STOP
    }
    ~Guard() {
        if (fd_ >= 0) close(fd_);  // closing drops the flock
    }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
    bool ok() const { return fd_ >= 0; }

  private:
    int fd_ = -1;
};

// Process-local records behind the opaque handles. Fixed pools: nothing is allocated.
enum class Kind : unsigned char { kFree, kMapping, kView, kMutex };

struct Entry {
    // Set last when an entry is taken and first when it is freed, so a handle can be checked
    // without the pool's lock.
    std::atomic<Kind> kind{Kind::kFree};
    int fd = -1;  // mapping and view: a description holding the shared lock
    void* address = nullptr;
    std::size_t length = 0;
    char shm[kNameMax] = {};

    void clear() {
        fd = -1;
        address = nullptr;
        length = 0;
        shm[0] = '\0';
    }
};

constexpr int kEntries = 64;
Entry g_entries[kEntries];
std::mutex g_entries_mutex;  // serialises taking and freeing entries

Entry* take_entry(Kind kind) {
    std::lock_guard lock(g_entries_mutex);
    for (Entry& e : g_entries) {
        if (e.kind.load(std::memory_order_relaxed) == Kind::kFree) {
            e.clear();
            e.kind.store(kind, std::memory_order_release);
            return &e;
        }
    }
    fail(EMFILE);
    return nullptr;
}

void free_entry(Entry* e) {
    std::lock_guard lock(g_entries_mutex);
    e->kind.store(Kind::kFree, std::memory_order_release);
    e->clear();
}

// The entry behind a handle of this kind, or nullptr for anything else. Takes no lock: the
// region lock's wait and release run through here.
Entry* find_entry(const void* handle, Kind kind) {
    const auto at = reinterpret_cast<std::uintptr_t>(handle);
    const auto first = reinterpret_cast<std::uintptr_t>(&g_entries[0]);
    if (at < first || at >= first + sizeof g_entries || (at - first) % sizeof(Entry) != 0)
        return nullptr;
    Entry* e = &g_entries[(at - first) / sizeof(Entry)];
    return e->kind.load(std::memory_order_acquire) == kind ? e : nullptr;
}

Entry* find_view(const void* address) {
    std::lock_guard lock(g_entries_mutex);
    for (Entry& e : g_entries) {
        if (e.kind.load(std::memory_order_relaxed) == Kind::kView && e.address == address)
            return &e;
    }
    return nullptr;
}

// Removes the object when `fd` holds the last lock on it and the name still refers to it.
// Runs under the guard.
void unlink_if_last(int fd, const char* shm) {
    if (!ofd_lock(fd, F_WRLCK)) return;  // someone else holds it; our shared lock stays
    struct stat mine {
    }, named{};
    int other = shm_open_object(shm, 0);
    if (other >= 0) {
        if (fstat(fd, &mine) == 0 && fstat(other, &named) == 0 && mine.st_ino == named.st_ino &&
            mine.st_dev == named.st_dev) {
            shm_unlink(shm);
        }
        close(other);
    }
}

// Closes a mapping or view description, removing the object when it was the last holder.
void release_description(Entry* e) {
    {
        Guard guard(e->shm);
        if (guard.ok()) unlink_if_last(e->fd, e->shm);
        close(e->fd);
    }
    free_entry(e);
}

// Timed waits run on the monotonic clock. The thread sanitizer sees only the realtime wait, so
// a build with it uses that one to keep its model of lock ownership.
#if defined(__SANITIZE_THREAD__)
constexpr clockid_t kLockClock = CLOCK_REALTIME;
int clock_lock(pthread_mutex_t* m, const timespec* deadline) {
    return pthread_mutex_timedlock(m, deadline);
}
// The sanitizer's timed-lock interceptor records only a plain success. A mutex taken over from
// a dead owner is owned all the same: record it as the plain lock's interceptor does, so that
// what this thread does under it is ordered after what the thread before it did.
void taken_over(pthread_mutex_t* m) {
    __tsan_mutex_pre_lock(m, 0);
    __tsan_mutex_post_lock(m, 0, 0);
}
#else
constexpr clockid_t kLockClock = CLOCK_MONOTONIC;
int clock_lock(pthread_mutex_t* m, const timespec* deadline) {
    return pthread_mutex_clocklock(m, CLOCK_MONOTONIC, deadline);
}
void taken_over(pthread_mutex_t*) {}
#endif

struct SharedMutex {
    std::atomic<std::uint32_t> magic;
    pthread_mutex_t mutex;
};
constexpr std::uint32_t kMutexMagic = 0x5645584d;  // "VEXM"

}  // namespace

unsigned last_error() {
    return t_last_error;
}
void set_last_error(unsigned error) {
    t_last_error = error;
}

namespace {

// A description of the object named `shm` holding a shared lock on it, or -1 with errno set:
// ENOENT when no process holds the object (a stale one is removed). Runs under the guard.
int open_held(const char* shm) {
    int fd = shm_open_object(shm, 0);
    if (fd < 0) return -1;
    if (ofd_lock(fd, F_WRLCK)) {
        // Nobody holds it: what is left of a region whose holders are gone.
        shm_unlink(shm);
        close(fd);
        errno = ENOENT;
        return -1;
    }
    // Refused only while another description holds the exclusive lock, which is taken only
    // under the guard that this call holds.
    if (!ofd_lock(fd, F_RDLCK)) {  // GCOVR_EXCL_START
        int err = errno;
        close(fd);
        errno = err;
        return -1;
    }  // GCOVR_EXCL_STOP
    return fd;
}

// A new object of `size` bytes named `shm`, holding a shared lock, or -1 with errno set.
int create_held(const char* shm, std::uint64_t size) {
    int fd = shm_open_object(shm, O_CREAT | O_EXCL);
    if (fd < 0) return -1;
    if (no_eintr([&] { return ftruncate(fd, static_cast<off_t>(size)); }) != 0 ||
        !ofd_lock(fd, F_RDLCK)) {
        int err = errno;
        shm_unlink(shm);
        close(fd);
        errno = err;
        return -1;
    }
    return fd;
}

// Runs `obtain` (returning a held description or -1 with errno) under the guard of the mapping
// `name` and wraps its result in a handle.
template <typename Obtain>
Handle mapping_handle(const char* name, Obtain obtain) {
    char shm[kNameMax];
    if (!shm_name(name, "", shm)) return nullptr;
    Entry* e = take_entry(Kind::kMapping);
    if (e == nullptr) return nullptr;
    std::memcpy(e->shm, shm, sizeof shm);
    Guard guard(shm);
    e->fd = guard.ok() ? obtain(shm) : -1;
    if (e->fd < 0) {
        int err = errno;
        free_entry(e);
        if (guard.ok()) fail(err == ENOENT ? static_cast<int>(kErrorFileNotFound) : err);
        return nullptr;
    }
    return e;
}

}  // namespace

Handle create_named_mapping(std::uint64_t size, const char* name) {
    if (size == 0 || size > static_cast<std::uint64_t>(INT64_MAX)) {
        fail(EINVAL);
        return nullptr;
    }
    bool existed = false;
    Handle h = mapping_handle(name, [&](const char* shm) {
        int fd = open_held(shm);
        existed = fd >= 0;
        return fd >= 0 || errno != ENOENT ? fd : create_held(shm, size);
    });
    if (h != nullptr) t_last_error = existed ? kErrorAlreadyExists : 0;
    return h;
}

Handle open_named_mapping(const char* name) {
    Handle h = mapping_handle(name, open_held);
    if (h != nullptr) t_last_error = 0;
    return h;
}

void* map_view(Handle mapping, std::size_t* mapped) {
    Entry* m = find_entry(mapping, Kind::kMapping);
    if (m == nullptr) {
        fail(EBADF);
        return nullptr;
    }
    struct stat st {};
    if (fstat(m->fd, &st) != 0) {  // GCOVR_EXCL_START: a descriptor the handle holds open
        fail(errno);
        return nullptr;
    }  // GCOVR_EXCL_STOP
    // The view holds the mapping on its own, through a description of its own.
    char self[64];
    std::snprintf(self, sizeof self, "/proc/self/fd/%d", m->fd);
    int fd = no_eintr([&] { return open(self, O_RDWR | O_CLOEXEC); });
    if (fd < 0) {
        fail(errno);
        return nullptr;
    }
    // The handle's own shared lock is proof that no exclusive one is held (see open_held).
    if (!ofd_lock(fd, F_RDLCK)) {  // GCOVR_EXCL_START
        int err = errno;
        close(fd);
        fail(err);
        return nullptr;
    }  // GCOVR_EXCL_STOP
    auto length = static_cast<std::size_t>(st.st_size);
    void* address = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (address == MAP_FAILED) {
        int err = errno;
        close(fd);
        fail(err);
        return nullptr;
    }
    Entry* v = take_entry(Kind::kView);
    if (v == nullptr) {
        munmap(address, length);
        close(fd);
        return nullptr;
    }
    v->fd = fd;
    v->address = address;
    v->length = length;
    std::memcpy(v->shm, m->shm, sizeof v->shm);
    if (mapped != nullptr) *mapped = length;
    t_last_error = 0;
    return address;
}

bool unmap_view(void* view) {
    Entry* v = find_view(view);
    if (v == nullptr) return fail(EINVAL);
    munmap(v->address, v->length);
    release_description(v);
    return true;
}

Handle create_named_mutex(const char* name) {
    char shm[kNameMax];
    if (!shm_name(name, "", shm)) return nullptr;
    int fd = shm_open_object(shm, O_CREAT);
    if (fd < 0) {
        fail(errno);
        return nullptr;
    }
    void* address = MAP_FAILED;
    bool ok = no_eintr([&] { return flock(fd, LOCK_EX); }) == 0;
    if (ok) {
        struct stat st {};
        ok = fstat(fd, &st) == 0 &&
             (static_cast<std::size_t>(st.st_size) >= sizeof(SharedMutex) ||
              no_eintr([&] { return ftruncate(fd, sizeof(SharedMutex)); }) == 0);
    }
    if (ok) {
        address = mmap(nullptr, sizeof(SharedMutex), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        ok = address != MAP_FAILED;
    }
    if (ok) {
        auto* shared = static_cast<SharedMutex*>(address);
        if (shared->magic.load(std::memory_order_acquire) != kMutexMagic) {
            // First use, or a process died while setting it up: (re)initialise under the flock.
            pthread_mutexattr_t attr;
            pthread_mutexattr_init(&attr);
            pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
            pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
            pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
            int r = pthread_mutex_init(&shared->mutex, &attr);
            pthread_mutexattr_destroy(&attr);
            if (r == 0) {
                shared->magic.store(kMutexMagic, std::memory_order_release);
            } else {  // GCOVR_EXCL_START: glibc initialises such a mutex in place, without fail
                errno = r;
                ok = false;
            }  // GCOVR_EXCL_STOP
        }
    }
    int err = errno;
    // The mapping keeps the open file description alive, so the flock must be dropped by hand.
    flock(fd, LOCK_UN);
    close(fd);
    if (!ok) {
        if (address != MAP_FAILED) munmap(address, sizeof(SharedMutex));
        fail(err);
        return nullptr;
    }
    Entry* e = take_entry(Kind::kMutex);
    if (e == nullptr) {
        munmap(address, sizeof(SharedMutex));
        return nullptr;
    }
    e->address = address;
    e->length = sizeof(SharedMutex);
    t_last_error = 0;
    return e;
}

unsigned wait_mutex(Handle mutex, unsigned timeout_ms) {
    Entry* e = find_entry(mutex, Kind::kMutex);
    if (e == nullptr) {
        fail(EBADF);
        return kWaitFailed;
    }
    pthread_mutex_t* m = &static_cast<SharedMutex*>(e->address)->mutex;
    int r;
    if (timeout_ms == 0) {
        r = pthread_mutex_trylock(m);
    } else if (timeout_ms == kInfinite) {
        r = pthread_mutex_lock(m);
    } else {
        timespec deadline{};
        clock_gettime(kLockClock, &deadline);
        deadline.tv_sec += static_cast<time_t>(timeout_ms / 1000);
        deadline.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1000000L;
        if (deadline.tv_nsec >= 1000000000L) {
            deadline.tv_sec += 1;
            deadline.tv_nsec -= 1000000000L;
        }
        r = clock_lock(m, &deadline);  // never interrupted
    }
    switch (r) {
        case 0:
            t_last_error = 0;
            return kWaitObject0;
        case EOWNERDEAD:
            pthread_mutex_consistent(m);
            if (timeout_ms != 0 && timeout_ms != kInfinite) taken_over(m);
            t_last_error = 0;
            return kWaitAbandoned;
        case EBUSY:
        case ETIMEDOUT:
            t_last_error = static_cast<unsigned>(r);
            return kWaitTimeout;
        // GCOVR_EXCL_START: a mutex made unrecoverable or damaged by code outside this library
        default:
            fail(r);
            return kWaitFailed;
            // GCOVR_EXCL_STOP
    }
}

bool release_mutex(Handle mutex) {
    Entry* e = find_entry(mutex, Kind::kMutex);
    if (e == nullptr) return fail(EBADF);
    pthread_mutex_t* m = &static_cast<SharedMutex*>(e->address)->mutex;
    // Only the owner may release: another thread's unlock is refused before it reaches the
    // mutex (glibc keeps the owner's thread id in the mutex).
    if (m->__data.__owner != self_tid()) return fail(EPERM);
    int r = pthread_mutex_unlock(m);
    return r == 0 || fail(r);
}

bool close_handle(Handle handle) {
    if (Entry* e = find_entry(handle, Kind::kMapping)) {
        release_description(e);
        return true;
    }
    if (Entry* e = find_entry(handle, Kind::kMutex)) {
        // The memory stays mapped: a thread of this process may still own the mutex, and when
        // it ends the kernel marks the mutex abandoned through that very mapping (one page).
        free_entry(e);
        return true;
    }
    return fail(EBADF);
}

void LocalLock::init() {
    static_assert(sizeof(storage_) >= sizeof(pthread_mutex_t));
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(new (storage_) pthread_mutex_t, &attr);
    pthread_mutexattr_destroy(&attr);
}

void LocalLock::destroy() {
    pthread_mutex_destroy(std::launder(reinterpret_cast<pthread_mutex_t*>(storage_)));
}
void LocalLock::enter() {
    pthread_mutex_lock(std::launder(reinterpret_cast<pthread_mutex_t*>(storage_)));
}
void LocalLock::leave() {
    pthread_mutex_unlock(std::launder(reinterpret_cast<pthread_mutex_t*>(storage_)));
}

void sleep_ms(unsigned ms) {
    timespec ts{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

unsigned tick_count() {
    timespec ts{};
    clock_gettime(CLOCK_BOOTTIME, &ts);
    auto ms = static_cast<std::uint64_t>(ts.tv_sec) * 1000u +
              static_cast<std::uint64_t>(ts.tv_nsec) / 1000000u;
    return static_cast<unsigned>(ms);
}

unsigned long process_id() {
    return static_cast<unsigned long>(getpid());
}
unsigned long thread_id() {
    return static_cast<unsigned long>(self_tid());
}

}  // namespace vex::os
