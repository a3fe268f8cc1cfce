#include "tables.h"

#include <algorithm>
#include <climits>

namespace shmrm {

namespace {
int clamp_count(int n, int limit) {
    return n < 0 ? 0 : (n > limit ? limit : n);
}
}  // namespace

Groups Groups::of(unsigned char* base) {
    Groups t;
    t.first = base + SHMRM_HEAD_SIZE;
    const int r = load(head(base)->rscmax);
    t.rscmax = r < 0 ? 0 : r;
    t.stride = SHMRM_GRP_HEAD_SIZE + std::size_t(t.rscmax) * SHMRM_RSC_SIZE;
    const Layout& sized = g.layout;
    if (t.rscmax == sized.rscmax) {
        t.positions = sized.grpmax;
    } else {
        // The header no longer describes the table this process sized: only whole records
        // that fit its room are used.
        const std::size_t room = std::size_t(sized.grpmax) *
                                 (SHMRM_GRP_HEAD_SIZE + std::size_t(sized.rscmax) * SHMRM_RSC_SIZE);
        t.positions = static_cast<int>(std::min<std::size_t>(room / t.stride, INT_MAX));
    }
    return t;
}

int Groups::used(unsigned char* base) const {
    return clamp_count(load(head(base)->grpcnt), positions);
}

int Groups::slots_used(rmgrp* grp) const {
    return clamp_count(load(grp->rsccnt), rscmax);
}

Monitors Monitors::of(unsigned char* base) {
    Monitors m;
    (void)base;
    m.first = reinterpret_cast<rmmon*>(g._prmmon.load(std::memory_order_relaxed));
    m.positions = g.layout.monmax;
    return m;
}

int Monitors::used(unsigned char* base) const {
    return clamp_count(load(head(base)->moncnt), positions);
}

int find_group(const Groups& groups, int used, const Key& name) {
    if (name.impossible()) return -1;
    for (int i = 0; i < used; ++i) {
        if (name.matches(groups.at(i)->name)) return i;
    }
    return -1;
}

int find_monitor(const Monitors& monitors, unsigned char* base, const Key& type, const Key& name) {
    if (type.impossible() || name.impossible()) return -1;
    const int used = monitors.used(base);
    for (int i = 0; i < used; ++i) {
        rmmon* mon = monitors.at(i);
        if (type.matches(mon->type) && name.matches(mon->name)) return i;
    }
    return -1;
}

}  // namespace shmrm
