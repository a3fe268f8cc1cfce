// The library frame: trace conventions and levels, the log's configuration and lifetime, and a
// load that cannot obtain the region lock.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "shmrm_internal.h"
#include "support/fake_imports.h"
#include "support/sandbox.h"
#include "vexshmrm.h"
#include "vexxml.h"

namespace {

using vextest::Capacities;
using vextest::FakeImports;
using vextest::Sandbox;
using vextest::TraceLine;

class FrameTest : public testing::Test {
  protected:
    void SetUp() override { sandbox_.configure(Capacities{4, 2, 8}, 32); }
    void TearDown() override {
        if (shmrm::region() != nullptr) shmrm_delete();
        shmrm::log_close();
        vex::xmllib_term();
    }
    Sandbox sandbox_;
    FakeImports fake_;
};

TEST_F(FrameTest, EveryExportIsBracketedByEnterAndExit) {
    const std::tuple<const char*, int (*)(), const char*> rows[] = {
        {"_setacstat", [] { return shmrm_setacstat(3); }, "<<< EXIT >>> : 0x00000000"},
        {"_dump", [] { return shmrm_dump(nullptr, nullptr); }, "<<< EXIT >>> : 0x00000002"},
        {"_rwlock", [] { return shmrm_rwlock(0); }, "<<< EXIT >>> : 0x0000000e"},
        {"_delete", shmrm_delete, "<<< EXIT >>> : 0x00000000"},
    };
    ASSERT_EQ(shmrm_create(), SHMRM_OK);
    fake_.fail("wait_mutex", 258, 5);
    for (const auto& [tag, call, exit] : rows) {
        SCOPED_TRACE(tag);
        fake_.lines.clear();
        call();
        ASSERT_GE(fake_.lines.size(), 2u);
        EXPECT_EQ(fake_.lines.front(), (TraceLine{SHMRM_LOG_FUNC, tag, "<<< ENTER >>>"}));
        EXPECT_EQ(fake_.lines.back(), (TraceLine{SHMRM_LOG_FUNC, tag, exit}));
        for (const TraceLine& line : fake_.lines)
            EXPECT_EQ(line.tag, tag);
    }
}

TEST_F(FrameTest, OnlyLinesUpToTheLogLevelAreWritten) {
    const std::pair<int, std::set<int>> rows[] = {
        {1, {1}}, {4, {1, 4}}, {16, {1, 4, 16}}, {32, {1, 4, 16}}};
    for (const auto& [level, seen] : rows) {
        SCOPED_TRACE(level);
        sandbox_.configure(Capacities{4, 2, 8}, level);
        FakeImports fake;
        ASSERT_EQ(shmrm_create(), SHMRM_OK);
        EXPECT_EQ(shmrm_setacstat(0), SHMRM_ERR_PARAM);  // an error line
        ASSERT_EQ(shmrm_delete(), SHMRM_OK);
        std::set<int> levels;
        for (const TraceLine& line : fake.lines)
            levels.insert(line.level);
        EXPECT_EQ(levels, seen);
    }
}

TEST_F(FrameTest, LogSettingsFallBackToDefaults) {
    const std::tuple<const char*, int, int> rows[] = {
        {"", 4, 1000000},
        {"<shmrm/>", 4, 1000000},
        {"<shmrm><log><level>8</level></log></shmrm>", 8, 1000000},
        {"<shmrm><log><level>8</level><size>5000</size></log></shmrm>", 8, 5000},
    };
    for (const auto& [policy, level, size] : rows) {
        SCOPED_TRACE(policy);
        sandbox_.write_config(std::string("<root>") + policy + "</root>");
        FakeImports fake;
        ASSERT_EQ(shmrm_create(), SHMRM_OK);
        EXPECT_EQ(fake.open_level, level);
        EXPECT_EQ(fake.open_size, size);
        ASSERT_EQ(shmrm_delete(), SHMRM_OK);
    }
}

TEST_F(FrameTest, TheLogIsOpenExactlyWhileTheRegionIsMapped) {
    ASSERT_EQ(shmrm_create(), SHMRM_OK);
    fake_.calls.clear();
    shmrm::log_open();  // already open: neither the XML library nor the log is touched again
    EXPECT_TRUE(fake_.calls.empty());
    EXPECT_EQ(fake_.log_opens, 1);

    ASSERT_EQ(shmrm_delete(), SHMRM_OK);
    EXPECT_EQ(fake_.log_closes, 1);
    fake_.lines.clear();
    EXPECT_EQ(shmrm_setacstat(1), SHMRM_ERR_NOTINIT);
    EXPECT_EQ(shmrm_rolock(0), SHMRM_OK);
    EXPECT_EQ(shmrm_rounlock(), SHMRM_OK);
    EXPECT_TRUE(fake_.lines.empty());
}

// Without the region lock the library stays loaded, but nothing works. A namespace that cannot
// name objects leaves the lock unobtainable too: no object is made or removed under another name.
TEST_F(FrameTest, ALoadWithoutTheRegionLockDisablesEveryExport) {
    struct Reload {
        ~Reload() {  // with the real imports, whatever happened
            const shmrm::Imports* fake = shmrm::set_imports(nullptr);
            shmrm::unload();
            shmrm::load();
            shmrm::set_imports(fake);
        }
    };
    const std::tuple<const char*, std::vector<std::string>> rows[] = {
        {"VexutilLoadNamespace", {"VexutilLoadNamespace"}},
        {"VexutilCreateMutex", {"VexutilLoadNamespace", "VexutilCreateMutex(oru_vexshmrm_lock)"}},
    };
    for (const auto& [failing, calls] : rows) {
        SCOPED_TRACE(failing);
        {
            Reload reload;
            shmrm::unload();
            fake_.calls.clear();
            fake_.fail(failing, 0, 87);
            ASSERT_FALSE(shmrm::load());
            EXPECT_EQ(fake_.calls, calls);
            EXPECT_EQ(shmrm::imports().last_error(), 87u) << "as the load left it";
            EXPECT_EQ(shmrm::state.lock_handle, nullptr);
            fake_.calls.clear();
            EXPECT_EQ(shmrm_create(), SHMRM_ERR_NOTINIT);
            EXPECT_EQ(shmrm_attach(), SHMRM_ERR_NOTINIT);
            EXPECT_TRUE(fake_.xml_calls().empty());
            EXPECT_EQ(shmrm_rolock(0), SHMRM_ERR_LOCK);
            EXPECT_EQ(shmrm_rwlock(0), SHMRM_ERR_LOCK);
            EXPECT_EQ(shmrm_rounlock(), SHMRM_ERR_LOCK);
            EXPECT_EQ(shmrm_rwunlock(), SHMRM_ERR_LOCK);
        }
        fake_.failures_.clear();
        EXPECT_TRUE(shmrm::state.loaded);
        EXPECT_EQ(shmrm_rolock(0), SHMRM_OK);
        EXPECT_EQ(shmrm_rounlock(), SHMRM_OK);
        EXPECT_EQ(shmrm_create(), SHMRM_OK);
        EXPECT_EQ(shmrm_delete(), SHMRM_OK);
    }
}

}  // namespace
