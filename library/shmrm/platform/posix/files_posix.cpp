// Files on POSIX systems: the log folder, shared append-only logs and their lock files.
#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
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

// Opens for appending, creating the file when missing. A file this call creates gets
// kFileMode whatever the umask.
int open_append(const char* path) {
    constexpr int kFlags = O_WRONLY | O_APPEND | O_CLOEXEC;
    for (;;) {
        int fd = ::open(path, kFlags | O_CREAT | O_EXCL, kFileMode);
        if (fd >= 0) {
            if (::fchmod(fd, kFileMode) != 0) {  // GCOVR_EXCL_START: the file this call made
                ::close(fd);
                return -1;
            }  // GCOVR_EXCL_STOP
            return fd;
        }
        if (errno == EINTR) continue;
        if (errno != EEXIST) return -1;
        fd = ::open(path, kFlags);
        if (fd >= 0) return fd;
        // Removed between the two calls: create it after all.
        if (errno != EINTR && errno != ENOENT) return -1;
    }
}

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

bool append_open(AppendFile* file, const char* path) {
    append_close(file);
    const int fd = open_append(path);
    if (fd < 0) return false;
    file->fd = fd;
    return true;
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

bool file_lock(AppendFile* file) {
    if (file->fd < 0) return false;
    for (;;) {
        if (::flock(fd_of(file), LOCK_EX) == 0) return true;
        if (errno != EINTR) return false;
    }
}

void file_unlock(AppendFile* file) {
    if (file->fd >= 0) ::flock(fd_of(file), LOCK_UN);
}

bool rename_replace(const char* from, const char* to) {
    return std::rename(from, to) == 0;
}

LocalTime local_time() {
    struct timespec now {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    struct tm parts {};
    ::localtime_r(&now.tv_sec, &parts);
    return LocalTime{parts.tm_year + 1900,
                     parts.tm_mon + 1,
                     parts.tm_mday,
                     parts.tm_hour,
                     parts.tm_min,
                     parts.tm_sec,
                     static_cast<int>(now.tv_nsec / 1000000)};
}

}  // namespace vex::os
