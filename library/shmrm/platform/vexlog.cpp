#include "vexlog.h"

#include <cstdio>
#include <cstring>
#include <mutex>

#include "os.h"
#include "vexutil.h"

namespace vex {

// Every process of the node appends to the same file. Each line is built whole and written
// with one call while the process holds the lock file, so lines never split or interleave and
// a rotation by one process is seen by the others before their next line.
struct LogFile {
    static constexpr int kPathMax = kInstallPathMax + 64;

    std::mutex mutex;  // the threads of this process writing through this handle
    bool in_use = false;
    int level = 0;
    int size = 0;
    char path[kPathMax] = {};
    char backup_path[kPathMax] = {};
    os::AppendFile file;
    os::AppendFile lock;
};

namespace {

constexpr int kSlots = 8;
constexpr std::size_t kLineMax = 4096 + 256;

std::mutex g_slots_mutex;
LogFile g_slots[kSlots];

bool fits(int written, int size) {
    return written > 0 && written < size;
}

const char* level_name(int level) {
    switch (level) {
        case 1:
            return "ERROR";
        case 2:
            return "WARNING";
        case 4:
            return "INFO";
        case 16:
            return "FUNC";
        case 32:
            return "PARAM";
        default:
            return nullptr;
    }
}

// Formats one whole line, newline included, cutting the text so that it fits buf.
std::size_t format_line(char (&buf)[kLineMax], int level, const char* source, int line,
                        const char* tag, const char* text) {
    const os::LocalTime t = os::local_time();
    char number[16];
    const char* name = level_name(level);
    if (name == nullptr) {
        std::snprintf(number, sizeof(number), "%d", level);
        name = number;
    }
    const int n = std::snprintf(
        buf, sizeof(buf) - 1, "%04d-%02d-%02d %02d:%02d:%02d.%03d %lu %lu %s %s %s:%d %s", t.year,
        t.month, t.day, t.hour, t.minute, t.second, t.millisecond, os::process_id(),
        os::thread_id(), name, tag ? tag : "", source ? source : "", line, text ? text : "");
    if (n < 0) return 0;
    std::size_t len = static_cast<std::size_t>(n);
    if (len > sizeof(buf) - 2) len = sizeof(buf) - 2;
    buf[len++] = '\n';
    return len;
}

// Makes sure the handle appends to the file now at its path. With the lock file held, also
// starts a new file first when this line would take the current one past the configured size.
void prepare_file(LogFile* log, std::size_t line_len, bool locked) {
    if (!os::append_is_current(&log->file, log->path)) os::append_open(&log->file, log->path);
    if (!locked || log->size <= 0) return;
    const std::int64_t current = os::append_size(&log->file);
    if (current <= 0 || current + static_cast<std::int64_t>(line_len) <= log->size) return;
    if (os::rename_replace(log->path, log->backup_path)) os::append_open(&log->file, log->path);
}

}  // namespace

void loglib_open(const char* name, LogHandle* handle, int level, int size, int reserved1,
                 int reserved2) {
    static_cast<void>(reserved1);
    static_cast<void>(reserved2);
    if (handle == nullptr) return;
    *handle = nullptr;
    if (name == nullptr || *name == '\0' || std::strchr(name, '/') != nullptr ||
        std::strchr(name, os::path_separator()) != nullptr) {
        return;
    }

    char install[kInstallPathMax];
    if (VexutilGetInstallPath(install, kInstallPathMax) == 0) return;
    const char sep = os::path_separator();
    char folder[LogFile::kPathMax];
    if (!fits(std::snprintf(folder, sizeof(folder), "%s%clog", install, sep), LogFile::kPathMax) ||
        !os::make_directory(folder)) {
        return;
    }

    std::lock_guard slots_lock(g_slots_mutex);
    LogFile* log = nullptr;
    for (LogFile& slot : g_slots) {
        if (!slot.in_use) {
            log = &slot;
            break;
        }
    }
    if (log == nullptr) return;

    std::lock_guard guard(log->mutex);
    char lock_path[LogFile::kPathMax];
    const int k = LogFile::kPathMax;
    if (!fits(std::snprintf(log->path, k, "%s%c%s.log", folder, sep, name), k) ||
        !fits(std::snprintf(log->backup_path, k, "%s.1", log->path), k) ||
        !fits(std::snprintf(lock_path, k, "%s.lock", log->path), k) ||
        !os::append_open(&log->lock, lock_path) || !os::append_open(&log->file, log->path)) {
        os::append_close(&log->lock);
        return;
    }
    log->level = level;
    log->size = size;
    log->in_use = true;
    *handle = log;
}

void loglib_write(LogHandle handle, int level, int reserved, const char* source, int line,
                  const char* tag, const char* text) {
    static_cast<void>(reserved);
    if (handle == nullptr || level > handle->level) return;

    char buf[kLineMax];
    const std::size_t len = format_line(buf, level, source, line, tag, text);
    if (len == 0) return;

    std::lock_guard guard(handle->mutex);
    if (!handle->in_use) return;  // closed: never reopen its file
    // Without the lock file the line is still written; only rotation is skipped.
    const bool locked = os::file_lock(&handle->lock);
    prepare_file(handle, len, locked);
    os::append_write(&handle->file, buf, len);
    if (locked) os::file_unlock(&handle->lock);
}

void loglib_close(LogHandle handle) {
    if (handle == nullptr) return;
    std::lock_guard slots_lock(g_slots_mutex);
    std::lock_guard guard(handle->mutex);
    os::append_close(&handle->file);
    os::append_close(&handle->lock);
    handle->in_use = false;
}

int loglib_level(LogHandle handle) {
    return handle ? handle->level : 0;
}

}  // namespace vex
