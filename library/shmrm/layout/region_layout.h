// The region's geometry: where the header, each group record with its resource slots, and each
// monitor record lie for given capacities. The one place that computes it: the library, shmrmctl,
// the tests, the stress program and the benchmarks all ask here.
#pragma once

#include <cstdint>
#include <optional>

#include "vexshmrm.h"

namespace shmrm {

// The three table capacities of a region, as its header and the configuration give them.
struct Capacities {
    int grpmax = 0;
    int rscmax = 0;
    int monmax = 0;
    friend constexpr bool operator==(const Capacities&, const Capacities&) = default;
};

// A region is always smaller than this.
inline constexpr std::int64_t kRegionLimit = std::int64_t{1} << 31;

// Bytes of one group record: its head and `rscmax` resource slots.
constexpr std::int64_t group_stride(std::int64_t rscmax) {
    return SHMRM_GRP_HEAD_SIZE + rscmax * SHMRM_RSC_SIZE;
}

// Offsets from the start of the region, in bytes.
struct Geometry {
    std::int64_t group_stride = 0;
    std::int64_t monitors_at = 0;  // the monitor table
    std::int64_t size = 0;         // the whole region

    constexpr std::int64_t group_at(std::int64_t group) const {
        return SHMRM_HEAD_SIZE + group * group_stride;
    }
    constexpr std::int64_t resource_at(std::int64_t group, std::int64_t slot) const {
        return group_at(group) + SHMRM_GRP_HEAD_SIZE + slot * SHMRM_RSC_SIZE;
    }
    constexpr std::int64_t monitor_at(std::int64_t monitor) const {
        return monitors_at + monitor * SHMRM_MON_SIZE;
    }
};

// The geometry of capacities that describe a region: none negative, and the whole below
// kRegionLimit. Nothing for any others; no step of the computation can overflow.
constexpr std::optional<Geometry> geometry(Capacities c) {
    if (c.grpmax < 0 || c.rscmax < 0 || c.monmax < 0) return std::nullopt;
    Geometry geo;
    geo.group_stride = group_stride(c.rscmax);  // below 2^31 * 2^10
    if (c.grpmax > kRegionLimit / geo.group_stride) return std::nullopt;
    geo.monitors_at = SHMRM_HEAD_SIZE + c.grpmax * geo.group_stride;
    geo.size = geo.monitors_at + std::int64_t{c.monmax} * SHMRM_MON_SIZE;
    if (geo.size >= kRegionLimit) return std::nullopt;
    return geo;
}

}  // namespace shmrm
