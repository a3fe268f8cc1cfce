// What Linux gives in its own way: the kernel's id of a thread, and a clock that counts the time
// since boot with suspend included.
#include <time.h>
#include <unistd.h>

#include <cstdint>

#include "os.h"

namespace vex::os {

unsigned tick_count() {
    timespec ts{};
    clock_gettime(CLOCK_BOOTTIME, &ts);
    auto ms = static_cast<std::uint64_t>(ts.tv_sec) * 1000u +
              static_cast<std::uint64_t>(ts.tv_nsec) / 1000000u;
    return static_cast<unsigned>(ms);
}

unsigned long thread_id() {
    // Asked of the system once per thread.
    thread_local const pid_t tid = gettid();
    return static_cast<unsigned long>(tid);
}

}  // namespace vex::os
