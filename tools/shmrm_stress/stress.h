// shmrm_stress: worker processes x threads run locked series of calls on records each thread
// alone owns, check everything they read, and commit every series in the region; a killer can
// SIGKILL workers at random and restart them. The parent verifies that nothing was lost.
#pragma once

#include <string>

#include "model.h"

namespace stress {

struct Options {
    Params params;
    int processes = 3;
    int threads = 2;
    long long series = 0;   // series each thread completes at least
    double seconds = 0;     // run at least this long
    int kill_every_ms = 0;  // crash mode: mean pause between kills
    int kills = 0;          // crash mode: kills to make (0: until the run ends)
    unsigned lock_timeout_ms = 10000;
    int read_share = 25;  // percent of series that are read-only
    int check_every = 1;  // a write series checks the whole region every n-th time
    int log_level = 4;
    double timeout_s = 0;  // the run fails when it has not ended by then (0: derived)
    bool keep = false;     // keep the temporary install directory
    std::string ipc_namespace;
};

// The parent: sets up the node, runs and kills workers, verifies, reports. Exit code.
int run_parent(const Options& o, char** argv);
// A worker process: o.threads threads of slots index * threads + t. Exit code.
int run_worker(const Options& o, int index, const std::string& control);

}  // namespace stress
