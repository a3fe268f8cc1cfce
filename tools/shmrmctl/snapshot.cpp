#include "snapshot.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <limits>

#include "vexshmrm.h"

namespace shmrmctl {

namespace {

constexpr std::int64_t kHead = SHMRM_HEAD_SIZE;
constexpr std::int64_t kGrpHead = SHMRM_GRP_HEAD_SIZE;
constexpr std::int64_t kRsc = SHMRM_RSC_SIZE;
constexpr std::int64_t kMon = SHMRM_MON_SIZE;
// A region is always below 2 GiB; nothing larger is decoded or read from a file.
constexpr std::int64_t kMaxRegion = shmrm::kRegionLimit - 1;

// The text of a fixed field: up to its first NUL, never past the field.
template <std::size_t N>
std::string text(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}
template <std::size_t N>
bool terminated(const char (&field)[N]) {
    return std::memchr(field, '\0', N) != nullptr;
}

template <typename T>
T record_at(ByteView bytes, std::int64_t offset) {
    T record;
    std::memcpy(&record, bytes.data() + offset, sizeof record);
    return record;
}

// Whether `real` bytes hold a region of `described` bytes: exactly, or as a view rounded up to
// whole pages of `page` bytes.
bool holds_region_of(std::int64_t real, std::int64_t described, std::size_t page) {
    const auto unit = static_cast<std::int64_t>(std::max<std::size_t>(page, 1));
    return real == described || real == (described + unit - 1) / unit * unit;
}

std::string caps_text(Capacities c) {
    return fmt::format("grpmax {}, rscmax {}, monmax {}", c.grpmax, c.rscmax, c.monmax);
}

// The first non-zero byte of [offset, offset + length), clipped to the buffer; -1 when none.
std::int64_t first_nonzero(ByteView bytes, std::int64_t offset, std::int64_t length) {
    const std::int64_t end = std::min<std::int64_t>(offset + length, std::ssize(bytes));
    for (std::int64_t i = offset; i < end; ++i) {
        if (bytes[static_cast<std::size_t>(i)] != std::byte{0}) return i - offset;
    }
    return -1;
}

Resource decode_resource(const rmrsc& r) {
    Resource out;
    out.name = text(r.name);
    out.type = text(r.type);
    out.descript = text(r.descript);
    std::memcpy(out.free.data(), r.free, out.free.size());
    out.sv = text(r.sv);
    copy_words<ResourceWords>(r, out);
    return out;
}

Monitor decode_monitor(const rmmon& m) {
    Monitor out;
    out.name = text(m.name);
    out.type = text(m.type);
    out.descript = text(m.descript);
    copy_words<MonitorWords>(m, out);
    out.progress = m.progress;
    out.tick3 = m.tick3;
    out.tick4 = m.tick4;
    return out;
}

bool fits(ByteView bytes, std::int64_t offset, std::int64_t length) {
    return offset >= 0 && offset + length <= std::ssize(bytes);
}

// The number of records to visit for a count: the count, clamped to the capacity.
int clamp_count(int count, int capacity) {
    return std::clamp(count, 0, std::max(capacity, 0));
}

// Walks the region once; decoding and checking share it. `check` adds the lines that only the
// checker reports (terminators, non-zero free positions).
Snapshot walk(ByteView bytes, std::optional<Capacities> layout, std::size_t page, bool checking) {
    Snapshot s;
    s.size = bytes.size();
    auto& damage = s.damage;
    if (std::ssize(bytes) < kHead) {
        damage.push_back(
            fmt::format("size: {} bytes, fewer than the {}-byte header", bytes.size(), kHead));
        return s;
    }
    if (std::ssize(bytes) > kMaxRegion) {
        damage.push_back(fmt::format("size: {} bytes, larger than any region", bytes.size()));
        return s;
    }
    const auto head = record_at<rmhead>(bytes, 0);
    s.has_header = true;
    Header& h = s.header;
    h.caps = {head.grpmax, head.rscmax, head.monmax};
    h.grpcnt = head.grpcnt;
    h.moncnt = head.moncnt;
    copy_words<HeaderWords>(head, h);

    const Capacities caps = layout.value_or(h.caps);
    if (layout && *layout != h.caps) {
        damage.push_back(fmt::format("capacities: the header says {}, the layout is {}",
                                     caps_text(h.caps), caps_text(caps)));
    }
    if (checking && (caps.grpmax < 1 || caps.rscmax < 1 || caps.monmax < 1)) {
        damage.push_back(fmt::format("capacities: {}; each must be at least 1", caps_text(caps)));
    }
    const auto found = shmrm::geometry(caps);
    if (!found) {
        damage.push_back(
            fmt::format("geometry: {} describe no region below 2 GiB", caps_text(caps)));
        return s;
    }
    const shmrm::Geometry& geo = *found;
    if (!holds_region_of(std::ssize(bytes), geo.size, page)) {
        damage.push_back(fmt::format("geometry: {} give {} bytes, the region has {}",
                                     caps_text(caps), geo.size, bytes.size()));
    }
    if (h.grpcnt < 0 || h.grpcnt > caps.grpmax) {
        damage.push_back(fmt::format("grpcnt: {} outside 0..{}", h.grpcnt, caps.grpmax));
    }
    if (h.moncnt < 0 || h.moncnt > caps.monmax) {
        damage.push_back(fmt::format("moncnt: {} outside 0..{}", h.moncnt, caps.monmax));
    }

    const int groups = clamp_count(h.grpcnt, caps.grpmax);
    for (int g = 0; g < caps.grpmax; ++g) {
        const std::int64_t at = geo.group_at(g);
        if (g >= groups) {  // a free position
            if (!checking) break;
            const std::int64_t nz = first_nonzero(bytes, at, geo.group_stride);
            if (nz >= 0) {
                damage.push_back(
                    fmt::format("group position {}: free but byte {} is not zero", g, nz));
            }
            continue;
        }
        if (!fits(bytes, at, kGrpHead)) {
            damage.push_back(fmt::format("group {}: lies past the end of the bytes", g));
            break;
        }
        const auto head_g = record_at<rmgrp>(bytes, at);
        Group grp;
        grp.name = text(head_g.name);
        grp.sv = text(head_g.sv);
        grp.rsccnt = head_g.rsccnt;
        copy_words<GroupWords>(head_g, grp);
        if (checking && !terminated(head_g.name)) {
            damage.push_back(fmt::format("group {}: name has no NUL within 32 bytes", g));
        }
        if (checking && !terminated(head_g.sv)) {
            damage.push_back(
                fmt::format("group {} '{}': sv has no NUL within 256 bytes", g, grp.name));
        }
        if (grp.rsccnt < 0 || grp.rsccnt > caps.rscmax) {
            damage.push_back(fmt::format("group {} '{}': rsccnt {} outside 0..{}", g, grp.name,
                                         grp.rsccnt, caps.rscmax));
        }
        const int used = clamp_count(grp.rsccnt, caps.rscmax);
        for (int j = 0; j < caps.rscmax; ++j) {
            const std::int64_t slot = geo.resource_at(g, j);
            if (j >= used) {
                if (!checking) break;
                const std::int64_t nz = first_nonzero(bytes, slot, kRsc);
                if (nz >= 0) {
                    damage.push_back(
                        fmt::format("group {} '{}': free resource slot {}: byte {} is not zero", g,
                                    grp.name, j, nz));
                }
                continue;
            }
            if (!fits(bytes, slot, kRsc)) {
                damage.push_back(fmt::format(
                    "group {} '{}': resource {} lies past the end of the bytes", g, grp.name, j));
                break;
            }
            const auto r = record_at<rmrsc>(bytes, slot);
            if (checking && !terminated(r.name)) {
                damage.push_back(fmt::format(
                    "group {} '{}': resource {}: name has no NUL within 32 bytes", g, grp.name, j));
            }
            if (checking && !terminated(r.type)) {
                damage.push_back(fmt::format(
                    "group {} '{}': resource {}: type has no NUL within 32 bytes", g, grp.name, j));
            }
            grp.resources.push_back(decode_resource(r));
        }
        s.groups.push_back(std::move(grp));
    }

    const int monitors = clamp_count(h.moncnt, caps.monmax);
    for (int k = 0; k < caps.monmax; ++k) {
        const std::int64_t at = geo.monitor_at(k);
        if (k >= monitors) {
            if (!checking) break;
            const std::int64_t nz = first_nonzero(bytes, at, kMon);
            if (nz >= 0) {
                damage.push_back(
                    fmt::format("monitor position {}: free but byte {} is not zero", k, nz));
            }
            continue;
        }
        if (!fits(bytes, at, kMon)) {
            damage.push_back(fmt::format("monitor {}: lies past the end of the bytes", k));
            break;
        }
        const auto m = record_at<rmmon>(bytes, at);
        if (checking && !terminated(m.name)) {
            damage.push_back(fmt::format("monitor {}: name has no NUL within 32 bytes", k));
        }
        if (checking && !terminated(m.type)) {
            damage.push_back(fmt::format("monitor {}: type has no NUL within 32 bytes", k));
        }
        s.monitors.push_back(decode_monitor(m));
    }
    return s;
}

void put32(Bytes& out, std::size_t at, std::uint32_t v) {
    std::memcpy(&out[at], &v, sizeof v);
}
void put64(Bytes& out, std::size_t at, std::uint64_t v) {
    std::memcpy(&out[at], &v, sizeof v);
}
template <typename T>
T get(ByteView in, std::size_t at) {
    T v;
    std::memcpy(&v, in.data() + at, sizeof v);
    return v;
}

}  // namespace

Snapshot decode(ByteView bytes, std::optional<Capacities> layout, std::size_t page) {
    return walk(bytes, layout, page, false);
}

std::vector<std::string> check(ByteView bytes, std::optional<Capacities> layout, std::size_t page) {
    return walk(bytes, layout, page, true).damage;
}

Capacities header_caps(ByteView bytes) {
    if (std::ssize(bytes) < kHead) return {};
    const auto head = record_at<rmhead>(bytes, 0);
    return {head.grpmax, head.rscmax, head.monmax};
}

// Layout: magic[8], version u32, header size u32, region size u64, grpmax, rscmax, monmax
// (i32 each), reserved u32; little-endian.
Bytes encode_dump(ByteView region, Capacities caps) {
    Bytes out(kDumpHeaderSize + region.size());
    std::memcpy(out.data(), kDumpMagic, sizeof kDumpMagic);
    put32(out, 8, kDumpVersion);
    put32(out, 12, static_cast<std::uint32_t>(kDumpHeaderSize));
    put64(out, 16, region.size());
    put32(out, 24, static_cast<std::uint32_t>(caps.grpmax));
    put32(out, 28, static_cast<std::uint32_t>(caps.rscmax));
    put32(out, 32, static_cast<std::uint32_t>(caps.monmax));
    std::copy(region.begin(), region.end(), out.begin() + kDumpHeaderSize);
    return out;
}

std::optional<DumpFile> parse_dump(ByteView file, std::string& error) {
    if (file.size() < kDumpHeaderSize ||
        std::memcmp(file.data(), kDumpMagic, sizeof kDumpMagic) != 0) {
        error = "not a shmrmctl dump file";
        return std::nullopt;
    }
    const auto version = get<std::uint32_t>(file, 8);
    const auto header_size = get<std::uint32_t>(file, 12);
    if (version != kDumpVersion || header_size != kDumpHeaderSize) {
        error = fmt::format("dump file version {} (header {} bytes) is not supported", version,
                            header_size);
        return std::nullopt;
    }
    DumpFile d;
    const auto size = get<std::uint64_t>(file, 16);
    d.caps = {get<std::int32_t>(file, 24), get<std::int32_t>(file, 28),
              get<std::int32_t>(file, 32)};
    const std::size_t held = file.size() - kDumpHeaderSize;
    if (size > held) {
        d.damage.push_back(
            fmt::format("truncated: the file header says {} bytes, the file holds {}", size, held));
    } else if (size < held) {
        d.damage.push_back(
            fmt::format("{} bytes follow the {} bytes of the region", held - size, size));
    }
    const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(size, held));
    d.bytes.assign(file.begin() + kDumpHeaderSize,
                   file.begin() + static_cast<std::ptrdiff_t>(kDumpHeaderSize + n));
    return d;
}

std::optional<Bytes> read_file(const std::string& path, std::string& error) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) {
        error = fmt::format("cannot open {}", path);
        return std::nullopt;
    }
    const std::streamoff length = in.tellg();
    if (length < 0 || length > kMaxRegion + static_cast<std::int64_t>(kDumpHeaderSize)) {
        error = fmt::format("{}: not a dump file (size {})", path, length);
        return std::nullopt;
    }
    Bytes out(static_cast<std::size_t>(length));
    in.seekg(0);
    in.read(reinterpret_cast<char*>(out.data()), length);
    if (in.gcount() != length) {
        error = fmt::format("{}: read failed", path);
        return std::nullopt;
    }
    return out;
}

}  // namespace shmrmctl
