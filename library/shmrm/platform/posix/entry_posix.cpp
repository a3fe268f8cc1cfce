// The shared object's constructor and destructor. A shared object cannot refuse to load: when the
// region lock cannot be obtained, the library stays loaded, says so once on standard error, and
// every call fails.
#include <cstdio>
#include <cstring>

#include "shmrm_internal.h"
#include "vexutil.h"

namespace {

__attribute__((constructor)) void on_load() {
    if (!shmrm::load()) {
        const unsigned error = shmrm::imports().last_error();
        char buf[512];
        const char* name = vex::VexutilObjectName(shmrm::kLockName, buf, sizeof buf);
        if (name == nullptr) {  // the namespace cannot name it
            std::fprintf(stderr,
                         "vexshmrm: the region lock \"%s\" cannot be named in this namespace; "
                         "every call will fail\n",
                         shmrm::kLockName);
        } else {
            std::fprintf(stderr,
                         "vexshmrm: the region lock \"%s\" cannot be obtained: %s (error %u); "
                         "every call will fail\n",
                         name, std::strerror(static_cast<int>(error)), error);
        }
    }
}

__attribute__((destructor)) void on_unload() {
    shmrm::unload();
}

}  // namespace
