// The region lock: the one cross-process lock, a recursive mutex owned by the calling thread.
#include "shmrm_internal.h"

namespace shmrm {
namespace {

int take(const char* tag, unsigned timeout_ms) {
    TracedCall call(tag);
    const Imports& im = imports();
    unsigned r = im.wait_mutex(state.lock_handle, timeout_ms);
    if (r == vex::os::kWaitObject0 || r == vex::os::kWaitAbandoned) return call.exit(SHMRM_OK);
    // A time-out, or a wait that failed outright (no lock was obtained at load).
    SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "WaitForSingleObject() failed(errno:{})",
                static_cast<int>(im.last_error()));
    return call.exit(SHMRM_ERR_LOCK);
}

int give(const char* tag) {
    TracedCall call(tag);
    if (state.lock_handle == nullptr) return call.exit(SHMRM_ERR_LOCK);
    imports().release_mutex(state.lock_handle);  // releasing a lock not held is not an error
    return call.exit(SHMRM_OK);
}

}  // namespace
}  // namespace shmrm

SHMRM_EXPORT int shmrm_rolock(unsigned int timeout_ms) {
    return shmrm::take("_rolock", timeout_ms);
}
SHMRM_EXPORT int shmrm_rwlock(unsigned int timeout_ms) {
    return shmrm::take("_rwlock", timeout_ms);
}
SHMRM_EXPORT int shmrm_rounlock(void) {
    return shmrm::give("_rounlock");
}
SHMRM_EXPORT int shmrm_rwunlock(void) {
    return shmrm::give("_rwunlock");
}
