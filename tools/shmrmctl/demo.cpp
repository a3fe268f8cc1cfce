// The demo: a simulated node (a holder and worker processes, all this program) shown live.
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "region.h"
#include "signals.h"
#include "terminal.h"
#include "vexshmrm.h"

extern char** environ;

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

std::string self_exe() {
    std::error_code ec;
    const auto p = fs::read_symlink("/proc/self/exe", ec);
    return ec ? std::string("/proc/self/exe") : p.string();
}

// A child of this program in a process group of its own (a Ctrl-C on the terminal reaches only
// the demo, which then stops its children in order), signals at their defaults.
pid_t spawn_self(const std::vector<std::string>& args, int* stdout_read) {
    const std::string exe = self_exe();
    std::vector<char*> argv{const_cast<char*>(exe.c_str())};
    for (const auto& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGINT);
    sigaddset(&defaults, SIGTERM);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setflags(
        &attr,
        static_cast<short>(POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP));
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    int fds[2] = {-1, -1};
    if (stdout_read != nullptr) {
        if (pipe2(fds, O_CLOEXEC) != 0) return -1;
        posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    }
    pid_t pid = -1;
    if (posix_spawn(&pid, exe.c_str(), &actions, &attr, argv.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    if (stdout_read != nullptr) {
        close(fds[1]);
        *stdout_read = fds[0];
    }
    return pid;
}

// Waits for a line beginning with `prefix` on `fd`, at most `timeout_ms`.
bool wait_for_line(int fd, const std::string& prefix, int timeout_ms) {
    std::string got;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (std::chrono::steady_clock::now() < end) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0) continue;
        char buf[256];
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0) return false;
        got.append(buf, static_cast<std::size_t>(n));
        if (got.rfind(prefix, 0) == 0 && got.find('\n') != std::string::npos) return true;
    }
    return false;
}

// Ends a child: SIGTERM, then SIGKILL when it has not exited in time; always reaps it.
int stop_child(pid_t pid) {
    if (pid <= 0) return -1;
    kill(pid, SIGTERM);
    int status = 0;
    for (int i = 0; i < 100; ++i) {
        if (waitpid(pid, &status, WNOHANG) == pid) {
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        usleep(50000);
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return -1;
}

std::string find_example_dir(const std::string& given) {
    std::vector<fs::path> candidates;
    if (!given.empty()) candidates.emplace_back(given);
    candidates.push_back(fs::path(self_exe()).parent_path().parent_path() / "share" / "vexshmrm" /
                         "examples" / "install");
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
    const std::string note = fmt::format("worker {} pid {} step {}", index, getpid(), step);
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
    shmrm_settargetpid(m.type, m.name, static_cast<int>(getpid()));
    shmrm_setparentpid(m.type, m.name, static_cast<int>(getppid()));
    int scripts = 0;
    shmrm_getmonscriptcnt(m.type, m.name, &scripts);
    shmrm_setmonscriptcnt(m.type, m.name, static_cast<short>(scripts + 1));
    shmrm_setdescript(nullptr, m.type, m.name, note.c_str(), static_cast<int>(note.size() + 1));
    if (index == 0) shmrm_setacstat(step + 1);
}

}  // namespace

int worker(int index, double seconds, unsigned int timeout_ms) {
    install_stop_handlers();
    Attachment attached;
    if (attached.rc() != SHMRM_OK) {
        std::fprintf(stderr, "shmrmctl worker %d: %s\n", index,
                     Failure{"shmrm_attach", attached.rc()}.message().c_str());
        return 1;
    }
    const auto start = std::chrono::steady_clock::now();
    for (int step = 0; !stop_requested(); ++step) {
        {
            RegionLock lock(RegionLock::Mode::kWrite, timeout_ms);
            if (lock.rc() == SHMRM_OK) work_step(index, step);
        }
        const double elapsed =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (seconds > 0 && elapsed >= seconds) break;
        pause_for(0.3 + 0.15 * index);
    }
    return 0;
}

int demo(const DemoOptions& options, char** argv) {
    // The library reads the namespace when it is loaded: start again with it set.
    const std::string ns = options.ipc_namespace.empty() ? fmt::format("shmrmctl-demo-{}", getpid())
                                                         : options.ipc_namespace;
    const char* current = std::getenv("VEX_IPC_NAMESPACE");
    if (current == nullptr || ns != current) {
        setenv("VEX_IPC_NAMESPACE", ns.c_str(), 1);
        execv("/proc/self/exe", argv);
        std::perror("shmrmctl: execv");
        return 1;
    }
    const std::string example = find_example_dir(options.example_dir);
    if (example.empty()) {
        std::fprintf(stderr, "shmrmctl: no example install directory (etc/vex.xml) found%s\n",
                     options.example_dir.empty() ? "; give one with --example" : "");
        return 1;
    }
    std::string tmp = (fs::temp_directory_path() / "shmrmctl-demo-XXXXXX").string();
    if (mkdtemp(tmp.data()) == nullptr) {
        std::perror("shmrmctl: mkdtemp");
        return 1;
    }
    std::error_code ec;
    fs::copy(example, tmp, fs::copy_options::recursive, ec);
    if (ec) {
        std::fprintf(stderr, "shmrmctl: copying %s: %s\n", example.c_str(), ec.message().c_str());
        fs::remove_all(tmp, ec);
        return 1;
    }
    setenv("VEX_INSTALL_PATH", tmp.c_str(), 1);
    install_stop_handlers();
    std::printf("namespace %s\ninstall %s\n", ns.c_str(), tmp.c_str());
    std::fflush(stdout);

    int status = 0;
    int holder_out = -1;
    const pid_t holder = spawn_self({"hold"}, &holder_out);
    std::vector<pid_t> workers;
    if (holder <= 0 || !wait_for_line(holder_out, "ready", 10000)) {
        std::fprintf(stderr, "shmrmctl: the holder did not create the region\n");
        status = 1;
    } else if (const int rc = setup_node(); rc != SHMRM_OK) {
        std::fprintf(stderr, "shmrmctl: setting up the demo node: %s\n", result_name(rc).c_str());
        status = 1;
    } else {
        std::printf("holder %d\n", holder);
        for (int i = 0; i < options.workers; ++i) {
            const pid_t pid = spawn_self({"worker", "--index", std::to_string(i)}, nullptr);
            if (pid > 0) {
                workers.push_back(pid);
                std::printf("worker %d\n", pid);
            }
        }
        std::fflush(stdout);
        if (options.once || !isatty(STDIN_FILENO) || !isatty(STDOUT_FILENO)) {
            for (int i = 1; i <= 3 && pause_for(1.0); ++i) {
                std::printf("\n=== snapshot %d ===\n", i);
                if (!print_status(options.timeout_ms, false)) status = 1;
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
    for (pid_t pid : workers) {
        if (stop_child(pid) != 0) status = 1;
    }
    if (holder > 0 && stop_child(holder) != 0) status = 1;
    if (holder_out >= 0) close(holder_out);
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
