#include "tables.h"

#include <algorithm>
#include <climits>

namespace shmrm {

int Groups::positions_for(std::size_t stride) {
    const Layout& sized = g.layout;
    const std::size_t room = std::size_t(sized.grpmax) *
                             (SHMRM_GRP_HEAD_SIZE + std::size_t(sized.rscmax) * SHMRM_RSC_SIZE);
    return static_cast<int>(std::min<std::size_t>(room / stride, INT_MAX));
}

// Keys are copied to locals so that they stay in registers through a scan.
int find_group(const Groups& groups, int used, const Key& key) {
    const Key name = key;
    if (name.impossible()) return -1;
    for (int i = 0; i < used; ++i) {
        if (name.matches(groups.at(i)->name)) return i;
    }
    return -1;
}

int find_monitor(const Monitors& monitors, unsigned char* base, const char* type_key,
                 const char* name_key) {
    const Key name(name_key);
    if (name.impossible()) return -1;
    const Key type(type_key);
    if (type.impossible()) return -1;
    const int used = monitors.used(base);
    for (int i = 0; i < used; ++i) {
        rmmon* mon = monitors.at(i);
        if (name.matches(mon->name) && type.matches(mon->type)) return i;  // names differ more
    }
    return -1;
}

}  // namespace shmrm
