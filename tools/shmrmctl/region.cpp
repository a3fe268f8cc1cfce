#include "region.h"

#include <fmt/format.h>

#include <memory>

#include "os.h"
#include "vexshmrm.h"
#include "vexutil.h"

namespace shmrmctl {

namespace {

constexpr const char* kMappingName = "oru_vexshmrm_map";
constexpr const char* kLockName = "oru_vexshmrm_lock";
constexpr unsigned kAllAccess = 0xF001F;
constexpr const char* kOpening = "opening the region";
constexpr const char* kMapping = "mapping the region";
constexpr const char* kLocking = "opening the region lock";

struct CloseHandle {
    void operator()(void* handle) const { vex::os::close_handle(handle); }
};
struct UnmapView {
    void operator()(void* view) const { vex::os::unmap_view(view); }
};

Failure system_failure(const char* step) {
    return {step, static_cast<int>(vex::os::last_error()), true};
}

}  // namespace

std::string Failure::message() const {
    if (system) {
        const bool absent = call == kOpening && rc == static_cast<int>(vex::os::kErrorFileNotFound);
        return fmt::format("{}: system error {}{}", call, rc,
                           absent ? " (no region: is a node running?)" : "");
    }
    std::string hint;
    if (call == "shmrm_attach" && rc == SHMRM_ERR_OPENMAP)
        hint = " (no region: is a node running?)";
    if (rc == SHMRM_ERR_LOCK) hint = " (the region lock was not free in time)";
    if (rc == SHMRM_ERR_INSTALLPATH) hint = " (set VEX_INSTALL_PATH or --install)";
    return fmt::format("{}: {}{}", call, result_name(rc), hint);
}

Attachment::Attachment() : rc_(shmrm_attach()) {}
Attachment::~Attachment() {
    if (rc_ == SHMRM_OK) shmrm_detach();
}

RegionLock::RegionLock(Mode mode, unsigned int timeout_ms)
    : mode_(mode), rc_(mode == Mode::kRead ? shmrm_rolock(timeout_ms) : shmrm_rwlock(timeout_ms)) {}
RegionLock::~RegionLock() {
    if (rc_ != SHMRM_OK) return;
    if (mode_ == Mode::kRead) {
        shmrm_rounlock();
    } else {
        shmrm_rwunlock();
    }
}

bool take_region_bytes(unsigned int timeout_ms, Bytes& bytes, Failure& failure) {
    // The library read the namespace when it was loaded; the platform layer linked into this
    // program reads it once as well.
    static const bool namespace_loaded = (vex::VexutilLoadNamespace(), true);
    (void)namespace_loaded;

    // The region lock, taken directly as the library takes it: the lock exports would write
    // their entry and exit lines into the node log on every read.
    const std::unique_ptr<void, CloseHandle> mutex(vex::VexutilCreateMutex(0, kLockName));
    if (!mutex) {
        failure = system_failure(kLocking);
        return false;
    }
    const unsigned waited = vex::os::wait_mutex(mutex.get(), timeout_ms);
    if (waited != vex::os::kWaitObject0 && waited != vex::os::kWaitAbandoned) {
        failure = {"shmrm_rolock", SHMRM_ERR_LOCK};
        return false;
    }
    struct Release {
        void operator()(void* m) const { vex::os::release_mutex(m); }
    };
    const std::unique_ptr<void, Release> held(mutex.get());
    const std::unique_ptr<void, CloseHandle> mapping(
        vex::VexutilOpenNamedFileMapping(kAllAccess, 1, kMappingName));
    if (!mapping) {
        failure = system_failure(kOpening);
        return false;
    }
    std::size_t size = 0;
    const std::unique_ptr<void, UnmapView> view(vex::os::map_view_read(mapping.get(), &size));
    if (!view) {
        failure = system_failure(kMapping);
        return false;
    }
    const auto* first = static_cast<const std::byte*>(view.get());
    bytes.assign(first, first + size);
    return true;
}

}  // namespace shmrmctl
