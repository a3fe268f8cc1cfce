// The region as the tool reaches it: records through the library's exports; the whole region,
// for the reading commands, through a view of the tool's own.
#pragma once

#include <string>

#include "results.h"
#include "snapshot.h"

namespace shmrmctl {

// The names of the region's mapping and of the region lock's object, each prefixed with
// "<namespace>." when VEX_IPC_NAMESPACE is set.
inline constexpr const char* kMappingName = "oru_vexshmrm_map";
inline constexpr const char* kLockObjectName = "oru_vexshmrm_lock";

// A failed step: an export and its result, or (`system`) a step of the tool's own and the
// system's error number.
struct Failure {
    std::string call;
    int rc = 0;
    bool system = false;
    // What went wrong, in an operator's words: the region's or the lock's object name in its
    // namespace and the system's error text rather than the export and its code.
    std::string message() const;
    std::string hint() const;  // what to do about it; may be empty
    Exit exit() const;
};

// Prints "shmrmctl: <message>" and, when there is one, "shmrmctl: hint: <hint>" on standard
// error, and returns `code`.
int report(const std::string& message, Exit code, const std::string& hint = {});
int report(const Failure& failure);

// The full name of one of the library's named objects, with this process's namespace prefix
// ("node1.oru_vexshmrm_lock").
std::string object_name(const char* base);
inline constexpr const char* kLockObject = "oru_vexshmrm_lock";
inline constexpr const char* kMappingObject = "oru_vexshmrm_map";
// Whether a region exists in this namespace now.
bool region_exists();

// Attached for as long as it lives (when attaching succeeded).
class Attachment {
  public:
    Attachment();
    ~Attachment();
    Attachment(const Attachment&) = delete;
    Attachment& operator=(const Attachment&) = delete;
    int rc() const { return rc_; }

  private:
    int rc_;
};

// The region lock for as long as it lives: shmrm_rwlock / shmrm_rwunlock, or the read pair.
class RegionLock {
  public:
    enum class Mode { kRead, kWrite };
    RegionLock(Mode mode, unsigned int timeout_ms);
    ~RegionLock();
    RegionLock(const RegionLock&) = delete;
    RegionLock& operator=(const RegionLock&) = delete;
    int rc() const { return rc_; }

  private:
    Mode mode_;
    int rc_;
};

// Copies the whole region, as long as its mapping is, under the region lock. The region and its
// lock are opened and mapped here, not through the exports: attaching would write this
// process's configured capacities into the header, and every export writes to the node log. Returns
// false with `failure` set when any step fails. `held_seconds`, when given, gets how long the lock
// was held (from taking it to releasing it).
bool take_region_bytes(unsigned int timeout_ms, Bytes& bytes, Failure& failure,
                       double* held_seconds = nullptr);

}  // namespace shmrmctl
