#include "region.h"

#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "os.h"
#include "system.h"
#include "vexshmrm.h"
#include "vexutil.h"

namespace shmrmctl {

namespace {

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

void load_namespace() {
    // The library read the namespace when it was loaded; the platform layer linked into this
    // program reads it once as well.
    static const bool loaded = (vex::VexutilLoadNamespace(), true);
    (void)loaded;
}

// Why the region lock cannot be had at all (as opposed to not in time): the platform layer is
// asked for the lock object as the library asked for it when it was loaded.
std::optional<std::string> lock_problem() {
    load_namespace();
    void* lock = vex::VexutilCreateMutex(0, kLockObject);
    if (lock != nullptr) {
        vex::os::close_handle(lock);
        return std::nullopt;
    }
    return fmt::format("the region lock '{}' cannot be obtained: {}", object_name(kLockObject),
                       sys::system_error_text(vex::os::last_error()));
}

std::string no_region() {
    return fmt::format("no region '{}' in this namespace", object_name(kMappingObject));
}

// What a call was doing, for a message: "creating the region".
std::string action(const std::string& call) {
    static constexpr std::pair<std::string_view, std::string_view> kActions[] = {
        {"shmrm_create", "creating the region"},  {"shmrm_attach", "attaching to the region"},
        {"shmrm_delete", "releasing the region"}, {"shmrm_detach", "detaching from the region"},
        {"shmrm_rolock", "taking the read lock"}, {"shmrm_rwlock", "taking the write lock"},
    };
    for (const auto& [name, what] : kActions) {
        if (call == name) return std::string(what);
    }
    return call;
}

}  // namespace

std::string object_name(const char* base) {
    load_namespace();
    char full[512];
    const char* name = vex::VexutilObjectName(base, full, sizeof full);
    return name != nullptr ? name : fmt::format("{} (in an unusable namespace)", base);
}

bool region_exists() {
    load_namespace();
    const std::unique_ptr<void, CloseHandle> mapping(
        vex::VexutilOpenNamedFileMapping(kAllAccess, 1, kMappingObject));
    return mapping != nullptr;
}

std::string Failure::message() const {
    if (system) {
        const bool absent = call == kOpening && rc == static_cast<int>(vex::os::kErrorFileNotFound);
        if (absent) return no_region();
        if (call == kLocking) {
            return fmt::format("the region lock '{}' cannot be obtained: {}",
                               object_name(kLockObject),
                               sys::system_error_text(static_cast<unsigned>(rc)));
        }
        return fmt::format("{} '{}': {}", call, object_name(kMappingObject),
                           sys::system_error_text(static_cast<unsigned>(rc)));
    }
    if (rc == SHMRM_ERR_OPENMAP) return no_region();
    if (rc == SHMRM_ERR_NOTINIT || rc == SHMRM_ERR_LOCK) {
        if (auto problem = lock_problem()) return *problem;
    }
    if (rc == SHMRM_ERR_LOCK) {
        return fmt::format("the region lock '{}' was not free in time", object_name(kLockObject));
    }
    return fmt::format("{}: {}", action(call), result_meaning(rc));
}

std::string Failure::hint() const {
    if (system) {
        const bool absent = call == kOpening && rc == static_cast<int>(vex::os::kErrorFileNotFound);
        return absent ? result_hint(SHMRM_ERR_OPENMAP) : "";
    }
    if (rc == SHMRM_ERR_LOCK && lock_problem()) return result_hint(SHMRM_ERR_NOTINIT);
    return result_hint(rc);
}

Exit Failure::exit() const {
    if (system) {
        const bool absent = call == kOpening && rc == static_cast<int>(vex::os::kErrorFileNotFound);
        return absent || call == kLocking ? kExitNoRegion : kExitFailure;
    }
    if (rc == SHMRM_ERR_LOCK && lock_problem()) return kExitNoRegion;
    return result_exit(rc);
}

int report(const std::string& message, Exit code, const std::string& hint) {
    std::fprintf(stderr, "shmrmctl: %s\n", message.c_str());
    if (!hint.empty()) std::fprintf(stderr, "shmrmctl: hint: %s\n", hint.c_str());
    return code;
}

int report(const Failure& failure) {
    return report(failure.message(), failure.exit(), failure.hint());
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

bool take_region_bytes(unsigned int timeout_ms, Bytes& bytes, Failure& failure,
                       double* held_seconds) {
    load_namespace();
    // The region lock, taken directly as the library takes it: the lock exports would write
    // their entry and exit lines into the node log on every read.
    const std::unique_ptr<void, CloseHandle> mutex(vex::VexutilCreateMutex(0, kLockObject));
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
        double* held_seconds;
        std::chrono::steady_clock::time_point since;
        void operator()(void* m) const {
            if (held_seconds != nullptr) {
                *held_seconds =
                    std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
            }
            vex::os::release_mutex(m);
        }
    };
    const std::unique_ptr<void, Release> held(
        mutex.get(), Release{held_seconds, std::chrono::steady_clock::now()});
    const std::unique_ptr<void, CloseHandle> mapping(
        vex::VexutilOpenNamedFileMapping(kAllAccess, 1, kMappingObject));
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
