// Linux keeps POSIX shared-memory objects as the files of one tmpfs folder, so the objects of a
// namespace can be listed by name there.
#include <dirent.h>

#include <cstdio>
#include <cstring>

#include "os.h"

namespace vex::os {

namespace {

constexpr const char* kShmFolder = "/dev/shm";
constexpr char kGuardSuffix[] = ".guard";

template <typename Each>
std::size_t each_object(const char* ns, Each each) {
    DIR* dir = opendir(kShmFolder);
    if (dir == nullptr) return 0;
    const std::size_t prefix = std::strlen(ns);
    std::size_t count = 0;
    while (const dirent* entry = readdir(dir)) {
        const char* name = entry->d_name;
        if (std::strncmp(name, ns, prefix) != 0 || name[prefix] != '.') continue;
        ++count;
        each(name);
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
        char object[kObjectNameMax + sizeof kGuardSuffix];
        std::snprintf(object, sizeof object, "%s", name);
        const std::size_t len = std::strlen(object);
        const std::size_t suffix = sizeof kGuardSuffix - 1;
        if (len > suffix && std::strcmp(object + len - suffix, kGuardSuffix) == 0)
            object[len - suffix] = '\0';
        remove_if_unused(object);
    });
}

}  // namespace vex::os
