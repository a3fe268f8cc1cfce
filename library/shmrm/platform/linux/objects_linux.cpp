// Linux keeps POSIX shared-memory objects as the files of one tmpfs folder, so the objects of a
// namespace can be listed by name there.
#include <dirent.h>

#include <cstdio>
#include <cstring>
#include <string_view>

#include "os.h"

namespace vex::os {

namespace {

constexpr const char* kShmFolder = "/dev/shm";
constexpr std::string_view kGuardSuffix = ".guard";

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
        if (object.ends_with(kGuardSuffix)) object.remove_suffix(kGuardSuffix.size());
        char buf[kObjectNameMax + 1 + kGuardSuffix.size()];
        std::snprintf(buf, sizeof buf, "%.*s", static_cast<int>(object.size()), object.data());
        remove_if_unused(buf);
    });
}

}  // namespace vex::os
