// shmrm_stress: many processes and threads on one region, optionally killed at random; proves
// that the library keeps working, loses no committed series and hands the region lock on.
#include <CLI/CLI.hpp>

#include "stress.h"

int main(int argc, char** argv) {
    stress::Options o;
    CLI::App app{
        "Runs worker processes x threads that take the region lock and change, read back and "
        "check records they alone own; with --kill-every, kills workers at random (SIGKILL) "
        "and restarts them. Verifies at the end that every committed series is in the region, "
        "the counters add up and the region passes the inspector's check."};
    app.add_option("-p,--processes", o.processes, "Worker processes")
        ->check(CLI::Range(1, 64))
        ->capture_default_str();
    app.add_option("-t,--threads", o.threads, "Threads per worker process")
        ->check(CLI::Range(1, 64))
        ->capture_default_str();
    app.add_option("-n,--series", o.series,
                   "Write series each thread completes at least (default 500 when neither "
                   "--seconds nor --kills is given)")
        ->check(CLI::NonNegativeNumber);
    app.add_option("-s,--seconds", o.seconds, "Run at least this long")
        ->check(CLI::NonNegativeNumber);
    app.add_option("--kill-every", o.kill_every_ms,
                   "Crash mode: kill a random worker (SIGKILL) about every MS milliseconds and "
                   "restart it")
        ->check(CLI::NonNegativeNumber);
    app.add_option("--kills", o.kills, "Crash mode: kills to make before the run may end")
        ->check(CLI::NonNegativeNumber);
    app.add_option("--lock-timeout", o.lock_timeout_ms,
                   "Bound of every lock wait, ms; a wait that times out fails the run")
        ->check(CLI::Range(1u, 600000u))
        ->capture_default_str();
    app.add_option("--read-share", o.read_share, "Percent of series that are read-only")
        ->check(CLI::Range(0, 100))
        ->capture_default_str();
    app.add_option("--check-every", o.check_every,
                   "Check the whole region in every n-th write series (0: only at the end)")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    app.add_option("--resources", o.params.resources, "Resource slots per group (rscmax)")
        ->check(CLI::Range(1, 64))
        ->capture_default_str();
    app.add_option("--monitors", o.params.monitors, "Monitors each thread may own")
        ->check(CLI::Range(1, 64))
        ->capture_default_str();
    app.add_option("--seed", o.params.seed, "Seed of every thread's series")->capture_default_str();
    app.add_option("--log-level", o.log_level, "The library's log level")->capture_default_str();
    app.add_option("--timeout", o.timeout_s,
                   "Fail when the run has not ended after this many seconds (default: 300 + "
                   "--seconds)")
        ->check(CLI::NonNegativeNumber);
    app.add_option("--namespace", o.ipc_namespace,
                   "IPC namespace of the node (default: a new one for this run)");
    app.add_flag("--keep", o.keep, "Keep the temporary install directory and its log");

    int index = -1;
    std::string control;
    auto* worker = app.add_subcommand("worker", "")->group("");  // started by the parent only
    worker->add_option("--index", index)->required();
    worker->add_option("--control", control)->required();

    CLI11_PARSE(app, argc, argv);
    if (o.processes * o.threads > 1000) {
        std::fprintf(stderr, "shmrm_stress: at most 1000 threads in all\n");
        return 2;
    }
    if (*worker) return stress::run_worker(o, index, control);
    if (o.series == 0 && o.seconds == 0 && o.kills == 0) o.series = 500;
    return stress::run_parent(o, argv);
}
