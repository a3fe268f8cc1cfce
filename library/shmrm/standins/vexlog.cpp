#include "vexlog.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string_view>
#include <thread>

#include <fmt/compile.h>
#include <fmt/format.h>

#include "os.h"
#include "vexutil.h"

namespace vex {

// Every process of the node appends to the same file, each line built whole and written with one
// write on an append-only descriptor: lines never split or interleave, and no write waits for
// another process or thread.
//
// Rotation. The lock file beside the log is a page that every writer maps: it counts the
// bytes written to the current file and numbers the file's generation. A writer whose line takes
// the file past its size renames it to the backup and starts a new one, when it can take the
// page's lock at once; when it cannot, it goes on appending and leaves the rotation to the holder.
// Before each line a writer compares the generation (a load from memory, no system call) and
// follows a rotation by its next line; a line written just before it noticed lands whole in the
// backup. A file renamed or removed by anyone else is noticed within a second, when a writer's
// clock turns to the next second.
//
// Nothing is held across a write: a writer stopped or cancelled anywhere blocks no other writer,
// in this process or in any other. (Where appends through separate descriptors are not atomic, as
// under Wine, each line is written under the page lock, waited for 20 ms at the most.) A writer
// cannot be cancelled inside a line (os::CancelGuard), so it never leaves a rotation half done;
// closing waits for the writers inside a line for a bounded moment only.
struct Page {  // at the start of the lock file
    std::atomic<std::uint32_t> magic;
    std::atomic<std::uint32_t> generation;
    std::atomic<std::int64_t> bytes;  // written to the current file
};
static_assert(std::atomic<std::int64_t>::is_always_lock_free);

struct LogFile {
    static constexpr int kPathMax = kInstallPathMax + 64;

    std::atomic<bool> in_use{false};
    std::atomic<int> writers{0};  // threads inside loglib_write
    bool abandoned = false;       // a writer never left: its files stay, the slot is not reused
    std::atomic_flag rotating = ATOMIC_FLAG_INIT;  // one rotation of this process at a time
    std::atomic<std::uint32_t> generation{0};      // of the file this handle writes to
    std::atomic<std::int64_t> checked_second{0};   // when the path was last compared
    int level = 0;
    int size = 0;
    char path[kPathMax] = {};
    char backup_path[kPathMax] = {};
    os::AppendFile file;
    os::FilePage lock;
    Page* page = nullptr;
};

namespace {

constexpr int kSlots = 8;
constexpr std::size_t kLineMax = 4096 + 256;
constexpr std::size_t kPageSize = 4096;
constexpr std::uint32_t kPageMagic = 0x564c4f47;  // "VLOG"
constexpr auto kCloseBound = std::chrono::milliseconds(100);
constexpr auto kLineBound = std::chrono::milliseconds(20);

std::mutex g_slots_mutex;  // opening and closing
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

// What a thread's lines begin with, formatted once per second ("YYYY-MM-DD hh:mm:ss", the
// process id) and once per thread (the thread id).
struct Number {
    char text[24] = {};
    std::size_t size = 0;
    void set(unsigned long value) {
        const fmt::format_int f(value);
        size = f.size();
        std::memcpy(text, f.data(), size);
    }
    std::string_view view() const { return {text, std::min(size, sizeof text)}; }
};
struct Stamp {
    std::int64_t second = -1;
    char date[20] = {};
    Number pid, tid;
    Stamp() { tid.set(os::thread_id()); }
};
thread_local Stamp t_stamp;

// Appends to a line buffer, cutting what does not fit.
class Line {
  public:
    explicit Line(char* buf, std::size_t room) : at_(buf), end_(buf + room) {}
    Line& add(std::string_view s) {
        const std::size_t n = std::min(s.size(), static_cast<std::size_t>(end_ - at_));
        if (n != 0) std::memcpy(at_, s.data(), n);  // an empty view may have no data
        at_ += n;
        return *this;
    }
    Line& add(char c) { return add(std::string_view(&c, 1)); }
    char* at() const { return at_; }

  private:
    char* at_;
    char* end_;
};

std::string_view or_empty(const char* s) {
    return s != nullptr ? std::string_view(s) : std::string_view();
}

// Formats one whole line, newline included, cutting the text so that it fits buf. *second is
// the wall clock's second.
std::size_t format_line(char (&buf)[kLineMax], int level, const char* source, int line,
                        const char* tag, const char* text, std::int64_t* second) {
    const os::WallClock now = os::wall_clock();
    Stamp& stamp = t_stamp;
    if (now.seconds != stamp.second) {
        const os::LocalTime t = os::local_time_of(now.seconds);
        fmt::format_to_n(stamp.date, sizeof stamp.date - 1,
                         FMT_COMPILE("{:04}-{:02}-{:02} {:02}:{:02}:{:02}"), t.year, t.month, t.day,
                         t.hour, t.minute, t.second);
        stamp.pid.set(os::process_id());
        stamp.second = now.seconds;
    }
    *second = now.seconds;
    const char millis[4] = {static_cast<char>('.'), static_cast<char>('0' + now.millisecond / 100),
                            static_cast<char>('0' + now.millisecond / 10 % 10),
                            static_cast<char>('0' + now.millisecond % 10)};
    const char* name = level_name(level);
    const fmt::format_int number(level), line_number(line);
    Line out(buf, sizeof(buf) - 1);  // room for the newline
    out.add(std::string_view(stamp.date, sizeof stamp.date - 1))
        .add(std::string_view(millis, sizeof millis))
        .add(' ')
        .add(stamp.pid.view())
        .add(' ')
        .add(stamp.tid.view())
        .add(' ')
        .add(name != nullptr ? std::string_view(name)
                             : std::string_view(number.data(), number.size()))
        .add(' ')
        .add(or_empty(tag))
        .add(' ')
        .add(or_empty(source))
        .add(':')
        .add(std::string_view(line_number.data(), line_number.size()))
        .add(' ')
        .add(or_empty(text));
    char* end = out.at();
    *end++ = '\n';
    return static_cast<std::size_t>(end - buf);
}

// Points the handle at the file its path names now: after a rotation, by the page's generation;
// after anyone else renamed or removed it, by comparing the path once a second.
void follow(LogFile* log, std::int64_t second) {
    const std::uint32_t g = log->page->generation.load(std::memory_order_acquire);
    if (g != log->generation.load(std::memory_order_relaxed)) {
        log->generation.store(g, std::memory_order_relaxed);
        os::append_reopen(&log->file, log->path);
        return;
    }
    if (log->checked_second.load(std::memory_order_relaxed) == second ||
        log->checked_second.exchange(second, std::memory_order_relaxed) == second) {
        return;
    }
    if (os::append_is_current(&log->file, log->path)) return;
    if (os::append_reopen(&log->file, log->path))
        log->page->bytes.store(os::append_size(&log->file), std::memory_order_relaxed);
}

// Starts a new file, when nobody rotated since this handle last followed. `len`: the line about
// to be written to it. A writer that does not hold the page lock rotates only when it gets the
// lock at once and no other thread of this process is rotating.
void rotate(LogFile* log, std::size_t len, bool locked) {
    if (!locked) {  // GCOVR_EXCL_LINE: locked only where appends are not atomic
        if (log->rotating.test_and_set(std::memory_order_acquire)) return;
        if (!os::page_trylock(&log->lock)) {
            log->rotating.clear(std::memory_order_release);
            return;
        }
    }
    const std::uint32_t g = log->page->generation.load(std::memory_order_acquire);
    if (g == log->generation.load(std::memory_order_relaxed) &&
        os::rename_replace(log->path, log->backup_path)) {
        os::append_reopen(&log->file, log->path);
        log->page->bytes.store(static_cast<std::int64_t>(len), std::memory_order_relaxed);
        log->generation.store(g + 1, std::memory_order_relaxed);
        log->page->generation.store(g + 1, std::memory_order_release);
    }
    if (!locked) {  // GCOVR_EXCL_LINE: as above
        os::page_unlock(&log->lock);
        log->rotating.clear(std::memory_order_release);
    }
}

// Where appends are not atomic, the page lock, waited for a bounded moment: a holder stopped
// longer than that costs the others only the order of their lines.
bool lock_for_line(LogFile* log) {
    if (os::kAppendsAreAtomic) return false;
    // GCOVR_EXCL_START: runs where appends are not atomic (Windows), not where coverage is taken
    const auto until = std::chrono::steady_clock::now() + kLineBound;
    while (!os::page_trylock(&log->lock)) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::yield();
    }
    return true;
    // GCOVR_EXCL_STOP
}

void write_line(LogFile* log, int level, const char* source, int line, const char* tag,
                const char* text) {
    if (level > log->level) return;
    char buf[kLineMax];
    std::int64_t second = 0;
    const std::size_t len = format_line(buf, level, source, line, tag, text, &second);
    const bool locked = lock_for_line(log);
    follow(log, second);
    if (log->size > 0) {
        const auto n = static_cast<std::int64_t>(len);
        const std::int64_t before = log->page->bytes.fetch_add(n, std::memory_order_relaxed);
        // An empty file is never rotated, so a line longer than the size is written alone.
        if (before > 0 && before + n > log->size) rotate(log, len, locked);
    }
    os::append_write(&log->file, buf, len);
    if (locked) os::page_unlock(&log->lock);  // GCOVR_EXCL_LINE: as in rotate
}

// Takes the mapped lock file as the log's page, counting the file's bytes when no one did.
void use_page(LogFile* log) {
    auto* page = static_cast<Page*>(log->lock.address);
    const std::int64_t size = os::append_size(&log->file);
    std::uint32_t unset = 0;
    if (page->magic.compare_exchange_strong(unset, kPageMagic)) {
        page->bytes.fetch_add(size);  // the first process to use the page
    } else if (size >= 0 && size < page->bytes.load()) {
        page->bytes.store(size);  // the file was cut or replaced while no one counted
    }
    log->page = page;
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
        if (!slot.in_use.load() && !slot.abandoned) {
            log = &slot;
            break;
        }
    }
    if (log == nullptr) return;

    char lock_path[LogFile::kPathMax];
    const int k = LogFile::kPathMax;
    if (!fits(std::snprintf(log->path, k, "%s%c%s.log", folder, sep, name), k) ||
        !fits(std::snprintf(log->backup_path, k, "%s.1", log->path), k) ||
        !fits(std::snprintf(lock_path, k, "%s.lock", log->path), k) ||
        !os::page_map(&log->lock, lock_path, kPageSize)) {
        return;  // no regular lock file that can be backed: no log
    }
    if (!os::append_open(&log->file, log->path)) {
        os::page_unmap(&log->lock);
        return;
    }
    use_page(log);
    log->level = level;
    log->size = size;
    log->generation.store(log->page->generation.load());
    log->checked_second.store(0);
    log->in_use.store(true);
    *handle = log;
}

void loglib_write(LogHandle handle, int level, int reserved, const char* source, int line,
                  const char* tag, const char* text) {
    static_cast<void>(reserved);
    if (handle == nullptr) return;
    const os::CancelGuard no_cancel;
    handle->writers.fetch_add(1);
    if (handle->in_use.load()) write_line(handle, level, source, line, tag, text);
    handle->writers.fetch_sub(1);
}

void loglib_close(LogHandle handle) {
    if (handle == nullptr) return;
    std::lock_guard slots_lock(g_slots_mutex);
    if (!handle->in_use.exchange(false)) return;
    // The writers already inside a line finish it; one stopped there keeps the files open.
    const auto until = std::chrono::steady_clock::now() + kCloseBound;
    while (handle->writers.load() != 0) {
        if (std::chrono::steady_clock::now() > until) {  // GCOVR_EXCL_START: a thread stopped
            handle->abandoned = true;                    // inside a line, by a debugger
            return;
        }  // GCOVR_EXCL_STOP
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    os::append_close(&handle->file);
    os::page_unmap(&handle->lock);
    handle->page = nullptr;
}

int loglib_level(LogHandle handle) {
    return handle ? handle->level : 0;
}

}  // namespace vex
