// The names of the library's result codes and what an operator can do about each, made from the
// one table of them (SHMRM_RESULT_MAP); and the exit codes of shmrmctl.
#pragma once

#include <string>

namespace shmrmctl {

// shmrmctl's exit status: what a script can tell apart without reading the message.
enum Exit : int {
    kExitOk = 0,
    kExitFailure = 1,      // anything else: a result not listed here, an output or file error
    kExitUsage = 2,        // a bad command line: unknown command or option, bad option value
    kExitNoRegion = 3,     // no region in this namespace, or the library is not initialised
    kExitNotFound = 4,     // no such group, resource or monitor
    kExitLockTimeout = 5,  // the region lock was not free in time
    kExitBadValue = 6,     // a number out of range or malformed, a text too long, a refused value
    kExitBadConfig = 7,    // the install directory or etc/vex.xml is missing, unreadable, wrong
    kExitFull = 8,         // the group, resource or monitor table is full
};

// The exit codes and their meanings, as --help and the README list them.
std::string exit_code_help();

// "SHMRM_ERR_NOTFOUND" for 3, and so on; "result <n>" for a code the library does not define.
std::string result_name(int rc);
// The library's one-line meaning of a result ("no record has the given name ...").
std::string result_meaning(int rc);
// What to do about a result, in an operator's words; empty for success.
std::string result_hint(int rc);
// The exit status a result ends shmrmctl with.
Exit result_exit(int rc);

}  // namespace shmrmctl
