// The names of the library's result codes, made from the one table of them (SHMRM_RESULT_MAP).
#pragma once

#include <string>

namespace shmrmctl {

// "SHMRM_ERR_NOTFOUND" for 3, and so on; "result <n>" for a code the library does not define.
std::string result_name(int rc);

}  // namespace shmrmctl
