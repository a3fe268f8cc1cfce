// The shmrmctl binary under test, run as an operator runs it.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "process/process.h"
#include "support/child.h"
#include "support/sandbox.h"

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

// For a test program's main: the library read the namespace as it loaded, so the program runs
// itself again with a namespace of its own (`prefix` and this process's id), as a child, and waits.
// The first process keeps the library loaded under no namespace until the child is done, and lets
// go of it when it exits, so that nothing of that namespace is left behind. Nothing in the child,
// which then runs the tests.
inline std::optional<int> in_own_namespace(int argc, char** argv, const std::string& prefix) {
    if (std::getenv("VEX_IPC_NAMESPACE") != nullptr) return std::nullopt;  // the child: run
    const std::vector<std::string> args(argv + 1, argv + argc);
    vex::process::Options options;
    options.env = {"VEX_IPC_NAMESPACE=" + prefix + process_id_text()};
    vex::process::Process again = vex::process::Process::start_self(args, options);
    const auto exit = again.wait(280000);
    return exit && exit->exited() ? exit->code : 1;
}

}  // namespace vextest
