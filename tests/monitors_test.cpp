// Monitors: checks in order, messages and tags, and the progress step's trace. The results and
// the region's bytes of long call sequences (stamps included) are compared with a model in
// model_test.cpp.
#include <string>

#include "table_fixture.h"

namespace {

using namespace vextest;

class MonitorTest : public TableTest {};

const std::string k40(40, 'm');

// A detach in another thread clears the monitor table's pointer just after the region's: a
// progress call that found the region mapped then finds no monitor table.
TEST_F(MonitorTest, ProgressWithoutTheMonitorTable) {
    unsigned char* table = shmrm::state._prmmon.exchange(nullptr);
    EXPECT_EQ(shmrm_setmonprogress("t", "m", 3), SHMRM_ERR_NOTINIT);
    shmrm::state._prmmon.store(table);
    EXPECT_EQ(take_lines(), failure("_setmonprogress", "_prmmon is not init", SHMRM_ERR_NOTINIT));
}

TEST_F(MonitorTest, EveryExportNeedsTheRegionBeforeItsArguments) {
#define GET(f, tag)                                      \
    {                                                    \
        tag, [] { return f(nullptr, nullptr, nullptr); } \
    }
#define SET(f, tag)                                \
    {                                              \
        tag, [] { return f(nullptr, nullptr, 0); } \
    }
    const NotInit rows[] = {
        {"_addmon", [] { return shmrm_addmon(nullptr, nullptr); }},
        {"_rmmon", [] { return shmrm_rmmon(nullptr, nullptr); }},
        {"_enummon", [] { return shmrm_enummon(nullptr, nullptr); }},
        {"_getmoninfo", [] { return shmrm_getmoninfo(nullptr, nullptr); }},
        {"_setmonprogress", [] { return shmrm_setmonprogress(nullptr, nullptr, 0); },
         "_prmhead is not init"},
        {"_getmonprogress",
         [] { return shmrm_getmonprogress(nullptr, nullptr, nullptr, nullptr, nullptr); },
         "_prmhead is not init"},
        GET(shmrm_getmonstat, "_getmonstat"),
        SET(shmrm_setmonstat, "_setmonstat"),
        GET(shmrm_getmonfo, "_getmonfo"),
        SET(shmrm_setmonfo, "_setmonfo"),
        GET(shmrm_getmonproc, "_getmonproc"),
        SET(shmrm_setmonproc, "_setmonproc"),
        GET(shmrm_getmoninst, "_getmoninst"),
        SET(shmrm_setmoninst, "_setmoninstruct"),
        GET(shmrm_getmoninstdata, "shmrm_getmoninstdata"),
        SET(shmrm_setmoninstdata, "shmrm_setmoninstdata"),
        GET(shmrm_getmonscriptcnt, "_getmonscriptcnt"),
        SET(shmrm_setmonscriptcnt, "_setmonscriptcnt"),
        GET(shmrm_getmonrestartcnt, "shmrm_getmonrestartcnt"),
        SET(shmrm_setmonrestartcnt, "shmrm_setmonrestartcnt"),
        GET(shmrm_getmonfinactcnt, "shmrm_getmonfinactcnt"),
        SET(shmrm_setmonfinactcnt, "shmrm_setmonfinactcnt"),
        GET(shmrm_getmonsimuflag, "_getmonsimuflag"),
        SET(shmrm_setmonsimuflag, "_setmonsimuflag"),
        GET(shmrm_gettargetpid, "_gettargetpid"),
        SET(shmrm_settargetpid, "_settargetpid"),
        GET(shmrm_getmonret, "shmrm_getmonret"),
        SET(shmrm_setmonret, "shmrm_setmonret"),
        GET(shmrm_getparentpid, "_getparentpid"),
        SET(shmrm_setparentpid, "_setparentpid"),
    };
#undef GET
#undef SET
    check_not_init(rows);
}

TEST_F(MonitorTest, CallsTraceTheirInputAndFailures) {
    ASSERT_EQ(shmrm_addmon("t", "a"), SHMRM_OK);
    ASSERT_EQ(shmrm_addmon("t", "p"), SHMRM_OK);
    static char type[32];
    static int value;
    const int P = SHMRM_LOG_PARAM, E = SHMRM_LOG_ERROR;
    check_traces({
        {[] { return shmrm_addmon(k40.c_str(), k40.c_str()); }, SHMRM_OK,
         traced("_addmon", SHMRM_OK, {{P, "[in]type:" + k40 + ", name:" + k40}})},
        {[] { return shmrm_addmon("", ""); }, SHMRM_OK,
         traced("_addmon", SHMRM_OK, {{P, "[in]type:, name:"}})},
        {[] { return shmrm_addmon("t", "x"); }, SHMRM_ERR_MONOVER,  // checked before the input line
         failure("_addmon", "monitor count is over(4)", SHMRM_ERR_MONOVER)},
        {[] { return shmrm_addmon(nullptr, "x"); }, SHMRM_ERR_PARAM,
         failure("_addmon", "invalid param", SHMRM_ERR_PARAM)},
        {[] { return shmrm_rmmon(nullptr, k40.c_str()); }, SHMRM_ERR_NOTFOUND,
         traced("_rmmon", SHMRM_ERR_NOTFOUND,
                {{P, "[in]type:(null), name:" + k40}, {E, "type:-,name:" + k40 + " not found"}})},
        {[] { return shmrm_rmmon("t", nullptr); }, SHMRM_ERR_PARAM,
         failure("_rmmon", "invalid param", SHMRM_ERR_PARAM)},
        {[] { return shmrm_setmoninst("u", "a", 1); }, SHMRM_ERR_NOTFOUND,
         failure("_setmoninstruct", "type:u,name:a not found", SHMRM_ERR_NOTFOUND)},
        {[] { return shmrm_getmoninstdata(nullptr, "zz", &value); }, SHMRM_ERR_NOTFOUND,
         failure("shmrm_getmoninstdata", "type:-,name:zz not found", SHMRM_ERR_NOTFOUND)},
        {[] { return shmrm_getmonrestartcnt("t", "a", nullptr); }, SHMRM_ERR_PARAM,
         failure("shmrm_getmonrestartcnt", "invalid param", SHMRM_ERR_PARAM)},
        {[] { return shmrm_setmonfinactcnt("t", "a", 7); }, SHMRM_OK,
         traced("shmrm_setmonfinactcnt", SHMRM_OK)},
        {[] { return shmrm_getmoninfo(type, "zz"); }, SHMRM_ERR_NOTFOUND,
         failure("_getmoninfo", "name:zz not found", SHMRM_ERR_NOTFOUND)},
        {[] { return shmrm_getmoninfo(type, ""); }, SHMRM_ERR_PARAM,
         failure("_getmoninfo", "invalid param", SHMRM_ERR_PARAM)},
        {[] { return shmrm_enummon(type, nullptr); }, SHMRM_ERR_PARAM,
         failure("_enummon", "invalid param", SHMRM_ERR_PARAM)},
        // Only the steps without a stamp of their own are traced.
        {[] { return shmrm_setmonprogress(nullptr, "p", 5); }, SHMRM_OK,
         traced("_setmonprogress", SHMRM_OK, {{P, "progress: 5"}})},
        {[] { return shmrm_setmonprogress("t", "p", -1); }, SHMRM_OK,
         traced("_setmonprogress", SHMRM_OK, {{P, "progress: -1"}})},
        {[] { return shmrm_setmonprogress("t", "p", 3); }, SHMRM_OK,
         traced("_setmonprogress", SHMRM_OK)},
        {[] { return shmrm_setmonprogress("t", "p", 4); }, SHMRM_OK,
         traced("_setmonprogress", SHMRM_OK)},
        {[] { return shmrm_setmonprogress("t", "p", 0); }, SHMRM_OK,
         traced("_setmonprogress", SHMRM_OK)},
        {[] { return shmrm_setmonprogress("u", "p", 3); }, SHMRM_ERR_NOTFOUND,
         failure("_setmonprogress", "name:p not found", SHMRM_ERR_NOTFOUND)},
        {[] { return shmrm_setmonprogress("t", nullptr, 3); }, SHMRM_ERR_PARAM,
         failure("_setmonprogress", "invalid param", SHMRM_ERR_PARAM)},
        {[] { return shmrm_getmonprogress(nullptr, "zz", &value, nullptr, nullptr); },
         SHMRM_ERR_NOTFOUND, failure("_getmonprogress", "name:zz not found", SHMRM_ERR_NOTFOUND)},
        {[] { return shmrm_getmonprogress("t", "p", nullptr, nullptr, nullptr); }, SHMRM_ERR_PARAM,
         failure("_getmonprogress", "invalid param", SHMRM_ERR_PARAM)},
    });
}

}  // namespace
