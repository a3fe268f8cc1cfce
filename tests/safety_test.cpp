// The promises that hold whatever other processes do: no export reaches outside the view this
// process mapped, however a peer rewrites the counts; the system's shared memory running out is
// a result code, never a fault; nothing of a namespace outlives its processes.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "os.h"
#include "shmrm_internal.h"
#include "support/child.h"
#include "support/sandbox.h"
#include "tables.h"
#include "vexshmrm.h"

namespace {

using vextest::Capacities;
using vextest::Child;
using vextest::Sandbox;

// The test process's own namespace, and a fresh one below it for a test's own processes.
std::string own_namespace() {
    const char* ns = std::getenv("VEX_IPC_NAMESPACE");
    return ns != nullptr ? ns : "";
}
std::string sub_namespace(const char* what) {
    static int serial = 0;
    return own_namespace() + "." + what + std::to_string(++serial);
}

std::vector<std::string> objects_of(const std::string& ns) {
    std::vector<std::string> names;
    vex::os::namespace_objects(
        ns.c_str(),
        [](const char* name, void* out) {
            static_cast<std::vector<std::string>*>(out)->push_back(name);
        },
        &names);
    return names;
}

// Calls of every export that works on a mapped region, with arguments drawn from small pools:
// names that exist, names that do not, empty and over-long ones, null; sizes that fit, do not
// fit and are negative.
class AnyCall {
  public:
    explicit AnyCall(unsigned seed) : rng_(seed) {}
    int operator()() {
        const auto& calls = table();
        // Half of the calls add or remove, so that records keep moving while counts are rewritten.
        if (rng_() % 2) return changes()[rng_() % changes().size()](*this);
        return calls[rng_() % calls.size()](*this);
    }

  private:
    // Keys of each kind: mostly ones that exist, so that the calls reach their records.
    const char* pick(std::initializer_list<const char*> keys) {
        static const std::string longer(40, 'k');
        const std::size_t i = rng_() % (keys.size() + 2);
        return i < keys.size() ? keys.begin()[i] : (i == keys.size() ? longer.c_str() : "");
    }
    const char* group() { return pick({"g0", "g1", "g2", nullptr}); }
    const char* type() { return pick({"t", "t", nullptr}); }
    const char* name() { return pick({"r0", "r1", "m0", "m1"}); }
    const char* key() { return rng_() % 2 ? name() : group(); }
    int number() {
        static const int numbers[] = {INT_MIN, -1, 0, 1, 2, 3, 14, 256, 300, INT_MAX};
        return numbers[rng_() % std::size(numbers)];
    }
    char* buffer() { return rng_() % 8 == 0 ? nullptr : buf_; }
    int* size() {
        size_ = rng_() % 2 ? static_cast<int>(sizeof buf_) : number();
        return rng_() % 8 == 0 ? nullptr : &size_;
    }

    using Call = std::function<int(AnyCall&)>;
    static const std::vector<Call>& changes() {
        static const std::vector<Call> calls = {
            [](AnyCall& a) { return shmrm_addrsc(a.group(), "t", a.name()); },
            [](AnyCall& a) { return shmrm_rmrsc(a.group(), a.type(), a.name()); },
            [](AnyCall& a) { return shmrm_addmon("t", a.name()); },
            [](AnyCall& a) { return shmrm_rmmon(a.type(), a.name()); },
            [](AnyCall& a) { return shmrm_addgrp(a.group()); },
            [](AnyCall& a) { return shmrm_rmgrp(a.group()); },
        };
        return calls;
    }
    static const std::vector<Call>& table() {
        static const std::vector<Call> calls = {
            [](AnyCall& a) { return shmrm_addgrp(a.group()); },
            [](AnyCall& a) { return shmrm_rmgrp(a.group()); },
            [](AnyCall& a) { return shmrm_enumgrp(a.buffer(), a.size()); },
            [](AnyCall& a) { return shmrm_setgrpstat(a.group(), a.number()); },
            [](AnyCall& a) { return shmrm_getgrpstat(a.group(), &a.value_); },
            [](AnyCall& a) { return shmrm_setgrpsv(a.group(), a.key()); },
            [](AnyCall& a) { return shmrm_getgrpsv(a.group(), a.buf_); },
            [](AnyCall& a) { return shmrm_setgrpflag(a.group(), 7); },
            [](AnyCall& a) { return shmrm_getgrpfocnt(a.group(), &a.value_); },
            [](AnyCall& a) { return shmrm_addrsc(a.group(), a.type(), a.name()); },
            [](AnyCall& a) { return shmrm_rmrsc(a.group(), a.type(), a.name()); },
            [](AnyCall& a) { return shmrm_enumrsc(a.group(), a.buffer(), a.size()); },
            [](AnyCall& a) { return shmrm_setrscstat(a.group(), a.type(), a.name(), a.number()); },
            [](AnyCall& a) {
                return shmrm_getrscstopret(a.group(), a.type(), a.name(), &a.value_);
            },
            [](AnyCall& a) { return shmrm_setrscsv(a.group(), a.type(), a.name(), a.key()); },
            [](AnyCall& a) { return shmrm_getrscsv(a.group(), a.type(), a.name(), a.buf_); },
            [](AnyCall& a) {
                return shmrm_setrscfree(a.group(), a.type(), a.name(), a.buf_, a.number());
            },
            [](AnyCall& a) {
                return shmrm_getrscfree(a.group(), a.type(), a.name(), a.buffer(), a.size());
            },
            [](AnyCall& a) { return shmrm_getrscgrp(a.buf_, a.type(), a.name()); },
            [](AnyCall& a) { return shmrm_getrscinfo(a.buf_, a.buf_ + 64, a.name()); },
            [](AnyCall& a) { return shmrm_addmon(a.type(), a.name()); },
            [](AnyCall& a) { return shmrm_rmmon(a.type(), a.name()); },
            [](AnyCall& a) { return shmrm_enummon(a.buffer(), a.size()); },
            [](AnyCall& a) { return shmrm_setmonstat(a.type(), a.name(), a.number()); },
            [](AnyCall& a) { return shmrm_getmonscriptcnt(a.type(), a.name(), &a.value_); },
            [](AnyCall& a) { return shmrm_getmoninfo(a.buf_, a.name()); },
            [](AnyCall& a) { return shmrm_setmonprogress(a.type(), a.name(), a.number()); },
            [](AnyCall& a) {
                unsigned t3 = 0, t4 = 0;
                return shmrm_getmonprogress(a.type(), a.name(), &a.value_, &t3, &t4);
            },
            [](AnyCall& a) {
                return shmrm_setdescript(a.group(), a.type(), a.name(), a.buf_, a.number());
            },
            [](AnyCall& a) {
                return shmrm_getdescript(a.group(), a.type(), a.name(), a.buf_, a.size());
            },
            [](AnyCall&) {
                int g = 0, r = 0, m = 0;
                return shmrm_getmaxvalue(&g, &r, &m);
            },
            [](AnyCall& a) { return shmrm_setmaxvalue(a.number(), a.number(), a.number()); },
            [](AnyCall& a) { return shmrm_setacstat(a.number()); },
            [](AnyCall& a) {
                return shmrm_dump(a.rng_() % 2 ? nullptr : a.dump_.data(), a.size());
            },
            [](AnyCall&) { return shmrm_clear(); },
        };
        return calls;
    }

    std::mt19937 rng_;
    char buf_[1024] = {};
    int size_ = 0;
    int value_ = 0;
    std::vector<char> dump_ = std::vector<char>(1 << 16);
};

// 3 groups of 2 slots and 14 monitors: exactly three pages, so the inaccessible pages around
// the view begin right where the region ends.
constexpr Capacities kPageSized{3, 2, 14};
static_assert(shmrm::geometry(kPageSized)->size % 4096 == 0);

// A peer rewrites every count and capacity with extreme and random values, without the lock, as
// fast as it can, while this process calls every export: not one access leaves the view (which
// sits between inaccessible pages), and under AddressSanitizer no copy has a wild length.
TEST(RacingWriter, NoExportLeavesTheRegion) {
    Sandbox sandbox;
    sandbox.configure(kPageSized);
    ASSERT_EQ(shmrm_create(), SHMRM_OK);
    for (const char* g : {"g0", "g1", "g2"}) {
        ASSERT_EQ(shmrm_addgrp(g), SHMRM_OK);
        ASSERT_EQ(shmrm_addrsc(g, "t", "r0"), SHMRM_OK);
        ASSERT_EQ(shmrm_addrsc(g, "t", "r1"), SHMRM_OK);
    }
    for (const char* m : {"m0", "m1"})
        ASSERT_EQ(shmrm_addmon("t", m), SHMRM_OK);

    vextest::RunResult peer;
    std::atomic<bool> peer_done{false};
    std::thread scrambling([&] {
        peer = vextest::run({VEX_SCRAMBLER_EXE, "1500", "7"});
        peer_done = true;
    });
    AnyCall any(11);
    long calls = 0;
    std::vector<int> seen(32);  // by result code; 31: any other
    while (!peer_done) {        // the peer runs for 1.5 s
        for (int i = 0; i < 200; ++i, ++calls) {
            const int rc = any();
            ++seen[rc >= 0 && rc < 32 ? static_cast<std::size_t>(rc) : 31];
        }
    }
    scrambling.join();
    EXPECT_EQ(peer.status, 0) << peer.err;
    EXPECT_GT(std::atol(peer.out.c_str()), 1000) << "rounds of the peer";
    EXPECT_GT(calls, 200);  // tens of thousands natively; far fewer under an emulator
    RecordProperty("calls", std::to_string(calls));
    EXPECT_EQ(seen[31] + seen[15] + seen[16], 0) << "results outside the table";
    EXPECT_EQ(shmrm_delete(), SHMRM_OK);
}

// A process configured for fewer groups than the region was made with: it says so in the log,
// writes its own capacities as it must, and still reaches every group inside its view.
TEST(DifferentCapacities, AnAttacherSeesEveryGroupItMappedAndSaysSo) {
    Sandbox sandbox;
    sandbox.configure(Capacities{4, 2, 4});
    ASSERT_EQ(shmrm_create(), SHMRM_OK);
    for (const char* g : {"a", "b", "c", "d"})
        ASSERT_EQ(shmrm_addgrp(g), SHMRM_OK);
    Sandbox smaller;
    smaller.configure(Capacities{2, 2, 4});
    {
        Child attacher({"VEX_INSTALL_PATH=" + smaller.path()});
        ASSERT_EQ(attacher.rc("attach"), SHMRM_OK);
        EXPECT_EQ(attacher.ask("enumgrp"), "0 a,b,c,d");
        EXPECT_EQ(attacher.ask("getmaxvalue"), "0 2 2 4");
    }
    EXPECT_NE(smaller.read_log().find("WARNING _attach region.cpp:"), std::string::npos);
    EXPECT_NE(smaller.read_log().find("region capacities(group:4, resource:2, monitor:4) differ "
                                      "from the configured ones(group:2, resource:2, monitor:4)"),
              std::string::npos)
        << smaller.read_log();
    EXPECT_EQ(shmrm_delete(), SHMRM_OK);
}

// Which header capacities a mapping call finds worth a warning: any that differ from its own,
// except a cleared header, where all three are 0.
TEST(DifferentCapacities, EveryDifferenceIsWarnedOfAndAClearedHeaderIsNot) {
    Sandbox sandbox;
    sandbox.configure(Capacities{2, 2, 2});
    ASSERT_EQ(shmrm_create(), SHMRM_OK);
    Child holder;  // keeps the region while this process maps it again
    ASSERT_EQ(holder.rc("attach"), SHMRM_OK);
    const struct {
        int grpmax, rscmax, monmax;
        bool warned;
    } rows[] = {{2, 2, 2, false}, {0, 0, 0, false}, {0, 0, 2, true},
                {1, 2, 2, true},  {2, 3, 2, true},  {2, 2, 1, true}};
    const std::string warning = "WARNING _create";
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.grpmax) + "," + std::to_string(row.rscmax) + "," +
                     std::to_string(row.monmax));
        rmhead* h = shmrm::head(shmrm::region());
        shmrm::store(h->grpmax, row.grpmax);
        shmrm::store(h->rscmax, row.rscmax);
        shmrm::store(h->monmax, row.monmax);
        ASSERT_EQ(shmrm_delete(), SHMRM_OK);
        std::remove(sandbox.log_path().c_str());
        ASSERT_EQ(shmrm_create(), SHMRM_OK);
        EXPECT_EQ(sandbox.read_log().find(warning) != std::string::npos, row.warned)
            << sandbox.read_log();
    }
    EXPECT_EQ(shmrm_delete(), SHMRM_OK);
}

// A removal moves records only inside the count it is given, whatever position it is asked for.
TEST(RemoveRecord, APositionOutsideTheCountMovesNothing) {
    unsigned char records[4] = {1, 2, 3, 4};
    for (const int at : {-1, 3, 4}) {
        shmrm::remove_record(records, 1, at, 3);
        EXPECT_EQ(std::vector<unsigned char>(records, records + 4),
                  (std::vector<unsigned char>{1, 2, 3, 4}));
    }
    shmrm::remove_record(records, 1, 1, 3);
    EXPECT_EQ(std::vector<unsigned char>(records, records + 4),
              (std::vector<unsigned char>{1, 3, 0, 4}));
}

#if !defined(_WIN32)
// The system's shared memory, a private 1 MiB of it, runs out: making an object that cannot be
// backed fails at once with its result code and the system's error, and no process faults.
TEST(FullSharedMemory, IsAResultCodeNeverAFault) {
    if (vextest::run({"/usr/bin/unshare", "-m", "true"}).status != 0)
        GTEST_SKIP() << "no private mount namespace here (unshare -m needs root)";
    Sandbox sandbox;
    const struct {
        const char* what;
        Capacities caps;
        const char* fill;  // shell commands run after the private /dev/shm is mounted
        const char* commands;
        const char* replies;
        const char* error;  // on standard error, "" for none
        int refusals;       // log lines that say the system could not back the region
    } rows[] = {
        // Five attempts and the final word, each with the system's error: no space left.
        {"a region of 1.9 MB", vextest::kDefaultCapacities, "", "create\nrwlock 0\nrwunlock\n",
         "6\n0\n0\n", "", 6},
        {"a region that fits", Capacities{4, 2, 4}, "",
         "create\nclear\nsetmaxvalue 4 2 4\naddgrp a\nenumgrp\ndelete\n", "0\n0\n0\n0\n0 a\n0\n",
         "", 0},
        {"no room for the region lock", vextest::kDefaultCapacities,
         "head -c 2M /dev/zero > /dev/shm/fill;", "create\nrwlock 0\n", "1\n14\n",
         "the region lock", 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        sandbox.configure(row.caps);
        std::remove(sandbox.log_path().c_str());
        const std::string script = std::string("mount -t tmpfs -o size=1m tmpfs /dev/shm && ") +
                                   row.fill + " printf '" + row.commands + "' | " + VEX_CHILD_EXE +
                                   "; echo exit $?";
        const vextest::RunResult r = vextest::run({"/usr/bin/unshare", "-m", "sh", "-c", script});
        EXPECT_EQ(r.out, std::string(row.replies) + "exit 0\n") << r.err;
        if (*row.error != '\0') {
            EXPECT_NE(r.err.find(row.error), std::string::npos) << r.err;
        }
        const std::string log = sandbox.read_log();
        int refusals = 0;
        const std::string refusal =
            "VexutilCreateNamedFileMapping failed(errno:" + std::to_string(ENOSPC) + ")";
        for (auto at = log.find(refusal); at != std::string::npos; at = log.find(refusal, at + 1))
            ++refusals;
        EXPECT_EQ(refusals, row.refusals) << log;
    }
}
#endif

// Processes of one namespace come and go, each loading the library, creating or attaching,
// taking the lock, releasing and ending, several at a time: the lock always excludes (they
// never use two different lock objects), and once the last has ended nothing is left.
TEST(NothingLeftBehind, ProcessesComingAndGoing) {
    Sandbox sandbox;
    sandbox.configure(Capacities{2, 1, 2});
    const std::string ns = sub_namespace("cycle");
    const std::string marker = sandbox.path() + "/inside";
    constexpr int kLoops = 4, kRounds = 25;
    std::vector<std::string> faults[kLoops];
    std::vector<std::thread> loops;
    for (int l = 0; l < kLoops; ++l) {
        loops.emplace_back([&, l] {
            for (int round = 0; round < kRounds; ++round) {
                Child child({"VEX_IPC_NAMESPACE=" + ns});
                const bool creator = (round + l) % 2 == 0;
                const int rc = child.rc(creator ? "create" : "attach");
                if (rc != SHMRM_OK && (creator || rc != SHMRM_ERR_OPENMAP))
                    faults[l].push_back("mapping: " + std::to_string(rc));
                const std::string inside = child.ask("critical " + marker);
                if (inside != "0") faults[l].push_back("critical: " + inside);
                if (rc == SHMRM_OK && child.rc(creator ? "delete" : "detach") != SHMRM_OK)
                    faults[l].push_back("release");
            }
        });
    }
    for (auto& t : loops)
        t.join();
    for (const auto& f : faults)
        EXPECT_TRUE(f.empty()) << f.front();
    EXPECT_EQ(objects_of(ns), std::vector<std::string>{});
}

// Every holder of a namespace killed: the region, the lock and their guards stay until they are
// found unused, by the next process of the namespace (one that only loads the library is
// enough) or by the platform's sweep of the namespace.
TEST(NothingLeftBehind, WhatKilledProcessesLeftGoesWithTheNext) {
    Sandbox sandbox;
    sandbox.configure(Capacities{2, 1, 2});
    const struct {
        const char* what;
        std::function<void(const std::string&)> next;
    } rows[] = {
        {"the next process",
         [](const std::string& ns) {
             EXPECT_EQ(vextest::run({VEX_CHILD_EXE}, {"VEX_IPC_NAMESPACE=" + ns}).status, 0);
         }},
        {"the sweep", [](const std::string& ns) { vex::os::sweep_namespace(ns.c_str()); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const std::string ns = sub_namespace("killed");
        {
            Child holder({"VEX_IPC_NAMESPACE=" + ns});
            ASSERT_EQ(holder.rc("create"), SHMRM_OK);
            ASSERT_EQ(holder.rc("rwlock 0"), SHMRM_OK);
            holder.kill_hard();
        }
#if !defined(_WIN32)
        EXPECT_EQ(objects_of(ns).size(), 4u);  // the region, the lock and a guard each
#endif
        row.next(ns);
        EXPECT_EQ(objects_of(ns), std::vector<std::string>{});
    }
}

}  // namespace
