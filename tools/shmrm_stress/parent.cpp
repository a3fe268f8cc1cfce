// The parent: a node in a temporary install directory, the workers, the killer, the verdict.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <vector>

#include "control_page.h"
#include "ledger.h"
#include "os.h"
#include "process/process.h"
#include "stress.h"
#include "text.h"
#include "vexshmrm.h"

namespace stress {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

struct Totals {
    long long writes = 0, reads = 0, checks = 0;  // reported by workers that were not killed
    long long recovered = 0;  // restarts that found a prefix of a series applied
    long long takeovers = 0;  // series of a dead holder settled (counted in the region)
    long long kills = 0, kills_holding = 0, cut_short = 0;
};

using vex::process::Process;
using vex::process::Read;

struct Worker {
    Process child;
    std::string output;
    bool open = true;
    bool done = false;
};

std::string load_average() {
    std::ifstream in("/proc/loadavg");
    std::string one;
    in >> one;
    return one.empty() ? "?" : one;
}

void add_report(const std::string& text, Totals& t) {
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream in(line);
        std::string word;
        in >> word;
        long long writes = 0, reads = 0, checks = 0;
        if (word == "recovered") ++t.recovered;
        if (word == "report" && in >> writes >> reads >> checks) {
            t.writes += writes;
            t.reads += reads;
            t.checks += checks;
        }
    }
}

class Run {
  public:
    Run(const Options& o, std::string dir) : o_(o), dir_(std::move(dir)) {}

    void fail(const std::string& what) {
        std::fprintf(stderr, "shmrm_stress: %s\n", what.c_str());
        failures_.push_back(what);
    }
    bool failed() const { return !failures_.empty(); }

    bool set_up() {
        std::ofstream(dir_ + "/etc/vex.xml")
            << cat("<root>\n  <all><num><group>", 2 * slots(), "</group><resource>",
                   o_.params.resources, "</resource><monitor>", slots() * o_.params.monitors,
                   "</monitor></num></all>\n  <shmrm><log><level>", o_.log_level,
                   "</level><size>1000000</size></log></shmrm>\n</root>\n");
        setenv("VEX_INSTALL_PATH", dir_.c_str(), 1);
        if (const int rc = shmrm_create(); rc != SHMRM_OK) {
            fail("shmrm_create gave " + result_name(rc));
            return false;
        }
        created_ = true;
        try {
            need(shmrm_rwlock(o_.lock_timeout_ms), "shmrm_rwlock");
            for (int s = 0; s < slots(); ++s)
                need(shmrm_addgrp(Identity(s).group.c_str()), "shmrm_addgrp");
            need(shmrm_setacstat(1), "shmrm_setacstat");
            need(shmrm_setacstat2(kNoSeries), "shmrm_setacstat2");
            need(shmrm_setpow32port(1), "shmrm_setpow32port");
            need(shmrm_rwunlock(), "shmrm_rwunlock");
        } catch (const Failure& f) {
            fail(std::string("setting up the node: ") + f.what());
            return false;
        }
        page_ = ControlPage::create(dir_ + "/control");
        if (!page_) fail("cannot make the control page");
        return page_ != nullptr;
    }

    void run() {
        workers_.resize(static_cast<std::size_t>(o_.processes));
        for (int w = 0; w < o_.processes; ++w)
            start(w);
        start_ = Clock::now();
        const double limit = o_.timeout_s > 0 ? o_.timeout_s : 300 + o_.seconds;
        auto next_kill = start_ + pause();
        bool stopping = false;
        while (!all_done()) {
            collect(2);
            const auto now = Clock::now();
            if (!stopping && (failed() || may_stop(now))) {
                page_->request_stop();
                stopping = true;
            }
            const bool killing =
                o_.kill_every_ms > 0 && (o_.kills == 0 || totals_.kills < o_.kills);
            if (!stopping && killing && now >= next_kill) {
                kill_one();
                next_kill = Clock::now() + pause();
            }
            if (std::chrono::duration<double>(now - start_).count() > limit) {
                fail(cat("the run has not ended after ", limit, " s"));
                for (auto& w : workers_) {
                    if (w.done) continue;
                    w.child.kill();
                    (void)w.child.wait(10000);
                    w.done = true;
                }
            }
        }
        seconds_ = std::chrono::duration<double>(Clock::now() - start_).count();
    }

    // The region once every worker has ended: every thread's records are those of its last
    // committed series, the counters add up, the region passes the check.
    void verify() {
        try {
            need(shmrm_rwlock(o_.lock_timeout_ms), "shmrm_rwlock");
            if (settle_abandoned()) ++totals_.takeovers;  // the last holder was killed
            const shmrmctl::Bytes bytes = dump_region();
            need(shmrm_rwunlock(), "shmrm_rwunlock");
            damage_ = shmrmctl::check(bytes);
            for (const auto& d : damage_)
                fail("region check: " + d);
            const auto snap = shmrmctl::decode(bytes);
            std::size_t groups = 0, monitors = 0;
            for (int s = 0; s < slots(); ++s) {
                const Identity id(s);
                const OwnRecords own = own_in(snap, id);
                if (!own.main) {
                    fail(cat("slot ", s, ": its group is gone"));
                    continue;
                }
                const long long c = own.main->focnt;
                committed_ += c;
                const std::string d = difference(
                    expected(replay(o_.params, s, static_cast<std::uint64_t>(c)), id), own);
                if (!d.empty()) fail(cat("slot ", s, ", after series ", c, ": ", d));
                if (c < o_.series)
                    fail(cat("slot ", s, ": ", c, " series committed of ", o_.series));
                totals_.takeovers += own.main->env;
                groups += own.scratch ? 2u : 1u;
                monitors += own.monitors.size();
                totals_.checks += 2;
            }
            if (groups != snap.groups.size() || monitors != snap.monitors.size()) {
                fail(cat("the region holds ", snap.groups.size(), " groups and ",
                         snap.monitors.size(), " monitors, its owners ", groups, " and ",
                         monitors));
            }
            acstat_ = snap.header.acstat;
            if (acstat_ - 1 != committed_) {
                fail(cat("acstat ", acstat_, " counts ", acstat_ - 1,
                         " series; the threads committed ", committed_));
            }
            if (snap.header.acstat2 != kNoSeries)
                fail(cat("acstat2 ", snap.header.acstat2, ": a series is still marked under way"));
            if (o_.kill_every_ms == 0 && totals_.writes != committed_) {
                fail(cat("the workers report ", totals_.writes, " series, the region holds ",
                         committed_));
            }
            totals_.checks += 3;
        } catch (const Failure& f) {
            fail(std::string("verifying: ") + f.what());
        }
    }

    void report() const {
        const double rate =
            seconds_ > 0 ? static_cast<double>(committed_ + totals_.reads) / seconds_ : 0;
        std::printf("shmrm_stress: %d processes x %d threads, %.1f s, load average %s\n",
                    o_.processes, o_.threads, seconds_, load_average().c_str());
        // A killed worker's last few series and checks were never reported.
        const char* least = o_.kill_every_ms > 0 ? "at least " : "";
        std::printf("  series   %lld committed (acstat %d), %s%lld read-only\n", committed_,
                    acstat_, least, totals_.reads);
        std::printf("  rate     %.0f locked series/s\n", rate);
        std::printf("  checks   %s%lld passed\n", least, totals_.checks);
        if (o_.kill_every_ms > 0) {
            std::printf(
                "  kills    %lld survived: %lld of a lock holder, %lld cut a write series "
                "short; %lld takeovers of a dead holder's series; %lld restarts "
                "completed a series found partly applied\n",
                totals_.kills, totals_.kills_holding, totals_.cut_short, totals_.takeovers,
                totals_.recovered);
        }
        std::printf("  region   %s\n", damage_.empty() ? "check ok" : "check FAILED");
        std::printf("%s\n", failures_.empty() ? "ok" : "FAILED");
        std::fflush(stdout);
    }

    void tear_down() {
        if (created_) {
            if (const int rc = shmrm_delete(); rc != SHMRM_OK)
                fail("shmrm_delete gave " + result_name(rc));
        }
        page_.reset();
    }

  private:
    int slots() const { return o_.processes * o_.threads; }

    std::chrono::milliseconds pause() {
        std::uniform_int_distribution<int> d(o_.kill_every_ms / 2 + 1,
                                             o_.kill_every_ms * 3 / 2 + 1);
        return std::chrono::milliseconds(d(rng_));
    }

    bool may_stop(Clock::time_point now) {
        if (std::chrono::duration<double>(now - start_).count() < o_.seconds) return false;
        if (o_.kill_every_ms == 0) return true;
        if (o_.kills > 0) return totals_.kills >= o_.kills;
        // Killing with no quota goes on until every thread has its series.
        for (int s = 0; s < slots(); ++s) {
            int c = 0;
            if (shmrm_getgrpfocnt(Identity(s).group.c_str(), &c) != SHMRM_OK || c < o_.series)
                return false;
        }
        return true;
    }

    void start(int w) {
        std::vector<std::string> args{"--threads",       std::to_string(o_.threads),
                                      "--series",        std::to_string(o_.series),
                                      "--seed",          std::to_string(o_.params.seed),
                                      "--resources",     std::to_string(o_.params.resources),
                                      "--monitors",      std::to_string(o_.params.monitors),
                                      "--lock-timeout",  std::to_string(o_.lock_timeout_ms),
                                      "--read-share",    std::to_string(o_.read_share),
                                      "--check-every",   std::to_string(o_.check_every),
                                      "worker",          "--index",
                                      std::to_string(w), "--control",
                                      dir_ + "/control"};
        Worker& worker = workers_[static_cast<std::size_t>(w)];
        worker = Worker{};
        worker.child = Process::start_self(
            args, {{}, vex::process::Stream::inherit, vex::process::Stream::pipe});
        if (!worker.child.started()) {
            fail(cat("worker ", w, " cannot be started"));
            worker.done = true;
        }
    }

    bool all_done() const {
        for (const auto& w : workers_)
            if (!w.done) return false;
        return true;
    }

    void finish(Worker& w, int status, int index) {
        w.done = true;
        w.child.close_output();
        add_report(w.output, totals_);
        if (status != 0) fail(cat("worker ", index, " ended with status ", status));
    }

    // Reads the workers' output and reaps those that ended.
    void collect(int wait_ms) {
        std::vector<Process*> reading;
        for (auto& w : workers_)
            if (w.open && !w.done) reading.push_back(&w.child);
        vex::process::wait_output(reading, wait_ms);
        for (std::size_t i = 0; i < workers_.size(); ++i) {
            Worker& w = workers_[i];
            if (w.done) continue;
            if (w.open) w.open = w.child.read(w.output, 0) != Read::end;
            if (auto exit = w.child.wait(0)) {
                // Take what it wrote last.
                if (w.open) drain(w.child, w.output);
                finish(w, exit->status(), static_cast<int>(i));
            }
        }
    }

    // What an ended worker wrote last, waiting at most a few seconds for the end of it.
    static void drain(Process& child, std::string& into) {
        for (int tries = 0; tries < 50 && child.read(into, 100) != Read::end; ++tries) {
        }
    }

    void kill_one() {
        std::vector<int> live, holders;
        for (int w = 0; w < o_.processes; ++w) {
            if (workers_[static_cast<std::size_t>(w)].done) continue;
            live.push_back(w);
            if (page_->holding(w)) holders.push_back(w);
        }
        if (live.empty()) return;
        // Half of the kills aim at the lock's holder, when one is marked.
        const auto& from = !holders.empty() && rng_() % 2 == 0 ? holders : live;
        const int v = from[rng_() % from.size()];
        Worker& w = workers_[static_cast<std::size_t>(v)];
        if (!page_->take_guard(v, o_.lock_timeout_ms)) {
            fail(cat("worker ", v, " kept its kill guard for ", o_.lock_timeout_ms, " ms"));
            return;
        }
        const bool holding = page_->holding(v);
        w.child.kill();
        const auto exit = w.child.wait(10000);
        page_->set_holding(v, false);
        page_->release_guard(v);
        if (!exit) {
            fail(cat("worker ", v, " did not end after SIGKILL"));
            return;
        }
        if (exit->status() != 128 + 9) {  // it had ended by itself
            finish(w, exit->status(), v);
            return;
        }
        // What it wrote before it died, then its threads' ledgers: a pending mark ahead of the
        // commit is a write series the kill cut short.
        drain(w.child, w.output);
        add_report(w.output, totals_);
        w.child.close_output();
        for (int t = 0; t < o_.threads; ++t) {
            const Identity id(v * o_.threads + t);
            int c = 0, p = 0;
            if (shmrm_getgrpfocnt(id.group.c_str(), &c) == SHMRM_OK &&
                shmrm_getgrpretrycnt(id.group.c_str(), &p) == SHMRM_OK && c != p &&
                cut_short_[static_cast<std::size_t>(id.slot)] != p) {
                cut_short_[static_cast<std::size_t>(id.slot)] = p;  // once per series
                ++totals_.cut_short;
            }
        }
        ++totals_.kills;
        totals_.kills_holding += holding ? 1 : 0;
        start(v);
    }

    const Options& o_;
    std::string dir_;
    std::unique_ptr<ControlPage> page_;
    std::vector<Worker> workers_;
    std::vector<std::string> failures_;
    std::vector<std::string> damage_;
    std::vector<int> cut_short_ = std::vector<int>(static_cast<std::size_t>(slots()), 0);
    Totals totals_;
    std::mt19937 rng_{static_cast<std::mt19937::result_type>(vex::process::self_id())};
    Clock::time_point start_;
    double seconds_ = 0;
    long long committed_ = 0;
    int acstat_ = 0;
    bool created_ = false;
};

}  // namespace

int run_parent(const Options& o, char** argv) {
    // The library reads the namespace when it is loaded: run again with it set, as a child, so
    // that this process lets go of what it loaded under the first one.
    const std::string ns =
        o.ipc_namespace.empty() ? cat("shmrm-stress-", vex::process::self_id()) : o.ipc_namespace;
    const char* current = std::getenv("VEX_IPC_NAMESPACE");
    if (current == nullptr || ns != current) {
        // The namespace goes on the command line too: the child's process id is another.
        std::vector<std::string> args;
        for (char** a = argv + 1; *a != nullptr; ++a)
            args.emplace_back(*a);
        if (o.ipc_namespace.empty()) args.insert(args.end(), {"--namespace", ns});
        Process again = Process::start_self(args, {{"VEX_IPC_NAMESPACE=" + ns}});
        const auto exit = again.wait(-1);
        return exit && exit->status() >= 0 ? exit->status() : 1;
    }
    std::string dir = (fs::temp_directory_path() / "shmrm-stress-XXXXXX").string();
    if (mkdtemp(dir.data()) == nullptr) {
        std::perror("shmrm_stress: mkdtemp");
        return 1;
    }
    std::error_code ec;
    fs::create_directories(dir + "/etc", ec);
    Run run(o, dir);
    if (run.set_up()) {
        run.run();
        run.verify();
    }
    run.tear_down();
    run.report();
    vex::os::sweep_namespace(ns.c_str());  // what killed workers left
    if (o.keep) {
        std::printf("kept %s\n", dir.c_str());
    } else {
        fs::remove_all(dir, ec);
    }
    return run.failed() ? 1 : 0;
}

}  // namespace stress
