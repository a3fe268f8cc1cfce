#include "results.h"

#include <fmt/format.h>

#include "vexshmrm.h"

namespace shmrmctl {

std::string result_name(int rc) {
    switch (rc) {
#define SHMRMCTL_RESULT_NAME(name, value, meaning) \
    case value:                                    \
        return #name;
        SHMRM_RESULT_MAP(SHMRMCTL_RESULT_NAME)
#undef SHMRMCTL_RESULT_NAME
        default:
            return fmt::format("result {}", rc);
    }
}

}  // namespace shmrmctl
