// Resources and descriptions: checks in order, messages, per-slot detail lines and tags. The
// results and the region's bytes of long call sequences are compared with a model in
// model_test.cpp.
#include <string>

#include "table_fixture.h"

namespace {

using namespace vextest;

class ResourceTest : public TableTest {};

const std::string k31(31, 'n'), k32(32, 'n'), k40(40, 'n');

TEST_F(ResourceTest, EveryExportNeedsTheRegionBeforeItsArguments) {
    const NotInit rows[] = {
        {"_addrsc", [] { return shmrm_addrsc(nullptr, nullptr, nullptr); }},
        {"_rmrsc", [] { return shmrm_rmrsc(nullptr, nullptr, nullptr); }},
        {"_enumrsc", [] { return shmrm_enumrsc(nullptr, nullptr, nullptr); }},
        {"_setrscstat", [] { return shmrm_setrscstat(nullptr, nullptr, nullptr, 0); }},
        {"_getrscstat", [] { return shmrm_getrscstat(nullptr, nullptr, nullptr, nullptr); }},
        {"_setrscfocnt", [] { return shmrm_setrscfocnt(nullptr, nullptr, nullptr, 0); }},
        {"_getrscfocnt", [] { return shmrm_getrscfocnt(nullptr, nullptr, nullptr, nullptr); }},
        {"_setrscstrtret", [] { return shmrm_setrscstrtret(nullptr, nullptr, nullptr, 0); }},
        {"_getrscstrtret", [] { return shmrm_getrscstrtret(nullptr, nullptr, nullptr, nullptr); }},
        {"_setrscstopret", [] { return shmrm_setrscstopret(nullptr, nullptr, nullptr, 0); }},
        {"_getrscstopret", [] { return shmrm_getrscstopret(nullptr, nullptr, nullptr, nullptr); }},
        {"_setrscsv", [] { return shmrm_setrscsv(nullptr, nullptr, nullptr, nullptr); }},
        {"_getrscsv", [] { return shmrm_getrscsv(nullptr, nullptr, nullptr, nullptr); }},
        {"_setrscfree", [] { return shmrm_setrscfree(nullptr, nullptr, nullptr, nullptr, 0); }},
        {"_getrscfree",
         [] { return shmrm_getrscfree(nullptr, nullptr, nullptr, nullptr, nullptr); }},
        {"_getrscgrp", [] { return shmrm_getrscgrp(nullptr, nullptr, nullptr); }},
        {"_getrscinfo", [] { return shmrm_getrscinfo(nullptr, nullptr, nullptr); }},
        {"_getdescript",
         [] { return shmrm_getdescript(nullptr, nullptr, nullptr, nullptr, nullptr); }},
        {"_setdescript", [] { return shmrm_setdescript(nullptr, nullptr, nullptr, nullptr, 0); }},
    };
    check_not_init(rows);
}

TEST_F(ResourceTest, CallsTraceTheirInputDetailAndFailures) {
    // g1: t/a, u/b; g2: t/c
    for (const char* g : {"g1", "g2"})
        ASSERT_EQ(shmrm_addgrp(g), SHMRM_OK);
    ASSERT_EQ(shmrm_addrsc("g1", "t", "a"), SHMRM_OK);
    ASSERT_EQ(shmrm_addrsc("g1", "u", "b"), SHMRM_OK);
    ASSERT_EQ(shmrm_addrsc("g2", "t", "c"), SHMRM_OK);
    static char grp[32], type[32];
    static int value, size;
    const int P = SHMRM_LOG_PARAM, E = SHMRM_LOG_ERROR;
    auto slot = [](const char* key, int i, const char* name) {
        return std::pair<int, std::string>(
            SHMRM_LOG_PARAM,
            std::string("rscname:") + key + ", prsc[" + std::to_string(i) + "].name:" + name);
    };
    check_traces({
        {[] { return shmrm_addrsc("g2", k40.c_str(), k40.c_str()); }, SHMRM_OK,
         traced("_addrsc", SHMRM_OK,
                {{P, "[in]grpname:g2, type:" + k40 + ", name:" + k40},
                 {P, "grpname:g2, type:" + k31 + ", name:" + k31}})},
        {[] { return shmrm_addrsc("zz", "t", "n"); }, SHMRM_ERR_NOTFOUND,
         traced("_addrsc", SHMRM_ERR_NOTFOUND,
                {{P, "[in]grpname:zz, type:t, name:n"}, {E, "grpname:zz not found"}})},
        {[] { return shmrm_addrsc("g1", "t", nullptr); }, SHMRM_ERR_PARAM,
         failure("_addrsc", "invalid param", SHMRM_ERR_PARAM)},
        {[] { return shmrm_addrsc("g2", "", ""); }, SHMRM_OK,
         traced("_addrsc", SHMRM_OK,
                {{P, "[in]grpname:g2, type:, name:"}, {P, "grpname:g2, type:, name:"}})},
        {[] { return shmrm_addrsc("g2", "t", "m"); }, SHMRM_ERR_RSCOVER,
         traced("_addrsc", SHMRM_ERR_RSCOVER,
                {{P, "[in]grpname:g2, type:t, name:m"}, {E, "resource count is over(3)"}})},
        {[] { return shmrm_rmrsc(nullptr, nullptr, "zz"); }, SHMRM_ERR_NOTFOUND,
         traced("_rmrsc", SHMRM_ERR_NOTFOUND,
                {{P, "[in]grpname:(null), type:(null), name:zz"},
                 {E, "grpname:-,type:-,name:zz not found"}})},
        {[] { return shmrm_getrscstat(nullptr, "u", "a", &value); }, SHMRM_ERR_NOTFOUND,
         failure("_getrscstat", "group:-,type:u,name:a not found", SHMRM_ERR_NOTFOUND)},
        {[] { return shmrm_setrscstopret("g2", nullptr, "a", 1); }, SHMRM_ERR_NOTFOUND,
         failure("_setrscstopret", "group:g2,type:-,name:a not found", SHMRM_ERR_NOTFOUND)},
        {[] { return size = 0, shmrm_getrscfree("g1", "t", "a", nullptr, &size); }, SHMRM_ERR_PARAM,
         failure("_getrscfree", "invalid param", SHMRM_ERR_PARAM)},
        {[] { return size = 0, shmrm_enumrsc("g1", grp, &size); }, SHMRM_ERR_BUFFER,
         traced("_enumrsc", SHMRM_ERR_BUFFER)},
        {[] { return shmrm_getrscgrp(grp, nullptr, "zz"); }, SHMRM_ERR_NOTFOUND,
         failure("_getrscgrp", "type:-,name:zz not found", SHMRM_ERR_NOTFOUND)},
        {[] { return shmrm_getrscgrp(grp, "u", "a"); }, SHMRM_ERR_NOTFOUND,
         failure("_getrscgrp", "type:u,name:a not found", SHMRM_ERR_NOTFOUND)},
        {[] { return shmrm_getrscinfo(grp, type, "b"); }, SHMRM_OK,
         traced("_getrscinfo", SHMRM_OK,
                {slot("b", 0, "a"), slot("b", 1, "b"), {P, "grpname:g1"}, {P, "typename:u"}})},
        {[] { return shmrm_getrscinfo(nullptr, nullptr, "c"); }, SHMRM_OK,
         traced("_getrscinfo", SHMRM_OK,
                {slot("c", 0, "a"), slot("c", 1, "b"), slot("c", 0, "c")})},
        {[] { return shmrm_getrscinfo(grp, type, k32.c_str()); }, SHMRM_ERR_NOTFOUND,
         traced("_getrscinfo", SHMRM_ERR_NOTFOUND,
                {slot(k32.c_str(), 0, "a"),
                 slot(k32.c_str(), 1, "b"),
                 slot(k32.c_str(), 0, "c"),
                 slot(k32.c_str(), 1, k31.c_str()),
                 slot(k32.c_str(), 2, ""),
                 {E, "name:" + k32 + " not found"}})},
        {[] { return shmrm_getrscinfo(grp, type, ""); }, SHMRM_ERR_PARAM,
         failure("_getrscinfo", "invalid param", SHMRM_ERR_PARAM)},
        {[] { return size = 8, shmrm_getdescript("g1", "u", "b", grp, &size); }, SHMRM_OK,
         traced("_getdescript", SHMRM_OK,
                {{P, "type:u, prsc[0].type:t"},
                 {P, "name:b, prsc[0].name:a"},
                 {P, "type:u, prsc[1].type:u"},
                 {P, "name:b, prsc[1].name:b"}})},
        {[] { return size = 8, shmrm_getdescript("g2", "u", "c", grp, &size); }, SHMRM_ERR_NOTFOUND,
         traced("_getdescript", SHMRM_ERR_NOTFOUND,
                {{P, "type:u, prsc[0].type:t"},
                 {P, "name:c, prsc[0].name:c"},
                 {P, "type:u, prsc[1].type:" + k31},
                 {P, "name:c, prsc[1].name:" + k31},
                 {P, "type:u, prsc[2].type:"},
                 {P, "name:c, prsc[2].name:"},
                 {E, "type:u,name:c not found"}})},
        {[] { return size = 0, shmrm_getdescript("g2", "t", "c", grp, &size); }, SHMRM_ERR_PARAM,
         failure("_getdescript", "invalid param", SHMRM_ERR_PARAM)},
        {[] { return shmrm_setdescript(nullptr, "t", "c", "x", 1); }, SHMRM_ERR_NOTFOUND,
         failure("_setdescript", "type:t,name:c not found", SHMRM_ERR_NOTFOUND)},
        {[] { return shmrm_setdescript("g2", "t", "c", "x", -1); }, SHMRM_ERR_PARAM,
         failure("_setdescript", "invalid param", SHMRM_ERR_PARAM)},
        {[] { return shmrm_setdescript("g2", "t", "c", "x", 1); }, SHMRM_OK,
         traced("_setdescript", SHMRM_OK)},
    });
}

}  // namespace
