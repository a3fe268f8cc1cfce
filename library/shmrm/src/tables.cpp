#include "tables.h"

#include <algorithm>
#include <climits>
#include <cstddef>

namespace shmrm {

int Groups::positions_for(std::size_t stride) {
    const std::size_t after_header = state.layout.mapped - SHMRM_HEAD_SIZE;
    return static_cast<int>(std::min<std::size_t>(after_header / stride, INT_MAX));
}

int find_group(const Groups& groups, const Key& name, int from) {
    if (name.impossible()) return -1;
    static_assert(offsetof(rmgrp, name) == 0);
    return scan(groups.first, groups.stride, from, groups.used, offsetof(rmgrp, name), name.first(),
                [&name](const char* rec) {
                    return name.rest_matches(reinterpret_cast<const rmgrp*>(rec)->name);
                });
}

int find_monitor(const Monitors& monitors, const char* type_key, const char* name_key) {
    const Key name(name_key);
    if (name.impossible()) return -1;
    const Key type(type_key);
    if (type.impossible()) return -1;
    // Names differ more than types: the name's first word is the probe.
    return scan(reinterpret_cast<const unsigned char*>(monitors.first), sizeof(rmmon), 0,
                monitors.used, offsetof(rmmon, name), name.first(),
                [&name, &type](const char* rec) {
                    const rmmon* mon = reinterpret_cast<const rmmon*>(rec);
                    return type.matches(mon->type) && name.rest_matches(mon->name);
                });
}

}  // namespace shmrm
