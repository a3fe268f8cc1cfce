// The header's own values: the node-wide words, the capacities and the dump of the region.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <tuple>
#include <vector>

#include "shmrm_internal.h"
#include "support/sandbox.h"
#include "vexshmrm.h"

namespace {

using vextest::Capacities;
using vextest::Sandbox;

constexpr int kSize = 11928;  // 4 groups of 2 resources, 8 monitors

int word_at(const unsigned char* base, int offset) {
    int value;
    std::memcpy(&value, base + offset, sizeof value);
    return value;
}

std::vector<int> maxvalues() {  // -7 where nothing was written
    std::vector<int> caps(3, -7);
    EXPECT_EQ(shmrm_getmaxvalue(&caps[0], &caps[1], &caps[2]), SHMRM_OK);
    return caps;
}

class HeaderTest : public testing::Test {
  protected:
    void SetUp() override { sandbox_.configure(Capacities{4, 2, 8}); }
    void TearDown() override {
        if (shmrm::region() != nullptr) shmrm_delete();
    }
    Sandbox sandbox_;
};

// The mapping is checked before any argument.
TEST_F(HeaderTest, EveryExportNeedsTheRegion) {
    // clang-format off
    int (*const calls[])() = {
        [] { return shmrm_setacstat(0); },    [] { return shmrm_getacstat(nullptr); },
        [] { return shmrm_setacstat2(0); },   [] { return shmrm_getacstat2(nullptr); },
        [] { return shmrm_setpow32port(-1); }, [] { return shmrm_getpow32port(nullptr); },
        [] { return shmrm_setmaxvalue(0, 0, 0); },
        [] { return shmrm_getmaxvalue(nullptr, nullptr, nullptr); },
        [] { return shmrm_dump(nullptr, nullptr); },
    };
    // clang-format on
    for (auto call : calls)
        EXPECT_EQ(call(), SHMRM_ERR_NOTINIT);
}

TEST_F(HeaderTest, NodeWordsKeepPositiveValuesInTheirOwnField) {
    const std::tuple<int (*)(int), int (*)(int*), int> rows[] = {
        {shmrm_setacstat, shmrm_getacstat, 60},
        {shmrm_setacstat2, shmrm_getacstat2, 64},
        {shmrm_setpow32port, shmrm_getpow32port, 68}};
    ASSERT_EQ(shmrm_create(), SHMRM_OK);
    for (const auto& [set, get, offset] : rows) {
        SCOPED_TRACE(offset);
        int value = -7;
        EXPECT_EQ(get(&value), SHMRM_OK);
        EXPECT_EQ(value, 0);  // never set
        EXPECT_EQ(set(1), SHMRM_OK);
        for (int bad : {0, -1, INT_MIN})
            EXPECT_EQ(set(bad), SHMRM_ERR_PARAM);
        EXPECT_EQ(get(&value), SHMRM_OK);
        EXPECT_EQ(value, 1);
        EXPECT_EQ(get(nullptr), SHMRM_ERR_PARAM);
        EXPECT_EQ(set(INT_MAX - offset), SHMRM_OK);  // a value of its own in each field
    }
    for (const auto& [set, get, offset] : rows)
        EXPECT_EQ(word_at(shmrm::region(), offset), INT_MAX - offset);
}

TEST_F(HeaderTest, SetMaxValueAcceptsOnlyWhatTheRegionWasSizedFor) {
    struct Row {
        std::vector<int> caps;
        int result;
    } rows[] = {
        {{1, 2, 1}, SHMRM_OK},         {{0, 2, 8}, SHMRM_ERR_PARAM}, {{4, 2, 0}, SHMRM_ERR_PARAM},
        {{4, -2, 8}, SHMRM_ERR_PARAM}, {{5, 2, 8}, SHMRM_ERR_PARAM}, {{4, 2, 9}, SHMRM_ERR_PARAM},
        {{4, 1, 8}, SHMRM_ERR_PARAM},  {{4, 3, 8}, SHMRM_ERR_PARAM}, {{4, 2, 8}, SHMRM_OK},
        {{3, 2, 7}, SHMRM_OK},
    };
    ASSERT_EQ(shmrm_create(), SHMRM_OK);
    std::vector<int> expected = {4, 2, 8};
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.caps));
        EXPECT_EQ(shmrm_setmaxvalue(row.caps[0], row.caps[1], row.caps[2]), row.result);
        if (row.result == SHMRM_OK) expected = row.caps;
        EXPECT_EQ(maxvalues(), expected);
    }
}

TEST_F(HeaderTest, GetMaxValueWritesAllOrNothing) {
    ASSERT_EQ(shmrm_create(), SHMRM_OK);
    for (int missing = 0; missing < 3; ++missing) {
        std::vector<int> caps(3, -7);
        int* out[3] = {&caps[0], &caps[1], &caps[2]};
        out[missing] = nullptr;
        EXPECT_EQ(shmrm_getmaxvalue(out[0], out[1], out[2]), SHMRM_ERR_PARAM);
        EXPECT_EQ(caps, std::vector<int>(3, -7));
    }
}

TEST_F(HeaderTest, DumpCopiesTheWholeRegionOrNothing) {
    ASSERT_EQ(shmrm_create(), SHMRM_OK);
    int size = 0;
    ASSERT_EQ(shmrm_dump(nullptr, &size), SHMRM_OK);
    EXPECT_EQ(size, kSize);
    EXPECT_EQ(shmrm_dump(&size, nullptr), SHMRM_ERR_PARAM);

    for (int length : {kSize - 1, kSize, kSize + 16}) {
        SCOPED_TRACE(length);
        std::vector<unsigned char> dump(kSize + 16, 0xEE);
        int given = length;
        const int result = shmrm_dump(dump.data(), &given);
        EXPECT_EQ(result, length < kSize ? SHMRM_ERR_BUFFER : SHMRM_OK);
        EXPECT_EQ(given, length);  // never updated
        const std::ptrdiff_t copied = result == SHMRM_OK ? kSize : 0;
        EXPECT_TRUE(std::all_of(dump.begin() + copied, dump.end(),
                                [](unsigned char c) { return c == 0xEE; }));
        if (result != SHMRM_OK) continue;
        // A fresh region holds nothing but its capacities.
        EXPECT_EQ(word_at(dump.data(), 36), 4);
        EXPECT_EQ(word_at(dump.data(), 40), 2);
        EXPECT_EQ(word_at(dump.data(), 44), 8);
        std::fill(dump.begin() + 36, dump.begin() + 48, 0);
        EXPECT_TRUE(std::all_of(dump.begin(), dump.begin() + copied,
                                [](unsigned char c) { return c == 0; }));
    }
}

}  // namespace
