// The demo: a simulated node (a holder and worker processes, all this program) shown live.
#include <fmt/format.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "os.h"
#include "output.h"
#include "region.h"
#include "system.h"
#include "terminal.h"
#include "vexshmrm.h"

namespace shmrmctl {

namespace fs = std::filesystem;

namespace {

struct DemoResource {
    const char* type;
    const char* name;
};
struct DemoGroup {
    const char* name;
    std::array<DemoResource, 3> resources;
};
struct DemoMonitor {
    const char* type;
    const char* name;
};

constexpr DemoGroup kGroups[] = {
    {"web", {{{"ip", "web-vip"}, {"disk", "web-data"}, {"app", "web-server"}}}},
    {"db", {{{"ip", "db-vip"}, {"disk", "db-volume"}, {"app", "db-engine"}}}},
    {"batch", {{{"disk", "spool"}, {"app", "scheduler"}, {"app", "reporter"}}}},
};
constexpr DemoMonitor kMonitors[] = {
    {"ping", "gateway"}, {"disk", "db-volume"}, {"proc", "scheduler"}};
constexpr const char* kStates[] = {"offline", "starting", "online", "stopping"};

std::string find_example_dir(const std::string& given) {
    std::vector<fs::path> candidates;
    if (!given.empty()) candidates.emplace_back(given);
    candidates.push_back(fs::path(sys::self_path()).parent_path().parent_path() / "share" /
                         "vexshmrm" / "examples" / "install");
#ifdef SHMRMCTL_EXAMPLE_DIR
    candidates.emplace_back(SHMRMCTL_EXAMPLE_DIR);
#endif
    for (const auto& c : candidates) {
        std::error_code ec;
        if (fs::exists(c / "etc" / "vex.xml", ec)) return c.string();
        if (!given.empty()) break;
    }
    return {};
}

int setup_node() {
    Attachment attached;
    if (attached.rc() != SHMRM_OK) return attached.rc();
    RegionLock lock(RegionLock::Mode::kWrite, 5000);
    if (lock.rc() != SHMRM_OK) return lock.rc();
    int rc = SHMRM_OK;
    auto step = [&rc](int r) {
        if (rc == SHMRM_OK) rc = r;
    };
    for (const auto& g : kGroups) {
        step(shmrm_addgrp(g.name));
        step(shmrm_setgrpsv(g.name, "offline"));
        for (const auto& r : g.resources)
            step(shmrm_addrsc(g.name, r.type, r.name));
    }
    for (const auto& m : kMonitors)
        step(shmrm_addmon(m.type, m.name));
    step(shmrm_setacstat(1));
    step(shmrm_setacstat2(1));
    step(shmrm_setpow32port(5001));
    return rc;
}

// One change of a worker's share of the node, under the region lock.
void work_step(int index, int step) {
    const DemoGroup& g = kGroups[static_cast<std::size_t>(index) % std::size(kGroups)];
    const DemoMonitor& m = kMonitors[static_cast<std::size_t>(index) % std::size(kMonitors)];
    const auto& r = g.resources[static_cast<std::size_t>(step) % g.resources.size()];
    int state = 0;
    shmrm_getrscstat(g.name, r.type, r.name, &state);
    state = (state + 1) % static_cast<int>(std::size(kStates));
    shmrm_setrscstat(g.name, r.type, r.name, state);
    shmrm_setrscsv(g.name, r.type, r.name, kStates[state]);
    if (state == 2) shmrm_setrscstrtret(g.name, r.type, r.name, 0);
    if (state == 0) {
        int focnt = 0;
        shmrm_getrscfocnt(g.name, r.type, r.name, &focnt);
        shmrm_setrscfocnt(g.name, r.type, r.name, focnt + 1);
        shmrm_setrscstopret(g.name, r.type, r.name, step % 5 == 0 ? 1 : 0);
    }
    const std::string note =
        fmt::format("worker {} pid {} step {}", index, sys::process_id(), step);
    shmrm_setdescript(g.name, r.type, r.name, note.c_str(), static_cast<int>(note.size() + 1));

    shmrm_setgrpstat(g.name, state);
    shmrm_setgrpsv(g.name, kStates[state]);
    if (step % 4 == 3) {
        int retry = 0;
        shmrm_getgrpretrycnt(g.name, &retry);
        shmrm_setgrpretrycnt(g.name, retry + 1);
    }

    constexpr int kSteps[] = {1, 2, 3, 4, 0};
    shmrm_setmonprogress(m.type, m.name, kSteps[step % 5]);
    shmrm_setmonstat(m.type, m.name, state);
    shmrm_settargetpid(m.type, m.name, static_cast<int>(sys::process_id()));
    shmrm_setparentpid(m.type, m.name, static_cast<int>(sys::parent_process_id()));
    int scripts = 0;
    shmrm_getmonscriptcnt(m.type, m.name, &scripts);
    shmrm_setmonscriptcnt(m.type, m.name, static_cast<short>(scripts + 1));
    shmrm_setdescript(nullptr, m.type, m.name, note.c_str(), static_cast<int>(note.size() + 1));
    if (index == 0) shmrm_setacstat(step + 1);
}

}  // namespace

int worker(int index, double seconds, unsigned int timeout_ms) {
    sys::install_stop_handlers();
    Attachment attached;
    if (attached.rc() != SHMRM_OK) {
        std::fprintf(stderr, "shmrmctl worker %d: %s\n", index,
                     Failure{"shmrm_attach", attached.rc()}.message().c_str());
        return Failure{"shmrm_attach", attached.rc()}.exit();
    }
    const auto start = std::chrono::steady_clock::now();
    for (int step = 0; !sys::stop_requested(); ++step) {
        {
            RegionLock lock(RegionLock::Mode::kWrite, timeout_ms);
            if (lock.rc() == SHMRM_OK) work_step(index, step);
        }
        const double elapsed =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (seconds > 0 && elapsed >= seconds) break;
        sys::pause_for(0.3 + 0.15 * index);
    }
    return 0;
}

int demo(const DemoOptions& options, char** argv) {
    // The library reads the namespace when it is loaded: start again with it set (and named on
    // the command line, as the process id it was made from can change).
    const std::string ns = options.ipc_namespace.empty()
                               ? fmt::format("shmrmctl-demo-{}", sys::process_id())
                               : options.ipc_namespace;
    const char* current = std::getenv("VEX_IPC_NAMESPACE");
    if (current == nullptr || ns != current) {
        std::vector<std::string> named;
        if (options.ipc_namespace.empty()) named = {"--namespace", ns};
        const int rc = sys::run_again_with("VEX_IPC_NAMESPACE", ns, argv, named);
        // Every process of the namespace has ended, or (when the demo itself was killed) its
        // children are ending: none of its named objects may remain once they have.
        auto count = [&ns](bool report) {
            return vex::os::namespace_objects(
                ns.c_str(),
                report ? +[](const char* name, void*) {
                    std::fprintf(stderr, "shmrmctl: the demo left a named object behind: %s\n",
                                 name);
                } : +[](const char*, void*) {},
                nullptr);
        };
        for (int i = 0; i < 100 && count(false) != 0; ++i)
            vex::os::sleep_ms(50);
        const std::size_t left = count(true);
        return rc == 0 && left != 0 ? 1 : rc;
    }
    // From here a hangup, a broken pipe or a stop request ends the demo in order: its children
    // stopped, its directory removed (the children also follow this process should it die).
    sys::install_stop_handlers();
    const std::string example = find_example_dir(options.example_dir);
    if (example.empty()) {
        std::fprintf(stderr, "shmrmctl: no example install directory (etc/vex.xml) found%s\n",
                     options.example_dir.empty() ? "; give one with --example" : "");
        return 1;
    }
    std::string error;
    const std::string tmp = sys::make_temp_dir("shmrmctl-demo-", error);
    if (tmp.empty()) {
        std::fprintf(stderr, "shmrmctl: %s\n", error.c_str());
        return 1;
    }
    std::error_code ec;
    fs::copy(example, tmp, fs::copy_options::recursive, ec);
    if (ec) {
        std::fprintf(stderr, "shmrmctl: copying %s: %s\n", example.c_str(), ec.message().c_str());
        fs::remove_all(tmp, ec);
        return 1;
    }
    sys::set_env("VEX_INSTALL_PATH", tmp);
    std::printf("namespace %s\ninstall %s\n", ns.c_str(), tmp.c_str());
    std::fflush(stdout);

    int status = 0;
    sys::Child holder({"hold"}, true);
    std::vector<sys::Child> workers;
    if (!holder.started() || !holder.wait_for_line("ready", 10000)) {
        std::fprintf(stderr, "shmrmctl: the holder did not create the region\n");
        status = 1;
    } else if (const int rc = setup_node(); rc != SHMRM_OK) {
        std::fprintf(stderr, "shmrmctl: setting up the demo node: %s\n", result_name(rc).c_str());
        status = 1;
    } else {
        std::printf("holder %ld\n", holder.id());
        for (int i = 0; i < options.workers; ++i) {
            sys::Child w({"worker", "--index", std::to_string(i)}, false);
            if (w.started()) {
                std::printf("worker %ld\n", w.id());
                workers.push_back(std::move(w));
            }
        }
        std::fflush(stdout);
        if (options.once || !sys::interactive()) {
            for (int i = 1; i <= 3 && sys::pause_for(1.0); ++i) {
                std::printf("\n=== snapshot %d ===\n", i);
                if (status_command({}, options.timeout_ms) != 0) status = 1;
                std::fflush(stdout);
            }
        } else {
            WatchOptions w;
            w.interval_s = 0.5;
            w.timeout_ms = options.timeout_ms;
            w.run_for_s = options.seconds;
            status = watch(w);
        }
    }
    for (sys::Child& w : workers) {
        if (w.stop() != 0) status = 1;
    }
    if (holder.started() && holder.stop() != 0) status = 1;
    {
        Attachment left;
        if (left.rc() == SHMRM_OK) {
            std::fprintf(stderr, "shmrmctl: the region is still present after the demo\n");
            status = 1;
        }
    }
    fs::remove_all(tmp, ec);
    std::printf("stopped: %zu workers and the holder; region released\n", workers.size());
    return status;
}

}  // namespace shmrmctl
