// A worker process: its threads run series until the parent asks them to stop.

#include <atomic>
#include <cstdio>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "control_page.h"
#include "ledger.h"
#include "process/process.h"
#include "stress.h"
#include "text.h"
#include "vexshmrm.h"

namespace stress {

namespace {

// What a thread has done since it last told the parent.
struct Counters {
    long long writes = 0;  // write series committed
    long long reads = 0;   // read-only series
    long long checks = 0;  // checks passed
};

std::atomic<bool> g_failed{false};
std::mutex g_report_mutex;

// The region lock for one series; marks the worker as a holder on the control page.
class Held {
  public:
    Held(bool write, const Options& o, ControlPage& page, int worker)
        : write_(write), page_(page), worker_(worker) {
        const int rc = write ? shmrm_rwlock(o.lock_timeout_ms) : shmrm_rolock(o.lock_timeout_ms);
        if (rc == SHMRM_ERR_LOCK) {
            throw Failure(cat(write ? "shmrm_rwlock" : "shmrm_rolock", ": no lock within ",
                              o.lock_timeout_ms, " ms"));
        }
        need(rc, write ? "shmrm_rwlock" : "shmrm_rolock");
        page_.set_holding(worker_, true);
    }
    ~Held() {
        page_.set_holding(worker_, false);
        const int rc = write_ ? shmrm_rwunlock() : shmrm_rounlock();
        if (rc != SHMRM_OK) {
            std::fprintf(stderr, "shmrm_stress: unlock gave %s\n", result_name(rc).c_str());
            g_failed = true;
        }
    }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;

  private:
    bool write_;
    ControlPage& page_;
    int worker_;
};

class Thread {
  public:
    Thread(const Options& o, ControlPage& page, int worker, int slot)
        : o_(o),
          page_(page),
          worker_(worker),
          id_(slot),
          rng_(static_cast<std::mt19937::result_type>(
              o.params.seed * 7919u + static_cast<unsigned>(slot) * 104729u +
              static_cast<unsigned>(vex::process::self_id()))) {}

    void run() {
        try {
            write_series(true);
            const long parent = vex::process::parent_id();
            while (!g_failed) {
                if (committed_ >= o_.series && page_.stop_requested()) break;
                if (vex::process::parent_id() != parent)
                    throw Failure("the parent process is gone");
                if (static_cast<int>(rng_() % 100) < o_.read_share) {
                    read_series();
                } else {
                    write_series(false);
                }
            }
            tell();
        } catch (const Failure& f) {
            std::lock_guard lock(g_report_mutex);
            if (committed_ < 0) {
                std::fprintf(stderr, "shmrm_stress: slot %d, on start: %s\n", id_.slot, f.what());
            } else {
                std::fprintf(stderr, "shmrm_stress: slot %d, series %lld: %s\n", id_.slot,
                             committed_ + 1, f.what());
            }
            g_failed = true;
        }
    }

  private:
    // A call of a series, under the kill guard when it writes more than one word.
    int call(const Op& op) {
        if (!compound(op)) return execute(op, id_);
        if (!page_.take_guard(worker_, o_.lock_timeout_ms)) throw Failure("kill guard not free");
        const int rc = execute(op, id_);
        page_.release_guard(worker_);
        return rc;
    }

    void pass() { ++counters_.checks; }

    // Tells the parent (every so often, so that a killed process loses little of its count).
    void tell() {
        std::lock_guard report(g_report_mutex);
        std::printf("report %lld %lld %lld\n", counters_.writes, counters_.reads, counters_.checks);
        std::fflush(stdout);
        counters_ = {};
    }

    // On start: where the last series of this thread (perhaps in a killed process) left its
    // records. They must be those of its last committed series plus a prefix of the next one.
    std::size_t recover(const Series& next) {
        const auto region = shmrmctl::decode(dump_region());
        const OwnRecords got = own_in(region, id_);
        Model m = model_;
        std::string first;
        for (std::size_t j = 0; j <= next.ops.size(); ++j) {
            const std::string d = difference(expected(m, id_), got);
            if (d.empty()) {
                pass();
                return j;
            }
            if (j == 0) first = d;
            if (j < next.ops.size()) apply(m, next.ops[j], o_.params);
        }
        throw Failure(
            cat("records match no prefix of the series after the committed one; against the "
                "committed records: ",
                first));
    }

    void write_series(bool first) {
        if (first) {
            // The commit point needs no lock: only this thread writes it, and the process that
            // ran it before is gone. The records it stands for are rebuilt before locking.
            int c = 0;
            need(shmrm_getgrpfocnt(id_.group.c_str(), &c), "shmrm_getgrpfocnt");
            committed_ = c;
            model_ = replay(o_.params, id_.slot, static_cast<std::uint64_t>(c));
        }
        Held lock(true, o_, page_, worker_);
        if (settle_abandoned()) {
            int env = 0;
            need(shmrm_getgrpenv(id_.group.c_str(), &env), "shmrm_getgrpenv");
            need(shmrm_setgrpenv(id_.group.c_str(), env + 1), "shmrm_setgrpenv");
        }
        const auto seq = static_cast<int>(committed_ + 1);
        Series s = plan(model_, o_.params, id_.slot, static_cast<std::uint64_t>(seq));
        std::size_t from = 0;
        if (first) {
            from = recover(s);
            if (from > 0) {
                // Told at once: this process may be killed before it reports at its end.
                std::lock_guard report(g_report_mutex);
                std::printf("recovered %d %zu\n", id_.slot, from);
                std::fflush(stdout);
            }
        }
        begin_series(id_, seq);
        dump_region(before_);
        // A restart always checks the region it finds; the others every check_every-th time,
        // and that their own records are as they left them.
        const bool due = o_.check_every > 0 && seq % o_.check_every == 0;
        if (first || due) {
            const auto damage = shmrmctl::check(before_);
            if (!damage.empty()) throw Failure("region check: " + damage.front());
            pass();
        }
        if (due && !first) {
            const std::string d =
                difference(expected(model_, id_), own_in(shmrmctl::decode(before_), id_));
            if (!d.empty()) throw Failure("own records changed between series: " + d);
            pass();
        }
        for (std::size_t i = from; i < s.ops.size(); ++i) {
            const Op& op = s.ops[i];
            const int rc = call(op);
            if (rc != op.expect) {
                throw Failure(cat(describe(op), " gave ", result_name(rc), ", expected ",
                                  result_name(op.expect)));
            }
        }
        const std::string d = difference(expected(s.after, id_), read_own(id_));
        if (!d.empty()) throw Failure("read back: " + d);
        pass();
        dump_region(after_);
        others_of(before_, id_, others_before_);
        others_of(after_, id_, others_after_);
        if (others_before_ != others_after_)
            throw Failure("records of other owners changed while this thread held the lock");
        pass();
        commit_series(id_, seq);
        model_ = std::move(s.after);
        committed_ = seq;
        ++counters_.writes;
        if (++told_after_ % 16 == 0) tell();
    }

    void read_series() {
        Held lock(false, o_, page_, worker_);
        dump_region(before_);
        const OwnRecords got = read_own(id_);
        const std::string d = difference(expected(model_, id_), got);
        if (!d.empty()) throw Failure("read-only series: " + d);
        if (got.main->focnt != committed_ || got.main->retrycnt != committed_) {
            throw Failure(cat("ledger: committed ", got.main->focnt, " pending ",
                              got.main->retrycnt, ", expected ", committed_, " and ", committed_));
        }
        pass();
        dump_region(after_);
        if (before_ != after_) throw Failure("the region changed under the read lock");
        pass();
        ++counters_.reads;
        if (++told_after_ % 16 == 0) tell();
    }

    const Options& o_;
    ControlPage& page_;
    int worker_;
    Identity id_;
    Counters counters_;
    int told_after_ = 0;  // series since the last report
    // Region copies, kept from series to series.
    shmrmctl::Bytes before_, after_, others_before_, others_after_;
    std::mt19937 rng_;
    Model model_;
    long long committed_ = -1;  // not known before the first series
};

}  // namespace

int run_worker(const Options& o, int index, const std::string& control) {
    auto page = ControlPage::open(control);
    if (!page || index < 0 || index >= ControlPage::kMaxWorkers) {
        std::fprintf(stderr, "shmrm_stress: worker %d: no control page %s\n", index,
                     control.c_str());
        return 3;
    }
    if (const int rc = shmrm_attach(); rc != SHMRM_OK) {
        std::fprintf(stderr, "shmrm_stress: worker %d: shmrm_attach gave %s\n", index,
                     result_name(rc).c_str());
        return 3;
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < o.threads; ++t) {
        threads.emplace_back([&, t] { Thread(o, *page, index, index * o.threads + t).run(); });
    }
    for (auto& t : threads)
        t.join();
    const int rc = shmrm_detach();
    if (rc != SHMRM_OK) {
        std::fprintf(stderr, "shmrm_stress: worker %d: shmrm_detach gave %s\n", index,
                     result_name(rc).c_str());
    }
    return g_failed || rc != SHMRM_OK ? 2 : 0;
}

}  // namespace stress
