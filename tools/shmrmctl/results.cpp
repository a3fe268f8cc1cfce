#include "results.h"

#include <fmt/format.h>

#include "vexshmrm.h"

namespace shmrmctl {

namespace {

// One hint and one exit status per result code. The table below is made from SHMRM_RESULT_MAP
// and names kHint_<code> and kExit_<code> for every row: a code added to the library without
// its hint and exit status here does not compile.
constexpr const char* kHint_SHMRM_OK = "";
constexpr const char* kHint_SHMRM_ERR_NOTINIT =
    "the library could not obtain the region lock when it was loaded: check the permissions of "
    "the IPC objects of this namespace (VEX_IPC_NAMESPACE) and the user running shmrmctl";
constexpr const char* kHint_SHMRM_ERR_PARAM =
    "the library refused the value: see the attribute's range in 'shmrmctl set --help'";
constexpr const char* kHint_SHMRM_ERR_NOTFOUND =
    "'shmrmctl status' lists the groups, resources and monitors there are";
constexpr const char* kHint_SHMRM_ERR_BUFFER = "the result did not fit; report this as a bug";
constexpr const char* kHint_SHMRM_ERR_XMLINIT =
    "the configuration reader could not start; check free memory and the install directory";
constexpr const char* kHint_SHMRM_ERR_CREATEMAP =
    "the region could not be created: check free shared memory (/dev/shm) and the permissions "
    "of the namespace's objects";
constexpr const char* kHint_SHMRM_ERR_MAPVIEW =
    "the region could not be mapped, or it is smaller than this configuration's capacities: "
    "use the node's own install directory (VEX_INSTALL_PATH or --install)";
constexpr const char* kHint_SHMRM_ERR_OPENMAP =
    "no region in this namespace: start a holder ('shmrmctl hold') or set VEX_IPC_NAMESPACE to "
    "the node's";
constexpr const char* kHint_SHMRM_ERR_GRPOVER =
    "the group table is full: remove a group, or raise all/num/group in etc/vex.xml and "
    "restart the node";
constexpr const char* kHint_SHMRM_ERR_RSCOVER =
    "the group's resource slots are full: remove a resource, or raise all/num/resource in "
    "etc/vex.xml and restart the node";
constexpr const char* kHint_SHMRM_ERR_MONOVER =
    "the monitor table is full: remove a monitor, or raise all/num/monitor in etc/vex.xml and "
    "restart the node";
constexpr const char* kHint_SHMRM_ERR_LOADINFO =
    "the capacities could not be loaded: check that the install directory exists and that "
    "all/num/* in etc/vex.xml are at least 1 and make a region below 2 GiB";
constexpr const char* kHint_SHMRM_ERR_XMLCONFIG =
    "etc/vex.xml in the install directory is missing, unreadable or not well-formed";
constexpr const char* kHint_SHMRM_ERR_LOCK =
    "another process holds the region lock: try again, or raise --timeout";
constexpr const char* kHint_SHMRM_ERR_INSTALLPATH =
    "the install directory cannot be found: set VEX_INSTALL_PATH or --install";

constexpr Exit kExit_SHMRM_OK = kExitOk;
constexpr Exit kExit_SHMRM_ERR_NOTINIT = kExitNoRegion;
constexpr Exit kExit_SHMRM_ERR_PARAM = kExitBadValue;
constexpr Exit kExit_SHMRM_ERR_NOTFOUND = kExitNotFound;
constexpr Exit kExit_SHMRM_ERR_BUFFER = kExitFailure;
constexpr Exit kExit_SHMRM_ERR_XMLINIT = kExitFailure;
constexpr Exit kExit_SHMRM_ERR_CREATEMAP = kExitFailure;
constexpr Exit kExit_SHMRM_ERR_MAPVIEW = kExitFailure;
constexpr Exit kExit_SHMRM_ERR_OPENMAP = kExitNoRegion;
constexpr Exit kExit_SHMRM_ERR_GRPOVER = kExitFull;
constexpr Exit kExit_SHMRM_ERR_RSCOVER = kExitFull;
constexpr Exit kExit_SHMRM_ERR_MONOVER = kExitFull;
constexpr Exit kExit_SHMRM_ERR_LOADINFO = kExitBadConfig;
constexpr Exit kExit_SHMRM_ERR_XMLCONFIG = kExitBadConfig;
constexpr Exit kExit_SHMRM_ERR_LOCK = kExitLockTimeout;
constexpr Exit kExit_SHMRM_ERR_INSTALLPATH = kExitBadConfig;

struct Result {
    int value;
    const char* name;
    const char* meaning;
    const char* hint;
    Exit exit;
};

#define SHMRMCTL_RESULT_ROW(name, value, meaning) \
    {value, #name, meaning, kHint_##name, kExit_##name},
constexpr Result kResults[] = {SHMRM_RESULT_MAP(SHMRMCTL_RESULT_ROW)};
#undef SHMRMCTL_RESULT_ROW

const Result* find(int rc) {
    for (const Result& r : kResults) {
        if (r.value == rc) return &r;
    }
    return nullptr;
}

}  // namespace

std::string exit_code_help() {
    return "Exit status:\n"
           "  0  success\n"
           "  1  any other failure (a library result not listed here, an output or file error)\n"
           "  2  usage: a bad command line, unknown command or option, bad option value\n"
           "  3  no region in this namespace, or the library is not initialised\n"
           "  4  not found: no such group, resource or monitor\n"
           "  5  the region lock was not free within --timeout\n"
           "  6  bad value: a number out of range or malformed, a text too long, a value the "
           "library refuses\n"
           "  7  bad configuration: install directory or etc/vex.xml missing, unreadable or "
           "malformed, a capacity that is not a number\n"
           "  8  a table is full (groups, a group's resources, monitors)\n";
}

std::string result_name(int rc) {
    const Result* r = find(rc);
    return r != nullptr ? r->name : fmt::format("result {}", rc);
}

std::string result_meaning(int rc) {
    const Result* r = find(rc);
    return r != nullptr ? r->meaning : fmt::format("result {}", rc);
}

std::string result_hint(int rc) {
    const Result* r = find(rc);
    return r != nullptr ? r->hint : "a result this shmrmctl does not know: is the library newer?";
}

Exit result_exit(int rc) {
    const Result* r = find(rc);
    return r != nullptr ? r->exit : kExitFailure;
}

}  // namespace shmrmctl
