// Several real processes of one node: the region and the lock as other processes see them.
// Children are started by exec and driven through pipes (support/child.h); every wait is
// bounded.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/sandbox.h"
#include "vexshmrm.h"

namespace {

using vextest::Capacities;
using vextest::Child;
using vextest::Sandbox;

int count(const std::string& text, const std::string& what) {
    int n = 0;
    for (auto pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1))
        ++n;
    return n;
}

class Processes : public testing::Test {
  protected:
    void TearDown() override {
        while (shmrm_detach() == SHMRM_OK) {
        }
        shmrm_delete();
    }
    Sandbox sandbox;
};

TEST_F(Processes, AnAttacherSeesTheCreatorsValuesAndWritesBack) {
    ASSERT_EQ(shmrm_create(), SHMRM_OK);
    ASSERT_EQ(shmrm_setacstat(42), SHMRM_OK);
    Child child;
    ASSERT_EQ(child.rc("attach"), SHMRM_OK);
    EXPECT_EQ(child.ask("getacstat"), "0 42");
    EXPECT_EQ(child.ask("getmaxvalue"), "0 128 16 128");
    EXPECT_EQ(child.rc("setpow32port 7"), SHMRM_OK);
    int value = 0;
    EXPECT_EQ(shmrm_getpow32port(&value), SHMRM_OK);
    EXPECT_EQ(value, 7);
    EXPECT_EQ(child.rc("detach"), SHMRM_OK);
}

// The region lives exactly while some process holds it, and a killed holder holds nothing.
TEST_F(Processes, RegionEndsWithItsLastHolderHoweverItEnds) {
    for (bool killed : {false, true}) {
        SCOPED_TRACE(killed ? "holder killed" : "holder released");
        {
            Child holder;
            ASSERT_EQ(holder.rc("create"), SHMRM_OK);
            ASSERT_EQ(holder.rc("setacstat 9"), SHMRM_OK);
            ASSERT_EQ(shmrm_attach(), SHMRM_OK);  // a second holder keeps it alive
            ASSERT_EQ(shmrm_detach(), SHMRM_OK);
            if (killed) {
                holder.kill_hard();
            } else {
                ASSERT_EQ(holder.rc("delete"), SHMRM_OK);
            }
        }
        EXPECT_EQ(shmrm_attach(), SHMRM_ERR_OPENMAP);
        ASSERT_EQ(shmrm_create(), SHMRM_OK);
        int value = -1;
        EXPECT_EQ(shmrm_getacstat(&value), SHMRM_OK);
        EXPECT_EQ(value, 0) << "a new region starts zero-filled";
        EXPECT_EQ(count(sandbox.read_log(), "VexutilCreateNamedFileMapping(new)"), killed ? 4 : 2);
        ASSERT_EQ(shmrm_delete(), SHMRM_OK);
    }
}

TEST_F(Processes, CreateOnAnExistingRegionKeepsItsContentsAndRewritesCapacities) {
    Child holder;
    ASSERT_EQ(holder.rc("create"), SHMRM_OK);
    ASSERT_EQ(holder.rc("setacstat2 5"), SHMRM_OK);

    sandbox.configure(Capacities{64, 16, 100});  // smaller: fits in the existing region
    ASSERT_EQ(shmrm_create(), SHMRM_OK);
    EXPECT_EQ(count(sandbox.read_log(), "VexutilCreateNamedFileMapping(use)"), 1);
    int value = 0;
    EXPECT_EQ(shmrm_getacstat2(&value), SHMRM_OK);
    EXPECT_EQ(value, 5);
    EXPECT_EQ(holder.ask("getmaxvalue"), "0 64 16 100");
    ASSERT_EQ(shmrm_delete(), SHMRM_OK);

    // Larger capacities would reach past the end of the existing mapping.
    sandbox.configure(Capacities{256, 16, 128});
    EXPECT_EQ(shmrm_create(), SHMRM_ERR_MAPVIEW);
    EXPECT_EQ(shmrm_attach(), SHMRM_ERR_MAPVIEW);
    EXPECT_EQ(holder.ask("getmaxvalue"), "0 64 16 100") << "a refused mapping writes nothing";
    EXPECT_EQ(holder.rc("delete"), SHMRM_OK);
}

TEST_F(Processes, LockHeldByAnotherProcessTimesOut) {
    sandbox.configure(vextest::kDefaultCapacities, SHMRM_LOG_ERROR);
    ASSERT_EQ(shmrm_create(), SHMRM_OK);
    Child owner;
    ASSERT_EQ(owner.rc("rwlock 0"), SHMRM_OK);
    ASSERT_EQ(owner.rc("rolock 0"), SHMRM_OK);  // recursive
    EXPECT_EQ(shmrm_rwlock(0), SHMRM_ERR_LOCK);
    EXPECT_EQ(shmrm_rolock(50), SHMRM_ERR_LOCK);
    EXPECT_EQ(count(sandbox.read_log(), " ERROR _rwlock "), 1);
    EXPECT_EQ(count(sandbox.read_log(), "WaitForSingleObject() failed(errno:"), 2);
    ASSERT_EQ(owner.rc("rounlock"), SHMRM_OK);
    EXPECT_EQ(shmrm_rwlock(0), SHMRM_ERR_LOCK) << "still held once";
    ASSERT_EQ(owner.rc("rwunlock"), SHMRM_OK);
    EXPECT_EQ(shmrm_rwlock(0), SHMRM_OK);
    EXPECT_EQ(owner.rc("rwlock 0"), SHMRM_ERR_LOCK);
    EXPECT_EQ(shmrm_rwunlock(), SHMRM_OK);
}

// An owner that ends without releasing hands the lock to the next caller, whose wait succeeds.
TEST_F(Processes, LockOfAnEndedOwnerPassesToTheNextCaller) {
    {
        Child owner;
        ASSERT_EQ(owner.rc("rwlock 0"), SHMRM_OK);
        ASSERT_EQ(shmrm_rwlock(0), SHMRM_ERR_LOCK);
        owner.kill_hard();
    }
    EXPECT_EQ(shmrm_rwlock(0), SHMRM_OK);
    EXPECT_EQ(shmrm_rwunlock(), SHMRM_OK);

    {
        Child survivor;  // its thread ends holding the lock; the process lives on
        ASSERT_EQ(survivor.rc("lock-in-thread"), SHMRM_OK);
        EXPECT_EQ(shmrm_rwlock(SHMRM_INFINITE), SHMRM_OK);
        EXPECT_EQ(survivor.rc("rwlock 0"), SHMRM_ERR_LOCK);
        EXPECT_EQ(shmrm_rwunlock(), SHMRM_OK);
        EXPECT_EQ(survivor.rc("rwlock 0"), SHMRM_OK);
    }  // exits normally, unloading the library, still holding the lock
    EXPECT_EQ(shmrm_rwlock(0), SHMRM_OK);
    EXPECT_EQ(shmrm_rwunlock(), SHMRM_OK);
}

// Every name made from a namespace must fit, or none is used: the longest, the region lock's
// guard on POSIX systems, needs a namespace of at most 231 characters.
std::string long_namespace(std::size_t length) {
    std::string ns = std::getenv("VEX_IPC_NAMESPACE");
    return ns + "." + std::string(length - ns.size() - 1, 'n');
}

#if defined(_WIN32)
// A namespace the system cannot use for its object names makes the DLL refuse to load: the
// program that links it never runs.
TEST_F(Processes, UnusableNamespaceRefusesTheLoad) {
    for (const std::string& ns : {std::string("not/usable"), long_namespace(232)}) {
        SCOPED_TRACE(ns);
        Child child({"VEX_IPC_NAMESPACE=" + ns});
        EXPECT_EQ(child.ask("create"), "eof");
        EXPECT_NE(child.wait_exit(), 0);
    }
}
#else
// A namespace the system cannot use for its object names leaves the library loaded but unable
// to do anything, at once: every call fails, the lock calls with SHMRM_ERR_LOCK.
TEST_F(Processes, UnusableNamespaceMakesEveryCallFail) {
    for (const std::string& ns : {std::string("not/usable"), long_namespace(232),
                                  long_namespace(236), long_namespace(400)}) {
        SCOPED_TRACE(ns);
        Child child({"VEX_IPC_NAMESPACE=" + ns});
        EXPECT_EQ(child.rc("create"), SHMRM_ERR_NOTINIT);
        EXPECT_EQ(child.rc("attach"), SHMRM_ERR_NOTINIT);
        EXPECT_EQ(child.rc("getacstat"), SHMRM_ERR_NOTINIT);
        EXPECT_EQ(child.rc("rwlock 0"), SHMRM_ERR_LOCK);
        EXPECT_EQ(child.rc("rwunlock"), SHMRM_ERR_LOCK);
    }
}
#endif

TEST_F(Processes, TheLongestUsableNamespaceWorks) {
    Child child({"VEX_IPC_NAMESPACE=" + long_namespace(231)});
    EXPECT_EQ(child.rc("create"), SHMRM_OK);
    EXPECT_EQ(child.rc("rwlock 0"), SHMRM_OK);
    EXPECT_EQ(child.rc("rwunlock"), SHMRM_OK);
    EXPECT_EQ(child.rc("delete"), SHMRM_OK);
}

// Processes that create and release at the same moment: one region, made once per round.
TEST_F(Processes, SimultaneousCreatorsMakeOneRegion) {
    constexpr int kChildren = 6;
    constexpr int kRounds = 3;
    std::vector<std::unique_ptr<Child>> children;
    for (int i = 0; i < kChildren; ++i)
        children.push_back(std::make_unique<Child>());
    for (int round = 1; round <= kRounds; ++round) {
        for (auto& c : children)
            c->send("create");
        for (auto& c : children)
            EXPECT_EQ(c->reply(), "0");
        // Every creator sees the one region: a value written by one is read by all.
        ASSERT_EQ(children[0]->rc("setacstat " + std::to_string(round)), SHMRM_OK);
        for (auto& c : children)
            EXPECT_EQ(c->ask("getacstat"), "0 " + std::to_string(round));
        for (auto& c : children)
            c->send("delete");
        for (auto& c : children)
            EXPECT_EQ(c->reply(), "0");
    }
    std::string log = sandbox.read_log();
    EXPECT_EQ(count(log, "VexutilCreateNamedFileMapping(new)"), kRounds);
    EXPECT_EQ(count(log, "VexutilCreateNamedFileMapping(use)"), (kChildren - 1) * kRounds);
}

TEST_F(Processes, AttachersComingAndGoingNeverLoseTheRegion) {
    ASSERT_EQ(shmrm_create(), SHMRM_OK);
    ASSERT_EQ(shmrm_setacstat(11), SHMRM_OK);
    std::vector<std::unique_ptr<Child>> children;
    for (int i = 0; i < 4; ++i)
        children.push_back(std::make_unique<Child>());
    for (int round = 0; round < 10; ++round) {
        for (auto& c : children)
            c->send("attach");
        for (auto& c : children)
            EXPECT_EQ(c->reply(), "0");
        for (auto& c : children)
            c->send("detach");
        for (auto& c : children)
            EXPECT_EQ(c->reply(), "0");
    }
    int value = 0;
    EXPECT_EQ(shmrm_getacstat(&value), SHMRM_OK);
    EXPECT_EQ(value, 11);
}

}  // namespace
