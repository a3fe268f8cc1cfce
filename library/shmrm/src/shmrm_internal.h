// The process-local state of the library and its tracing.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <type_traits>

#include <fmt/format.h>

#include "imports.h"
#include "os.h"
#include "vexshmrm.h"

// How an export is made visible is the build's choice (SHMRM_EXPORT_VISIBILITY): where names are
// exported by the list in vexshmrm.def it is empty; where everything is hidden by default it marks
// the export visible, and the export list still decides which names leave the library.
#if !defined(SHMRM_EXPORT_VISIBILITY)
#error "the build defines SHMRM_EXPORT_VISIBILITY"
#endif
#define SHMRM_EXPORT extern "C" SHMRM_EXPORT_VISIBILITY

// An export's body, inlined into each export of an optimised build so that the member's field
// is a constant there. Unoptimised builds (debug, sanitizers, coverage) keep one copy.
#if defined(__GNUC__) && defined(__OPTIMIZE__)
#define SHMRM_INLINE inline __attribute__((always_inline))
#else
#define SHMRM_INLINE inline
#endif

namespace shmrm {

inline constexpr const char* kMapName = "oru_vexshmrm_map";
inline constexpr const char* kLockName = "oru_vexshmrm_lock";
inline constexpr const char* kLogName = "shmrm";

// What this process mapped. Written before _prmhead is published and read after it is seen,
// so an export that finds _prmhead set also sees a complete layout.
struct Layout {
    std::size_t mapped = 0;  // bytes of the view: every access stays inside them
    int grpmax = 0;          // capacities the region was sized with in this process
    int rscmax = 0;
    int monmax = 0;
    int group_positions = 0;    // whole group records of the sized stride after the header
    int monitor_positions = 0;  // whole monitor records from _prmmon to the end of the view
};

inline constexpr int kNoTrace = -1;

struct ProcessState {
    // Set while the region is mapped in this process.
    std::atomic<unsigned char*> _prmhead{nullptr};
    std::atomic<unsigned char*> _prmgrp{nullptr};
    std::atomic<unsigned char*> _prmmon{nullptr};
    std::atomic<int> region_size{0};
    Layout layout;

    std::atomic<vex::LogHandle> log{nullptr};
    // The highest level written: the log's level while it is open, below every level otherwise.
    std::atomic<int> log_level{kNoTrace};

    int attach_count = 0;
    void* create_handle = nullptr;  // the creator's mapping handle
    void* attach_handle = nullptr;  // the attacher's mapping handle
    void* lock_handle = nullptr;    // the region lock, held from load to unload
    bool loaded = false;            // false when the region lock could not be obtained
    bool started = false;           // the process-local locks exist (between load and unload)

    vex::os::LocalLock init_lock;
    vex::os::LocalLock log_lock;
};

extern constinit ProcessState state;

// Library load and unload; the module's entry point (platform/*/entry_*.cpp) calls them.
// load returns false when the region lock cannot be obtained.
bool load();
void unload();

void log_open();
void log_close();

// One load and one compare: the hot path's whole cost of a line that is not written.
inline bool trace_enabled(int level) {
    return level <= state.log_level.load(std::memory_order_relaxed);
}

// A line whose text is given whole: nothing is formatted.
void trace_text(int level, const char* file, int line, const char* tag, const char* text);
// The EXIT line of a result: "<<< EXIT >>> : 0x%08lx".
void trace_exit(const char* file, int line, const char* tag, int rc);

inline constexpr std::size_t kTraceText = 4096;  // the longest text of a line

// What a traced value shows: a caller's string as printf's %s would (a null one as "(null)"), a
// name of the region up to its terminator or the end of its field, a number as it is.
template <typename T>
auto traced(const T& value) {
    if constexpr (std::is_array_v<T>) {
        const auto* end = static_cast<const char*>(std::memchr(value, '\0', std::extent_v<T>));
        return end != nullptr ? std::string_view(value, static_cast<std::size_t>(end - value))
                              : std::string_view(value, std::extent_v<T>);
    } else if constexpr (std::is_pointer_v<T>) {
        return value != nullptr ? std::string_view(value) : std::string_view("(null)");
    } else {
        return value;
    }
}

// Formats a line's text. The format travels in its type (FMT_STRING), checked against the values
// when the code is compiled. Kept out of line: the exports carry only the call.
template <typename Format, typename... T>
[[gnu::noinline]] void trace_format(int level, const char* file, int line, const char* tag, Format,
                                    const T&... values) {
    char text[kTraceText];
    *fmt::format_to_n(text, sizeof text - 1, Format{}, traced(values)...).out = '\0';
    trace_text(level, file, line, tag, text);
}

// Traces one line, its text given as a fmt format and its values; nothing is evaluated or
// formatted when the line would not be written.
#define SHMRM_TRACE(level, tag, format, ...)                                          \
    do {                                                                              \
        if (::shmrm::trace_enabled(level))                                            \
            ::shmrm::trace_format(level, ::shmrm::base_name(__FILE__), __LINE__, tag, \
                                  FMT_STRING(format) __VA_OPT__(, ) __VA_ARGS__);     \
    } while (0)

constexpr const char* base_name(const char* path) {
    const char* base = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '/' || *p == '\\') base = p + 1;
    }
    return base;
}

// The caller's file and line, as a default argument records them. (std::source_location needs a
// builtin that clang 14 lacks; these two are older and known to GCC and clang alike.)
struct SourceLocation {
    static constexpr SourceLocation current(const char* in_file = __builtin_FILE(),
                                            int at_line = __builtin_LINE()) {
        return {in_file, at_line};
    }
    constexpr const char* file_name() const { return file; }
    constexpr int line() const { return line_number; }
    const char* file;
    int line_number;
};

// One export's trace: the ENTER line when constructed, then exit() or fail() on every return.
class TracedCall {
  public:
    explicit TracedCall(const char* tag, SourceLocation at = SourceLocation::current())
        : tag_(tag) {
        line(SHMRM_LOG_FUNC, at, "<<< ENTER >>>");
    }
    // A TracedCall whose ENTER line is written later (or never).
    struct Silent {};
    TracedCall(const char* tag, Silent) : tag_(tag) {}

    void enter(SourceLocation at = SourceLocation::current()) const {
        line(SHMRM_LOG_FUNC, at, "<<< ENTER >>>");
    }
    int exit(int rc, SourceLocation at = SourceLocation::current()) const {
        if (trace_enabled(SHMRM_LOG_FUNC))
            trace_exit(base_name(at.file_name()), static_cast<int>(at.line()), tag_, rc);
        return rc;
    }
    // A failure: its message at the error level, then the EXIT line.
    int fail(int rc, const char* message, SourceLocation at = SourceLocation::current()) const {
        line(SHMRM_LOG_ERROR, at, message);
        return exit(rc, at);
    }
    const char* tag() const { return tag_; }

  private:
    void line(int level, SourceLocation at, const char* text) const {
        if (trace_enabled(level))
            trace_text(level, base_name(at.file_name()), static_cast<int>(at.line()), tag_, text);
    }
    const char* tag_;
};

inline unsigned char* region() {
    return state._prmhead.load(std::memory_order_acquire);
}
inline rmhead* head(unsigned char* base) {
    return reinterpret_cast<rmhead*>(base);
}

// Integer fields of the region are written by other processes at any time: every access is a
// relaxed atomic one, which compiles to a plain load or store.
template <typename T>
inline T load(T& field) {
    return std::atomic_ref<T>(field).load(std::memory_order_relaxed);
}
template <typename T>
inline void store(T& field, T value) {
    std::atomic_ref<T>(field).store(value, std::memory_order_relaxed);
}

}  // namespace shmrm
