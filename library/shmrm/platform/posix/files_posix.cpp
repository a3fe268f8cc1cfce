// Files on POSIX systems: the log folder, shared append-only logs and the page beside them.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

#include "os.h"

namespace vex::os {
namespace {

constexpr mode_t kFileMode = 0660;
constexpr mode_t kDirectoryMode = 0770;

int fd_of(const AppendFile* file) {
    return static_cast<int>(file->fd);
}

// Opens with `flags` (O_WRONLY | O_APPEND, or O_RDWR), creating the file when missing, without
// ever waiting: only a regular file is kept. A file this call creates gets kFileMode whatever
// the umask.
int open_regular(const char* path, int flags) {
    flags |= O_NONBLOCK | O_CLOEXEC;
    int fd = -1;
    for (;;) {
        fd = ::open(path, flags | O_CREAT | O_EXCL, kFileMode);
        if (fd >= 0) {
            if (::fchmod(fd, kFileMode) != 0) {  // GCOVR_EXCL_START: the file this call made
                ::close(fd);
                return -1;
            }  // GCOVR_EXCL_STOP
            return fd;
        }
        if (errno == EINTR) continue;
        if (errno != EEXIST) return -1;
        fd = ::open(path, flags);
        if (fd >= 0) break;
        // Removed between the two calls: create it after all.
        if (errno != EINTR && errno != ENOENT) return -1;
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        errno = EINVAL;
        return -1;
    }
    return fd;
}

constexpr int kAppend = O_WRONLY | O_APPEND;

}  // namespace

bool is_directory(const char* path) {
    struct stat st {};
    return ::stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

bool make_directory(const char* path) {
    if (::mkdir(path, kDirectoryMode) == 0) {
        // Shared by the node's processes: do not let the umask narrow it.
        ::chmod(path, kDirectoryMode);
        return true;
    }
    return errno == EEXIST && is_directory(path);
}

char path_separator() {
    return '/';
}

const bool kAppendsAreAtomic = true;  // O_APPEND: the kernel places each write at the end

bool append_open(AppendFile* file, const char* path) {
    append_close(file);
    const int fd = open_regular(path, kAppend);
    if (fd < 0) return false;
    file->fd = fd;
    return true;
}

bool append_reopen(AppendFile* file, const char* path) {
    if (file->fd < 0) return append_open(file, path);
    const int fd = open_regular(path, kAppend);
    if (fd < 0) return false;
    // The descriptor's number stays: a write through it goes to one file or the other.
    const int r = ::dup3(fd, fd_of(file), O_CLOEXEC);
    ::close(fd);
    return r >= 0;
}

void append_close(AppendFile* file) {
    if (file->fd < 0) return;
    ::close(fd_of(file));  // never retried: the descriptor is gone even after EINTR
    file->fd = -1;
}

bool append_write(AppendFile* file, const void* data, std::size_t len) {
    if (file->fd < 0) return false;
    const char* p = static_cast<const char*>(data);
    while (len > 0) {
        const ssize_t n = ::write(fd_of(file), p, len);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += n;
        len -= static_cast<std::size_t>(n);
    }
    return true;
}

std::int64_t append_size(AppendFile* file) {
    struct stat st {};
    if (file->fd < 0 || ::fstat(fd_of(file), &st) != 0) return -1;
    return static_cast<std::int64_t>(st.st_size);
}

bool append_is_current(AppendFile* file, const char* path) {
    struct stat open_st {};
    struct stat path_st {};
    if (file->fd < 0 || ::fstat(fd_of(file), &open_st) != 0) return false;
    if (::stat(path, &path_st) != 0) return false;
    return open_st.st_dev == path_st.st_dev && open_st.st_ino == path_st.st_ino;
}

// The target is removed first: a rename over an existing file makes ext4 write the renamed file's
// data out at once (auto_da_alloc), which stalls the writer that rotates the log for a millisecond.
bool rename_replace(const char* from, const char* to) {
    ::unlink(to);
    return std::rename(from, to) == 0;
}

bool page_map(FilePage* page, const char* path, std::size_t size) {
    page_unmap(page);
    const int fd = open_regular(path, O_RDWR);
    if (fd < 0) return false;
    int r;
    do {
        r = ::posix_fallocate(fd, 0, static_cast<off_t>(size));
    } while (r == EINTR);  // GCOVR_EXCL_LINE: a signal during the commit
    void* address =
        r == 0 ? ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
    if (address == MAP_FAILED) {
        ::close(fd);
        return false;
    }
    page->address = address;
    page->fd = fd;
    page->mapping = static_cast<std::intptr_t>(size);
    return true;
}

void page_unmap(FilePage* page) {
    if (page->address == nullptr) return;
    ::munmap(page->address, static_cast<std::size_t>(page->mapping));
    ::close(static_cast<int>(page->fd));
    *page = FilePage{};
}

bool page_trylock(FilePage* page) {
    return page->fd >= 0 && ::flock(static_cast<int>(page->fd), LOCK_EX | LOCK_NB) == 0;
}

void page_unlock(FilePage* page) {
    if (page->fd >= 0) ::flock(static_cast<int>(page->fd), LOCK_UN);
}

WallClock wall_clock() {
    struct timespec now {};
    ::clock_gettime(CLOCK_REALTIME, &now);  // read from the vDSO
    return WallClock{now.tv_sec, static_cast<int>(now.tv_nsec / 1000000)};
}

LocalTime local_time_of(std::int64_t seconds) {
    const auto t = static_cast<time_t>(seconds);
    struct tm parts {};
    ::localtime_r(&t, &parts);
    return LocalTime{parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday,
                     parts.tm_hour,        parts.tm_min,     parts.tm_sec};
}

CancelGuard::CancelGuard() {
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous_);
}
CancelGuard::~CancelGuard() {
    ::pthread_setcancelstate(previous_, nullptr);
}

}  // namespace vex::os
