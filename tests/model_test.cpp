// Long random sequences of table and header operations checked against the model of
// support/model.h. CI runs fixed seeds; by hand: VEX_MODEL_SEEDS=N or a-b, VEX_MODEL_STEPS=n.
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "support/model.h"
#include "table_fixture.h"

namespace {

using namespace vextest;

using ModelTest = TableTest;

TEST_F(ModelTest, RandomSequencesAgreeWithTheModel) {
    unsigned first = 1, last = 4;
    if (const char* seeds = std::getenv("VEX_MODEL_SEEDS"))  // "N": seeds 1 to N
        if (std::sscanf(seeds, "%u-%u", &first, &last) == 1) last = std::exchange(first, 1);
    const char* steps = std::getenv("VEX_MODEL_STEPS");
    for (unsigned seed = first; seed <= last; ++seed) {
        // Odd seeds trace everything (the searches trace every slot they visit).
        shmrm::state.log_level.store(seed % 2 ? SHMRM_LOG_PARAM : SHMRM_LOG_ERROR);
        Choices choices(seed);
        if (auto d = run_model(choices, fake_, steps ? std::atoi(steps) : 3000)) {
            ADD_FAILURE() << "seed " << seed << ", step " << d->step << ": " << d->text
                          << " (rerun: VEX_MODEL_SEEDS=" << seed << "-" << seed
                          << " VEX_MODEL_STEPS=" << d->step + 1 << ")";
            break;
        }
    }
}

}  // namespace
