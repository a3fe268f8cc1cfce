#include "tables.h"

#include <algorithm>
#include <climits>

namespace shmrm {

int Groups::positions_for(std::size_t stride) {
    const std::size_t room = g.layout.mapped - SHMRM_HEAD_SIZE;
    return static_cast<int>(std::min<std::size_t>(room / stride, INT_MAX));
}

// Keys are copied to locals so that they stay in registers through a scan.
int find_group(const Groups& groups, const Key& key) {
    const Key name = key;
    if (name.impossible()) return -1;
    const int used = groups.used;
    for (int i = 0; i < used; ++i) {
        if (name.matches(groups.at(i)->name)) return i;
    }
    return -1;
}

int find_monitor(const Monitors& monitors, const char* type_key, const char* name_key) {
    const Key name(name_key);
    if (name.impossible()) return -1;
    const Key type(type_key);
    if (type.impossible()) return -1;
    const int used = monitors.used;
    for (int i = 0; i < used; ++i) {
        rmmon* mon = monitors.at(i);
        if (name.matches(mon->name) && type.matches(mon->type)) return i;  // names differ more
    }
    return -1;
}

}  // namespace shmrm
