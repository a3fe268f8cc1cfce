// The live view and the processes of the tool: hold, watch, the demo and its workers.
#pragma once

#include <string>
#include <vector>

namespace shmrmctl {

struct WatchOptions {
    double interval_s = 1.0;
    unsigned int timeout_ms = 5000;
    double run_for_s = 0;  // 0: until q or Ctrl-C
};

// Creates the region and keeps it until a stop request (sys::install_stop_handlers); prints
// "ready: region of <size> bytes" once it holds it. Refuses when a region exists in the
// namespace already. Returns the exit status.
int hold();

// The status view, redrawn in place; returns the exit status. Needs a terminal.
int watch(const WatchOptions& options);

struct DemoOptions {
    double seconds = 20;
    int workers = 3;
    bool once = false;
    std::string example_dir;  // the install directory to copy; empty: the bundled one
    std::string ipc_namespace;
    unsigned int timeout_ms = 5000;
};
int demo(const DemoOptions& options, char** argv);

// One worker of the demo: changes its share of the region until a stop request or `seconds`
// elapse.
int worker(int index, double seconds, unsigned int timeout_ms);

}  // namespace shmrmctl
