// The region lock between threads of one process: ownership, recursion, time-outs and a lock
// left behind by a thread that ended.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

#include "shmrm_internal.h"
#include "support/fake_imports.h"
#include "support/sandbox.h"
#include "vexshmrm.h"

namespace {

using vextest::Capacities;

// Tries the lock once on another thread and leaves it free again: 0, or 14 when it is held.
int probe() {
    int result = -1;
    std::thread([&] {
        result = shmrm_rwlock(0);
        if (result == SHMRM_OK) shmrm_rwunlock();
    }).join();
    return result;
}

// A one-shot event. (std::binary_semaphore loses wake-ups in the MinGW-w64 GCC 12 runtime.)
class Signal {
  public:
    void release() {
        std::lock_guard lock(mutex_);
        set_ = true;
        cv_.notify_all();
    }
    void acquire() {
        std::unique_lock lock(mutex_);
        cv_.wait(lock, [this] { return set_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool set_ = false;
};

// Holds the lock on a thread of its own until release() or destruction.
class Holder {
  public:
    explicit Holder(int (*lock)(unsigned) = shmrm_rwlock, int (*unlock)() = shmrm_rwunlock)
        : thread_([=, this] {
              EXPECT_EQ(lock(SHMRM_INFINITE), SHMRM_OK);
              locked_.release();
              release_.acquire();
              unlock();
          }) {
        locked_.acquire();
    }
    ~Holder() { release(); }  // the thread is joined after it has unlocked
    void release() {
        if (!std::exchange(released_, true)) release_.release();
    }

  private:
    Signal locked_, release_;
    bool released_ = false;
    std::jthread thread_;
};

class LockTest : public testing::Test {
  protected:
    void TearDown() override {
        EXPECT_EQ(probe(), SHMRM_OK) << "the lock was left held";
        if (shmrm::region() != nullptr) shmrm_delete();
    }
};

// None of these needs the region: it is not mapped here.
TEST_F(LockTest, TheOwnerMayTakeTheLockAgain) {
    ASSERT_EQ(shmrm::region(), nullptr);
    EXPECT_EQ(shmrm_rolock(0), SHMRM_OK);
    EXPECT_EQ(shmrm_rolock(SHMRM_INFINITE), SHMRM_OK);
    EXPECT_EQ(probe(), SHMRM_ERR_LOCK);
    EXPECT_EQ(shmrm_rounlock(), SHMRM_OK);
    EXPECT_EQ(probe(), SHMRM_ERR_LOCK);
    EXPECT_EQ(shmrm_rounlock(), SHMRM_OK);
}

TEST_F(LockTest, UnlockingWhatIsNotHeldSucceeds) {
    EXPECT_EQ(shmrm_rounlock(), SHMRM_OK);
    EXPECT_EQ(shmrm_rwunlock(), SHMRM_OK);
    Holder other;
    EXPECT_EQ(shmrm_rwunlock(), SHMRM_OK);  // and leaves another thread's lock alone
    EXPECT_EQ(probe(), SHMRM_ERR_LOCK);
}

TEST_F(LockTest, ALockLeftByAnEndedThreadGoesToTheNextCaller) {
    std::thread([] { EXPECT_EQ(shmrm_rwlock(0), SHMRM_OK); }).join();
    EXPECT_EQ(shmrm_rolock(0), SHMRM_OK);
    EXPECT_EQ(probe(), SHMRM_ERR_LOCK);
    EXPECT_EQ(shmrm_rounlock(), SHMRM_OK);
}

TEST_F(LockTest, BothPairsTakeTheSameLock) {
    struct Row {
        int (*hold)(unsigned);
        int (*unhold)();
        int (*take)(unsigned);
    } rows[] = {{shmrm_rolock, shmrm_rounlock, shmrm_rwlock},
                {shmrm_rwlock, shmrm_rwunlock, shmrm_rolock}};
    for (const Row& row : rows) {
        Holder other(row.hold, row.unhold);
        EXPECT_EQ(row.take(0), SHMRM_ERR_LOCK);
        EXPECT_EQ(row.take(20), SHMRM_ERR_LOCK);  // waits, then gives up
    }
}

TEST_F(LockTest, AWaitEndsWhenTheHolderReleases) {
    Holder other;
    other.release();
    EXPECT_EQ(shmrm_rwlock(60000), SHMRM_OK);
    EXPECT_EQ(shmrm_rwunlock(), SHMRM_OK);
}

TEST_F(LockTest, ATimeOutIsTraced) {
    vextest::Sandbox sandbox;
    sandbox.configure(Capacities{1, 1, 1}, SHMRM_LOG_ERROR);
    vextest::FakeImports fake;  // only this thread calls while the holder waits
    ASSERT_EQ(shmrm_create(), SHMRM_OK);
    {
        Holder other;
        fake.lines.clear();
        EXPECT_EQ(shmrm_rwlock(0), SHMRM_ERR_LOCK);
    }
    ASSERT_EQ(fake.lines.size(), 1u);
    EXPECT_EQ(fake.lines[0].level, SHMRM_LOG_ERROR);
    EXPECT_EQ(fake.lines[0].tag, "_rwlock");
    EXPECT_EQ(fake.lines[0].text.rfind("WaitForSingleObject() failed(errno:", 0), 0u);
    EXPECT_EQ(shmrm_delete(), SHMRM_OK);
}

}  // namespace
