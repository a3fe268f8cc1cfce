// The shared object's constructor and destructor. A shared object cannot refuse to load: when the
// region lock cannot be obtained, the library stays loaded, says so once on standard error, and
// every call fails.
#include <cstdio>

#include "shmrm_internal.h"

namespace {

__attribute__((constructor)) void on_load() {
    if (!shmrm::load()) {
        std::fprintf(stderr,
                     "vexshmrm: the region lock \"%s\" cannot be obtained (error %u); every "
                     "call will fail\n",
                     shmrm::kLockName, shmrm::imports().last_error());
    }
}

__attribute__((destructor)) void on_unload() {
    shmrm::unload();
}

}  // namespace
