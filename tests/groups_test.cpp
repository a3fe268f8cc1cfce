// The group table and the group attributes: checks in order, messages and tags. The results and
// the region's bytes of long call sequences are compared with a model in model_test.cpp.
#include <climits>
#include <string>

#include "table_fixture.h"

namespace {

using namespace vextest;

class GroupTest : public TableTest {};

const std::string k31(31, 'g'), k40(40, 'g');
const std::string h31 = "h" + std::string(30, 'g');  // k31's end, another start

TEST_F(GroupTest, EveryExportNeedsTheRegionBeforeItsArguments) {
    const NotInit rows[] = {
        {"_addgrp", [] { return shmrm_addgrp(nullptr); }},
        {"_rmgrp", [] { return shmrm_rmgrp(nullptr); }},
        {"_enumgrp", [] { return shmrm_enumgrp(nullptr, nullptr); }},
        {"_setgrpstat", [] { return shmrm_setgrpstat(nullptr, 0); }},
        {"_getgrpstat", [] { return shmrm_getgrpstat(nullptr, nullptr); }},
        {"_setgrpsv", [] { return shmrm_setgrpsv(nullptr, nullptr); }},
        {"_getgrpsv", [] { return shmrm_getgrpsv(nullptr, nullptr); }},
        {"_setgrpenv", [] { return shmrm_setgrpenv(nullptr, 0); }},
        {"_getgrpenv", [] { return shmrm_getgrpenv(nullptr, nullptr); }},
        {"_setgrpflag", [] { return shmrm_setgrpflag(nullptr, 0); }},
        {"_getgrpflag", [] { return shmrm_getgrpflag(nullptr, nullptr); }},
        {"_setgrpretrycnt", [] { return shmrm_setgrpretrycnt(nullptr, 0); }},
        {"_getgrpretrycnt", [] { return shmrm_getgrpretrycnt(nullptr, nullptr); }},
        {"_setgrpfocnt", [] { return shmrm_setgrpfocnt(nullptr, 0); }},
        {"_getgrpfocnt", [] { return shmrm_getgrpfocnt(nullptr, nullptr); }},
    };
    check_not_init(rows);
}

TEST_F(GroupTest, CallsTraceTheirInputAndFailures) {
    static char buf[8];
    static int size;
    static unsigned short flag;
    const std::string in = "[in]grpname:";
    check_traces({
        {[] { return shmrm_addgrp(k40.c_str()); }, SHMRM_OK,
         traced("_addgrp", SHMRM_OK, {{SHMRM_LOG_PARAM, in + k40}})},
        {[] { return shmrm_rmgrp(k40.c_str()); }, SHMRM_ERR_NOTFOUND,
         traced("_rmgrp", SHMRM_ERR_NOTFOUND,
                {{SHMRM_LOG_PARAM, in + k40}, {SHMRM_LOG_ERROR, "name:" + k40 + " not found"}})},
        {[] { return shmrm_getgrpflag(k31.c_str(), &flag); }, SHMRM_OK,
         traced("_getgrpflag", SHMRM_OK)},  // no parameter line
        {[] { return shmrm_getgrpflag("zz", nullptr); }, SHMRM_ERR_PARAM,
         failure("_getgrpflag", "invalid param", SHMRM_ERR_PARAM)},
        {[] { return shmrm_setgrpsv(k31.c_str(), nullptr); }, SHMRM_ERR_PARAM,
         failure("_setgrpsv", "invalid param", SHMRM_ERR_PARAM)},
        {[] { return shmrm_setgrpsv("zz", "x"); }, SHMRM_ERR_NOTFOUND,
         failure("_setgrpsv", "name:zz not found", SHMRM_ERR_NOTFOUND)},
        {[] { return shmrm_setgrpsv(h31.c_str(), "x"); }, SHMRM_ERR_NOTFOUND,
         failure("_setgrpsv", "name:" + h31 + " not found", SHMRM_ERR_NOTFOUND)},
        {[] { return shmrm_setgrpfocnt("", 1); }, SHMRM_ERR_NOTFOUND,
         failure("_setgrpfocnt", "name: not found", SHMRM_ERR_NOTFOUND)},
        {[] { return shmrm_addgrp(nullptr); }, SHMRM_ERR_PARAM,
         failure("_addgrp", "invalid param", SHMRM_ERR_PARAM)},
        {[] { return shmrm_rmgrp(nullptr); }, SHMRM_ERR_PARAM,
         failure("_rmgrp", "invalid param", SHMRM_ERR_PARAM)},
        {[] { return shmrm_enumgrp(buf, nullptr); }, SHMRM_ERR_PARAM,
         failure("_enumgrp", "invalid param", SHMRM_ERR_PARAM)},
        {[] { return size = 1, shmrm_enumgrp(buf, &size); }, SHMRM_ERR_BUFFER,
         traced("_enumgrp", SHMRM_ERR_BUFFER)},  // no message
        {[] { return shmrm_addgrp(""); }, SHMRM_OK, traced("_addgrp", SHMRM_OK, {{32, in}})},
        {[] { return shmrm_addgrp("c"); }, SHMRM_OK, traced("_addgrp", SHMRM_OK, {{32, in + "c"}})},
        {[] { return shmrm_addgrp("d"); }, SHMRM_OK, traced("_addgrp", SHMRM_OK, {{32, in + "d"}})},
        {[] { return shmrm_addgrp("e"); }, SHMRM_ERR_GRPOVER,
         traced("_addgrp", SHMRM_ERR_GRPOVER,
                {{SHMRM_LOG_PARAM, in + "e"}, {SHMRM_LOG_ERROR, "group count is over(4)"}})},
        {[] { return shmrm_rmgrp(k31.c_str()); }, SHMRM_OK,
         traced("_rmgrp", SHMRM_OK, {{SHMRM_LOG_PARAM, in + k31}})},
    });
}

// Counts and capacities written straight into the header never make a call touch memory past
// the region (the mapping's last page is checked for stray writes): the calls work on the
// records that fit.
TEST_F(GroupTest, DamagedHeaderNeverReachesPastTheRegion) {
    const struct {
        int offset, value;
    } rows[] = {{48, INT_MAX},
                {48, -5},
                {52, INT_MAX},
                {52, -1},
                {40, 1 << 20},
                {40, 1},
                {40, -1},
                {40, 0},
                {36, INT_MAX},
                {44, INT_MAX},
                {grp_at(0) + 296, INT_MAX},
                {grp_at(1) + 296, -3},
                {grp_at(3) + 296, -1}};
    unsigned char* base = shmrm::region();
    const std::ptrdiff_t end = (kRegionSize + 4095) / 4096 * 4096;
    const std::string r31(31, 'r'), m31(31, 'm');
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.offset << "=" << row.value);
        shmrm_clear();
        ASSERT_EQ(shmrm_setmaxvalue(kGroups, kSlots, kMonitors), SHMRM_OK);
        for (const char* g : {"a", "b", "c", "d"}) {
            ASSERT_EQ(shmrm_addgrp(g), SHMRM_OK);
            for (int r = 0; r < kSlots; ++r)
                ASSERT_EQ(shmrm_addrsc(g, "t", r31.c_str()), SHMRM_OK);
            ASSERT_EQ(shmrm_addmon("t", m31.c_str()), SHMRM_OK);
        }
        put_word(row.offset, row.value);
        char buf[4096];
        int size = sizeof buf, len = 256;
        shmrm_addgrp("e");
        shmrm_enumgrp(nullptr, &size);
        shmrm_enumgrp(buf, &size);
        shmrm_setgrpstat("zz", 1);
        shmrm_addrsc("d", "t", "n");
        size = sizeof buf;
        shmrm_enumrsc(nullptr, buf, &size);
        shmrm_getrscinfo(buf, buf + 64, "zz");
        shmrm_getrscgrp(buf, nullptr, "zz");
        shmrm_getdescript("d", "t", "zz", buf, &len);
        shmrm_setrscstat(nullptr, nullptr, "zz", 1);
        shmrm_addmon("t", "n");
        size = sizeof buf;
        shmrm_enummon(buf, &size);
        shmrm_getmoninfo(buf, "zz");
        shmrm_setmonstat(nullptr, "zz", 1);
        shmrm_setdescript(nullptr, "t", "zz", buf, 256);
        shmrm_rmrsc(nullptr, nullptr, r31.c_str());
        shmrm_rmmon(nullptr, m31.c_str());
        shmrm_rmgrp("d");
        shmrm_rmgrp("a");
        EXPECT_TRUE(
            std::all_of(base + kRegionSize, base + end, [](unsigned char c) { return c == 0; }));
    }
}

}  // namespace
