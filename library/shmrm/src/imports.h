// Everything the library calls outside itself, as one table of functions. The library reaches
// the XML, log and utility libraries and the kernel only through imports(); tests swap in a
// table of their own to fail any call, record the order of calls and take pauses without
// sleeping.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "vexlog.h"

namespace shmrm {

struct Imports {
    // XML configuration
    int (*xmllib_init)(const char* module);
    int (*xmllib_load_config)(int flags);
    int (*xmllib_load_policy)(const char* policy);
    int (*xmllib_get_value)(const char* key, int type, void* value, int* len);
    int (*xmllib_unload_policy)(const char* policy);
    int (*xmllib_unload_config)();
    int (*xmllib_term)();

    // Module log
    void (*loglib_open)(const char* name, vex::LogHandle* handle, int level, int size, int r1,
                        int r2);
    void (*loglib_write)(vex::LogHandle handle, int level, int reserved, const char* source,
                         int line, const char* tag, const char* text);
    void (*loglib_close)(vex::LogHandle handle);

    // Utility library
    int (*VexutilLoadNamespace)();
    void* (*VexutilCreateMutex)(int flags, const char* name);
    int (*VexutilGetInstallPath)(char* buf, int size);
    void* (*VexutilCreateNamedFileMapping)(std::intptr_t file, unsigned protect, unsigned size_high,
                                           unsigned size_low, const char* name);
    void* (*VexutilOpenNamedFileMapping)(unsigned access, int inherit, const char* name);
    int (*VexutilRemoveUnusedObject)(const char* name);

    // Kernel
    void* (*map_view)(void* mapping, std::size_t* mapped);
    bool (*unmap_view)(void* view);
    bool (*close_handle)(void* handle);
    unsigned (*last_error)();
    void (*sleep_ms)(unsigned ms);
    unsigned (*tick_count)();
    unsigned (*wait_mutex)(void* mutex, unsigned timeout_ms);
    bool (*release_mutex)(void* mutex);
};

// The table of the real libraries and kernel.
extern const Imports kSystemImports;

namespace detail {
extern std::atomic<const Imports*> g_imports;
}

inline const Imports& imports() {
    return *detail::g_imports.load(std::memory_order_relaxed);
}

// Installs a table (nullptr restores kSystemImports); returns the previous one.
const Imports* set_imports(const Imports* table);

}  // namespace shmrm
