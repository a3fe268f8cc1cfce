// The shmrmctl binary under test, run as an operator runs it.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

#include "support/child.h"

namespace vextest {

// Runs shmrmctl with the test's environment (and `extra_env`); a run that hangs is killed.
inline RunResult shmrmctl(const std::vector<std::string>& args,
                          const std::vector<std::string>& extra_env = {}) {
    std::vector<std::string> command{SHMRMCTL_EXE};
    command.insert(command.end(), args.begin(), args.end());
    return run(command, extra_env);
}

inline bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// The namespace this test process (and the shmrmctl it starts) names its objects in.
inline std::string ipc_namespace() {
    const char* ns = std::getenv("VEX_IPC_NAMESPACE");
    return ns != nullptr ? ns : "";
}

}  // namespace vextest
