#include "vexutil.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "os.h"

#ifndef VEX_DEFAULT_INSTALL_PATH
#define VEX_DEFAULT_INSTALL_PATH "/opt/vex"
#endif

namespace vex {

namespace {

constexpr unsigned kPageReadWrite = 4;
constexpr unsigned kFileMapAllAccess = 0xF001F;
constexpr int kObjectNameBuffer = static_cast<int>(os::kObjectNameMax) + 1;  // with its NUL

// "<namespace>." when VEX_IPC_NAMESPACE was set at load; a namespace too long for any object
// name is kept whole so that every name built from it fails.
char g_namespace[kObjectNameBuffer + 2] = {};
bool g_namespace_unusable = false;

}  // namespace

int VexutilLoadNamespace() {
    g_namespace[0] = '\0';
    g_namespace_unusable = false;
    const char* ns = std::getenv("VEX_IPC_NAMESPACE");
    if (ns == nullptr) return 1;
    int n = std::snprintf(g_namespace, sizeof g_namespace, "%s.", ns);
    g_namespace_unusable = n < 0 || n >= static_cast<int>(sizeof g_namespace);
    if (!g_namespace_unusable) return 1;
    os::set_last_error(87);  // invalid parameter, as every name built from it
    return 0;
}

const char* VexutilObjectName(const char* base, char* buf, int size) {
    if (base == nullptr || buf == nullptr || size <= 0 || g_namespace_unusable) return nullptr;
    int n = std::snprintf(buf, static_cast<std::size_t>(size), "%s%s", g_namespace, base);
    if (n < 0 || n >= size) return nullptr;
    return buf;
}

int VexutilGetInstallPath(char* buf, int size) {
    if (buf == nullptr || size <= 0) return 0;
    const char* path = std::getenv("VEX_INSTALL_PATH");
    if (path == nullptr || *path == '\0') path = VEX_DEFAULT_INSTALL_PATH;
    std::size_t len = std::strlen(path);
    if (len + 1 > static_cast<std::size_t>(size) || !os::is_directory(path)) return 0;
    std::memcpy(buf, path, len + 1);
    return 1;
}

void* VexutilCreateMutex(int /*flags*/, const char* name) {
    char full[kObjectNameBuffer];
    const char* object = VexutilObjectName(name, full, sizeof full);
    if (object == nullptr) {
        os::set_last_error(87);  // invalid parameter
        return nullptr;
    }
    return os::create_named_mutex(object);
}

void* VexutilCreateNamedFileMapping(std::intptr_t file, unsigned protect, unsigned size_high,
                                    unsigned size_low, const char* name) {
    char full[kObjectNameBuffer];
    const char* object = VexutilObjectName(name, full, sizeof full);
    if (object == nullptr || file != -1 || protect != kPageReadWrite) {
        os::set_last_error(87);
        return nullptr;
    }
    std::uint64_t size = (static_cast<std::uint64_t>(size_high) << 32) | size_low;
    return os::create_named_mapping(size, object);
}

void* VexutilOpenNamedFileMapping(unsigned access, int /*inherit*/, const char* name) {
    char full[kObjectNameBuffer];
    const char* object = VexutilObjectName(name, full, sizeof full);
    if (object == nullptr || access != kFileMapAllAccess) {
        os::set_last_error(87);
        return nullptr;
    }
    return os::open_named_mapping(object);
}

int VexutilRemoveUnusedObject(const char* name) {
    char full[kObjectNameBuffer];
    const char* object = VexutilObjectName(name, full, sizeof full);
    return object != nullptr && os::remove_if_unused(object) ? 1 : 0;
}

}  // namespace vex
