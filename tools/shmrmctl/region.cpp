#include "region.h"

#include <fmt/format.h>

#include "vexshmrm.h"

namespace shmrmctl {

std::string result_name(int rc) {
    static constexpr const char* names[] = {"SHMRM_OK",
                                            "SHMRM_ERR_NOTINIT",
                                            "SHMRM_ERR_PARAM",
                                            "SHMRM_ERR_NOTFOUND",
                                            "SHMRM_ERR_BUFFER",
                                            "SHMRM_ERR_XMLINIT",
                                            "SHMRM_ERR_CREATEMAP",
                                            "SHMRM_ERR_MAPVIEW",
                                            "SHMRM_ERR_OPENMAP",
                                            "SHMRM_ERR_GRPOVER",
                                            "SHMRM_ERR_RSCOVER",
                                            "SHMRM_ERR_MONOVER",
                                            "SHMRM_ERR_LOADINFO",
                                            "SHMRM_ERR_XMLCONFIG",
                                            "SHMRM_ERR_LOCK",
                                            nullptr,
                                            "SHMRM_ERR_INSTALLPATH"};
    if (rc >= 0 && rc < static_cast<int>(std::size(names)) && names[rc] != nullptr) {
        return names[rc];
    }
    return fmt::format("result {}", rc);
}

std::string Failure::message() const {
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
    Attachment attached;
    if (attached.rc() != SHMRM_OK) {
        failure = {"shmrm_attach", attached.rc()};
        return false;
    }
    RegionLock lock(RegionLock::Mode::kRead, timeout_ms);
    if (lock.rc() != SHMRM_OK) {
        failure = {"shmrm_rolock", lock.rc()};
        return false;
    }
    int size = 0;
    int rc = shmrm_dump(nullptr, &size);
    if (rc == SHMRM_OK && size <= 0) rc = SHMRM_ERR_BUFFER;
    if (rc == SHMRM_OK) {
        bytes.assign(static_cast<std::size_t>(size), std::byte{0});
        rc = shmrm_dump(bytes.data(), &size);
    }
    if (rc != SHMRM_OK) {
        failure = {"shmrm_dump", rc};
        return false;
    }
    return true;
}

}  // namespace shmrmctl
