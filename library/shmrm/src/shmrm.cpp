// The library frame: load and unload, the process-local state, the module log and tracing.
#include <cstring>

#include <fmt/compile.h>
#include <fmt/format.h>

#include "shmrm_internal.h"
#include "vexxml.h"

namespace shmrm {

constinit ProcessState state;

namespace {
constexpr int kDefaultLogLevel = SHMRM_LOG_INFO;
constexpr int kDefaultLogSize = 1000000;
}  // namespace

bool load() {
    state.init_lock.init();
    state.log_lock.init();
    state.started = true;
    state.attach_count = 0;
    const Imports& im = imports();
    // A namespace that cannot name objects leaves the region lock unobtainable.
    if (im.VexutilLoadNamespace() == 0) {
        state.lock_handle = nullptr;
        state.loaded = false;
        return false;
    }
    state.lock_handle = im.VexutilCreateMutex(0, kLockName);
    state.loaded = state.lock_handle != nullptr;
    // A region whose holders all died is not kept for a process that may never come.
    if (state.loaded) im.VexutilRemoveUnusedObject(kMapName);
    return state.loaded;
}

void unload() {
    if (!state.started) return;
    state.started = false;
    // A view still mapped and a log still open stay as they are.
    state.init_lock.destroy();
    state.log_lock.destroy();
    if (state.lock_handle == nullptr) return;
    const Imports& im = imports();
    im.close_handle(state.lock_handle);
    state.lock_handle = nullptr;
    state.loaded = false;
    im.VexutilRemoveUnusedObject(kMapName);
}

void log_open() {
    state.init_lock.enter();
    bool open = state.log.load(std::memory_order_acquire) != nullptr;
    state.init_lock.leave();
    if (open) return;

    int level = kDefaultLogLevel;
    int size = kDefaultLogSize;
    const Imports& im = imports();
    if (im.xmllib_load_policy(kLogName) == 0) {
        int len = sizeof(int);
        if (im.xmllib_get_value("/root/shmrm/log/level", vex::kXmlTypeInt32, &level, &len) != 0)
            level = kDefaultLogLevel;
        len = sizeof(int);
        if (im.xmllib_get_value("/root/shmrm/log/size", vex::kXmlTypeInt32, &size, &len) != 0)
            size = kDefaultLogSize;
        im.xmllib_unload_policy(kLogName);
    }
    char name[32];
    std::strncpy(name, kLogName, sizeof name);
    name[sizeof name - 1] = '\0';
    vex::LogHandle handle = nullptr;
    im.loglib_open(name, &handle, level, size, 0, 0);
    state.log.store(handle, std::memory_order_release);
    if (handle != nullptr) state.log_level.store(level, std::memory_order_relaxed);
}

void log_close() {
    state.log_level.store(kNoTrace, std::memory_order_relaxed);
    state.log_lock.enter();
    if (vex::LogHandle handle = state.log.load(std::memory_order_acquire)) {
        imports().loglib_close(handle);
    }
    state.log.store(nullptr, std::memory_order_release);
    state.log_lock.leave();
}

void trace_text(int level, const char* file, int line, const char* tag, const char* text) {
    // No lock: a handle the log is closing drops the line (a closed handle stays valid memory).
    if (vex::LogHandle handle = state.log.load(std::memory_order_acquire)) {
        imports().loglib_write(handle, level, 0, file, line, tag, text);
    }
}

void trace_exit(const char* file, int line, const char* tag, int rc) {
    char text[32];  // the line is 27 characters at the most
    *fmt::format_to(text, FMT_COMPILE("<<< EXIT >>> : 0x{:08x}"), static_cast<unsigned>(rc)) = '\0';
    trace_text(SHMRM_LOG_FUNC, file, line, tag, text);
}

}  // namespace shmrm
