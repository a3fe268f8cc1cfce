// The header's own values need the region before their arguments. What they do with their
// arguments (node-wide words, capacities, the dump) is checked against the model in
// model_test.cpp.
#include <gtest/gtest.h>

#include "vexshmrm.h"

namespace {

// The mapping is checked before any argument; no test leaves it mapped.
TEST(HeaderTest, EveryExportNeedsTheRegion) {
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

}  // namespace
