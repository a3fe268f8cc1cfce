// Named mappings and mutexes with the lifetime and ownership rules of os.h, on what Linux (with
// glibc) gives: POSIX shared-memory objects in one tmpfs folder, open file description (OFD) record
// locks, /proc/self/fd, robust process-shared mutexes timed on the monotonic clock, and the
// owner's thread id that glibc keeps in the mutex.
//
// Every named object is a POSIX shared-memory object. Beside it lives a companion, the guard
// "<name>.guard": an empty object whose flock serialises every process's making, opening, closing
// and removal of that name. The guard exists while its object does, and briefly around an
// operation on a name that has none.
//
// Holding. Every mapping handle, every view and every process's mutex handle holds an open file
// description of its object with a shared OFD record lock on it. The kernel drops such a lock when
// the description goes (its descriptors closed and its memory unmapped), also when its process
// dies. Whether anyone still holds an object is therefore the question whether an exclusive lock
// could be taken: a description that gets one is the only holder left.
//
// Removal. Under the guard, the last holder to let go removes the object's name; an opener that
// finds an object nobody holds (its holders died) removes it before going on; and whoever leaves
// a name without an object removes the guard's name too. The library also removes its namespace's
// unused region when it is loaded and unloaded. So nothing of a namespace outlives the last
// process that used it, and what killed processes left goes with the next process that looks.
//
// The unlink/open race. The danger is an opener that takes hold of an object just as its last
// holder removes the name: it would keep an object no later opener finds, and two processes would
// use two regions, or two region locks, under one name. Three rules close it:
// 1. Opening an object and taking its shared lock happen under the guard, and so do the last
//    holder's test (the exclusive lock) and its unlink. An opener comes either before the unlink,
//    and then its shared lock tells the closer that it is not the last, or after it, and then
//    finds no object and makes a new one.
// 2. The guard's own name can be removed while another process waits for its flock. A process that
//    gets the flock therefore checks that the name still refers to the guard it locked; when it
//    does not, that flock guards nothing, and it opens the name afresh and tries again.
// 3. A description that holds an object only through mapped memory keeps its lock until the
//    memory goes; the mutex's memory stays mapped after its handle closes (see close_handle), so
//    its lock is dropped by hand.
//
// Memory is committed when an object is made (posix_fallocate), as the Windows kernel commits a
// section: a full shared-memory file system refuses the object then, and no page faults later.
//
// A named mutex is a robust, recursive, process-shared pthread mutex in its own object,
// initialised once under its guard; an owner that dies hands it on with EOWNERDEAD.
#include <dirent.h>
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
#include <string_view>
#include <tuple>

#include "os.h"

namespace vex::os {

namespace {

constexpr mode_t kObjectMode = 0660;
constexpr char kGuardSuffix[] = ".guard";
// "/", the name, the guard's suffix and the NUL.
constexpr std::size_t kNameMax = 1 + kObjectNameMax + sizeof kGuardSuffix;

template <typename F>
int no_eintr(F f) {
    int r;
    do {
        r = f();
    } while (r == -1 && errno == EINTR);
    return r;
}

bool fail(int error) {
    set_last_error(static_cast<unsigned>(error));
    return false;
}

// "/<name>" as POSIX wants shared-memory names; false when the name cannot be used.
bool shm_name(const char* name, char (&out)[kNameMax]) {
    if (name == nullptr || *name == '\0' || std::strchr(name, '/') != nullptr) return fail(EINVAL);
    if (std::strlen(name) > kObjectNameMax) return fail(ENAMETOOLONG);
    std::snprintf(out, sizeof out, "/%s", name);
    return true;
}

int shm_open_object(const char* name, int flags) {
    int fd = no_eintr([&] { return shm_open(name, flags | O_RDWR | O_CLOEXEC, kObjectMode); });
    if (fd >= 0 && (flags & O_CREAT) != 0) (void)fchmod(fd, kObjectMode);
    return fd;
}

// Whether no object has this name (another failure to open it says nothing either way).
bool absent(const char* shm) {
    int fd = shm_open_object(shm, 0);
    if (fd < 0) return errno == ENOENT;
    close(fd);
    return false;
}

// Both descriptors are held open, so fstat cannot fail on them.
bool same_object(int a, int b) {
    struct stat x {
    }, y{};
    fstat(a, &x);
    fstat(b, &y);
    return std::tie(x.st_dev, x.st_ino) == std::tie(y.st_dev, y.st_ino);
}

// Whether the name still refers to the object open at fd: 1 yes, 0 no, -1 (errno set) when that
// cannot be told.
int names(const char* shm, int fd) {
    int other = shm_open_object(shm, 0);
    if (other < 0) return errno == ENOENT ? 0 : -1;
    const bool same = same_object(fd, other);
    close(other);
    return same ? 1 : 0;
}

// An OFD record lock over the whole object; type F_RDLCK, F_WRLCK or F_UNLCK. Non-blocking.
bool ofd_lock(int fd, short type) {
    struct flock fl {};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    return no_eintr([&] { return fcntl(fd, F_OFD_SETLK, &fl); }) == 0;
}

// Commits the memory of an object's first `size` bytes (and makes it at least that long).
int commit(int fd, std::uint64_t size) {
    int r;
    do {
        r = posix_fallocate(fd, 0, static_cast<off_t>(size));
    } while (r == EINTR);  // GCOVR_EXCL_LINE: a signal during the commit
    return r;
}

// Serialises making, opening, closing and removing one object name across processes.
class Guard {
  public:
    explicit Guard(const char* shm) {
        std::snprintf(name_, sizeof name_, "%s%s", shm, kGuardSuffix);  // fits: see shm_name
        for (;;) {
            fd_ = shm_open_object(name_, O_CREAT);
            if (fd_ < 0) {
                fail(errno);
                return;
            }
            // A blocking flock on a descriptor of our own fails only when the kernel has no
            // memory left for the lock.
            if (no_eintr([&] { return flock(fd_, LOCK_EX); }) != 0) {  // GCOVR_EXCL_START
                fail(errno);
                close(fd_);
                fd_ = -1;
                return;
            }  // GCOVR_EXCL_STOP
            const int current = names(name_, fd_);
            if (current == 1) return;
            const int err = errno;
            close(fd_);
            fd_ = -1;
            if (current < 0) {
                fail(err);
                return;
            }
            // Its holder removed it while we waited: lock the one named now.
        }
    }
    ~Guard() {
        if (fd_ >= 0) close(fd_);  // closing drops the flock
    }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
    bool ok() const { return fd_ >= 0; }
    // Removes the guard's name when no object has the name it guards; the flock still covers the
    // caller until the guard goes. Only for a guard that is ok().
    void remove_if_alone(const char* shm) {
        if (absent(shm)) shm_unlink(name_);
    }

  private:
    char name_[kNameMax + sizeof kGuardSuffix] = {};
    int fd_ = -1;
};

// Process-local records behind the opaque handles. Fixed pools: nothing is allocated.
enum class Kind : unsigned char { kFree, kMapping, kView, kMutex };

struct Entry {
    // Set last when an entry is taken and first when it is freed, so a handle can be checked
    // without the pool's lock.
    std::atomic<Kind> kind{Kind::kFree};
    int fd = -1;  // a description holding the shared lock
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

// Lets go of the object held through `fd`: the last holder removes its name (and, the name left
// without an object, the guard's), any other drops its shared lock. Then closes fd.
void let_go(int fd, const char* shm) {
    Guard guard(shm);
    if (guard.ok() && ofd_lock(fd, F_WRLCK)) {
        if (names(shm, fd) == 1) shm_unlink(shm);
        guard.remove_if_alone(shm);
    } else {
        ofd_lock(fd, F_UNLCK);  // memory that stays mapped keeps the description alive
    }
    close(fd);
}

void release_description(Entry* e) {
    let_go(e->fd, e->shm);
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

// A new object of `size` committed bytes named `shm`, holding a shared lock, or -1 with errno
// set (ENOSPC when the system cannot back it). Runs under the guard.
int create_held(const char* shm, std::uint64_t size) {
    int fd = shm_open_object(shm, O_CREAT | O_EXCL);
    if (fd < 0) return -1;
    int err = commit(fd, size);
    if (err == 0 && !ofd_lock(fd, F_RDLCK)) err = errno;  // GCOVR_EXCL_LINE: a new object
    if (err != 0) {
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
    if (!shm_name(name, shm)) return nullptr;
    Entry* e = take_entry(Kind::kMapping);
    if (e == nullptr) return nullptr;
    std::memcpy(e->shm, shm, sizeof shm);
    Guard guard(shm);
    e->fd = guard.ok() ? obtain(shm) : -1;
    if (e->fd < 0) {
        int err = errno;
        free_entry(e);
        if (guard.ok()) {
            guard.remove_if_alone(shm);
            fail(err == ENOENT ? static_cast<int>(kErrorFileNotFound) : err);
        }
        return nullptr;
    }
    return e;
}

std::size_t page_size() {
    return static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

std::size_t whole_pages(std::size_t bytes) {
    return (bytes + page_size() - 1) / page_size() * page_size();
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
    if (h != nullptr) set_last_error(existed ? kErrorAlreadyExists : 0);
    return h;
}

Handle open_named_mapping(const char* name) {
    Handle h = mapping_handle(name, open_held);
    if (h != nullptr) set_last_error(0);
    return h;
}

namespace {

void* map_view_as(Handle mapping, std::size_t* mapped, bool writable) {
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
    int fd = no_eintr([&] { return open(self, (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC); });
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
    // The view's pages and an inaccessible page on either side are reserved together; the view
    // then replaces the middle of the reservation.
    const auto length = static_cast<std::size_t>(st.st_size);
    const std::size_t fence = page_size();
    const std::size_t span = whole_pages(length) + 2 * fence;
    void* reserved =
        mmap(nullptr, span, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (reserved == MAP_FAILED) {
        int err = errno;
        close(fd);
        fail(err);
        return nullptr;
    }
    void* address =
        mmap(static_cast<char*>(reserved) + fence, length,
             writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED | MAP_FIXED, fd, 0);
    if (address == MAP_FAILED) {  // GCOVR_EXCL_START: it replaces pages this call reserved
        int err = errno;
        munmap(reserved, span);
        close(fd);
        fail(err);
        return nullptr;
    }  // GCOVR_EXCL_STOP
    Entry* v = take_entry(Kind::kView);
    if (v == nullptr) {
        munmap(reserved, span);
        close(fd);
        return nullptr;
    }
    v->fd = fd;
    v->address = address;
    v->length = length;
    std::memcpy(v->shm, m->shm, sizeof v->shm);
    if (mapped != nullptr) *mapped = length;
    set_last_error(0);
    return address;
}

}  // namespace

void* map_view(Handle mapping, std::size_t* mapped) {
    return map_view_as(mapping, mapped, true);
}
void* map_view_read(Handle mapping, std::size_t* mapped) {
    return map_view_as(mapping, mapped, false);
}

bool unmap_view(void* view) {
    Entry* v = find_view(view);
    if (v == nullptr) return fail(EINVAL);
    const std::size_t fence = page_size();
    munmap(static_cast<char*>(v->address) - fence, whole_pages(v->length) + 2 * fence);
    release_description(v);
    return true;
}

Handle create_named_mutex(const char* name) {
    char shm[kNameMax];
    if (!shm_name(name, shm)) return nullptr;
    Entry* e = take_entry(Kind::kMutex);
    if (e == nullptr) return nullptr;
    Guard guard(shm);
    int fd = guard.ok() ? shm_open_object(shm, O_CREAT) : -1;
    int err = fd < 0 ? errno : commit(fd, sizeof(SharedMutex));
    if (err == 0 && !ofd_lock(fd, F_RDLCK)) err = errno;  // GCOVR_EXCL_LINE: see open_held
    void* address = MAP_FAILED;
    if (err == 0) {
        address = mmap(nullptr, sizeof(SharedMutex), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (address == MAP_FAILED) err = errno;
    }
    if (err == 0) {
        auto* shared = static_cast<SharedMutex*>(address);
        if (shared->magic.load(std::memory_order_acquire) != kMutexMagic) {
            // First use, or a process died while setting it up: (re)initialise under the guard.
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
                err = r;
            }  // GCOVR_EXCL_STOP
        }
    }
    if (err != 0) {
        if (address != MAP_FAILED) munmap(address, sizeof(SharedMutex));
        if (fd >= 0) {
            // An object that this call made and could not back goes again.
            if (ofd_lock(fd, F_WRLCK) && names(shm, fd) == 1) shm_unlink(shm);
            close(fd);
        }
        if (guard.ok()) guard.remove_if_alone(shm);
        free_entry(e);
        fail(err);
        return nullptr;
    }
    e->fd = fd;
    e->address = address;
    e->length = sizeof(SharedMutex);
    std::memcpy(e->shm, shm, sizeof shm);
    set_last_error(0);
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
            set_last_error(0);
            return kWaitObject0;
        case EOWNERDEAD:
            pthread_mutex_consistent(m);
            if (timeout_ms != 0 && timeout_ms != kInfinite) taken_over(m);
            set_last_error(0);
            return kWaitAbandoned;
        case EBUSY:
        case ETIMEDOUT:
            set_last_error(static_cast<unsigned>(r));
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
    if (m->__data.__owner != static_cast<pid_t>(thread_id())) return fail(EPERM);
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
        release_description(e);
        return true;
    }
    return fail(EBADF);
}

bool remove_if_unused(const char* name) {
    char shm[kNameMax];
    if (!shm_name(name, shm)) return false;
    Guard guard(shm);
    if (!guard.ok()) return false;
    bool removed = false;
    int fd = shm_open_object(shm, 0);
    if (fd >= 0) {
        removed = ofd_lock(fd, F_WRLCK);
        if (removed) shm_unlink(shm);
        close(fd);
    }
    guard.remove_if_alone(shm);
    return removed;
}

namespace {

// Linux keeps POSIX shared-memory objects as the files of one tmpfs folder, so the objects of a
// namespace can be listed by name there.
constexpr const char* kShmFolder = "/dev/shm";

// Calls `each` with the name of every object of the namespace.
template <typename Each>
std::size_t each_object(const char* ns, Each each) {
    char prefix[kObjectNameMax + 2];
    std::snprintf(prefix, sizeof prefix, "%s.", ns);
    DIR* dir = opendir(kShmFolder);
    if (dir == nullptr) return 0;  // GCOVR_EXCL_LINE: the folder of every Linux system
    std::size_t count = 0;
    while (const dirent* entry = readdir(dir)) {
        if (!std::string_view(entry->d_name).starts_with(prefix)) continue;
        ++count;
        each(entry->d_name);
    }
    closedir(dir);
    return count;
}

}  // namespace

std::size_t namespace_objects(const char* ns, void (*each)(const char* name, void* context),
                              void* context) {
    return each_object(ns, [&](const char* name) { each(name, context); });
}

void sweep_namespace(const char* ns) {
    each_object(ns, [](const char* name) {
        // A guard goes with its object: the object's name is asked about instead.
        std::string_view object(name);
        if (object.ends_with(kGuardSuffix)) object.remove_suffix(sizeof kGuardSuffix - 1);
        char buf[kObjectNameMax + sizeof kGuardSuffix];
        std::snprintf(buf, sizeof buf, "%.*s", static_cast<int>(object.size()), object.data());
        remove_if_unused(buf);
    });
}

}  // namespace vex::os
