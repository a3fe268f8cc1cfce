#include "ledger.h"

#include <cstring>
#include <string_view>

#include "region_layout.h"
#include "text.h"
#include "vexshmrm.h"

namespace stress {

void need(int rc, const char* call, int expect) {
    if (rc != expect) {
        throw Failure(cat(call, " gave ", result_name(rc), ", expected ", result_name(expect)));
    }
}

bool settle_abandoned() {
    int tag = 0;
    need(shmrm_getacstat2(&tag), "shmrm_getacstat2");
    if (tag == kNoSeries) return false;
    const Identity dead(tag - 2);
    int c = 0, p = 0;
    need(shmrm_getgrpfocnt(dead.group.c_str(), &c), "shmrm_getgrpfocnt (dead holder)");
    need(shmrm_getgrpretrycnt(dead.group.c_str(), &p), "shmrm_getgrpretrycnt (dead holder)");
    if (c == p) {
        int target = 0;
        need(shmrm_getpow32port(&target), "shmrm_getpow32port");
        need(shmrm_setacstat(target), "shmrm_setacstat (settling)");
    }
    need(shmrm_setacstat2(kNoSeries), "shmrm_setacstat2 (settling)");
    return true;
}

void begin_series(const Identity& id, int seq) {
    int count = 0;
    need(shmrm_setgrpretrycnt(id.group.c_str(), seq), "shmrm_setgrpretrycnt");
    need(shmrm_getacstat(&count), "shmrm_getacstat");
    need(shmrm_setpow32port(count + 1), "shmrm_setpow32port");
    need(shmrm_setacstat2(2 + id.slot), "shmrm_setacstat2");
}

void commit_series(const Identity& id, int seq) {
    int target = 0;
    need(shmrm_setgrpfocnt(id.group.c_str(), seq), "shmrm_setgrpfocnt (commit)");
    need(shmrm_getpow32port(&target), "shmrm_getpow32port");
    need(shmrm_setacstat(target), "shmrm_setacstat");
    need(shmrm_setacstat2(kNoSeries), "shmrm_setacstat2");
}

void dump_region(shmrmctl::Bytes& into) {
    int size = 0;
    need(shmrm_dump(nullptr, &size), "shmrm_dump (size)");
    if (size <= 0) throw Failure(cat("shmrm_dump: region size ", size));
    into.resize(static_cast<std::size_t>(size));
    need(shmrm_dump(into.data(), &size), "shmrm_dump");
}

shmrmctl::Bytes dump_region() {
    shmrmctl::Bytes bytes;
    dump_region(bytes);
    return bytes;
}

void others_of(const shmrmctl::Bytes& region, const Identity& id, shmrmctl::Bytes& out) {
    rmhead h;
    if (region.size() < sizeof h) throw Failure("dump: shorter than the header");
    std::memcpy(&h, region.data(), sizeof h);
    const auto geo = shmrm::geometry({h.grpmax, h.rscmax, h.monmax});
    if (!geo || h.grpcnt < 0 || h.moncnt < 0 || h.grpcnt > h.grpmax || h.moncnt > h.monmax ||
        geo->size > std::ssize(region)) {
        throw Failure(cat("dump: header grpmax ", h.grpmax, " rscmax ", h.rscmax, " monmax ",
                          h.monmax, " grpcnt ", h.grpcnt, " moncnt ", h.moncnt, " does not fit ",
                          region.size(), " bytes"));
    }
    const auto stride = static_cast<std::size_t>(geo->group_stride);
    auto name_at = [&](std::size_t at) {
        const char* p = reinterpret_cast<const char*>(region.data() + at);
        return std::string_view(p, strnlen(p, SHMRM_NAME_LEN));
    };
    out.assign(region.begin(), region.begin() + SHMRM_HEAD_SIZE);
    rmhead counts = h;
    for (int g = 0; g < h.grpcnt; ++g) {
        const auto at = static_cast<std::size_t>(geo->group_at(g));
        const auto name = name_at(at);
        if (name == id.group || name == id.scratch) {
            --counts.grpcnt;
        } else {
            out.insert(out.end(), region.begin() + static_cast<std::ptrdiff_t>(at),
                       region.begin() + static_cast<std::ptrdiff_t>(at + stride));
        }
    }
    for (int m = 0; m < h.moncnt; ++m) {
        const auto at = static_cast<std::size_t>(geo->monitor_at(m));
        if (name_at(at).starts_with(id.monitor_prefix)) {
            --counts.moncnt;
        } else {
            out.insert(out.end(), region.begin() + static_cast<std::ptrdiff_t>(at),
                       region.begin() + static_cast<std::ptrdiff_t>(at + SHMRM_MON_SIZE));
        }
    }
    std::memcpy(out.data(), &counts, sizeof counts);
}

namespace {

// A name list: a size query, then the list; the names in order.
template <typename List>
std::vector<std::string> names(const char* call, List list) {
    int size = 0;
    need(list(nullptr, &size), call);
    if (size < 2) throw Failure(cat(call, ": size query gave ", size));
    std::vector<char> buf(static_cast<std::size_t>(size));
    const int asked = size;
    need(list(buf.data(), &size), call);
    if (size != asked) throw Failure(cat(call, ": size ", size, " after a query of ", asked));
    std::vector<std::string> out;
    for (std::size_t at = 0; at < buf.size() && buf[at] != '\0';) {
        out.emplace_back(&buf[at]);
        at += out.back().size() + 1;
    }
    return out;
}

// Reads every word of a record through its getter, in row order, given the record's keys. A
// field narrower than what its getter writes must come back sign-extended.
template <typename Words, typename... Keys>
void read_words(Words& out, Keys... keys) {
    Words::each_export([&](auto w) {
        using V = typename decltype(w)::GetValue;
        using T = typename decltype(w)::Value;
        const std::string call(w.get_name);
        V v{};
        need(w.get(keys..., &v), call.c_str());
        if constexpr (sizeof(T) < sizeof(V)) {
            if (v != static_cast<T>(v)) {
                throw Failure(
                    cat(call, ": ", v, " is not a sign-extended ", 8 * sizeof(T), "-bit value"));
            }
        }
        out.*w.value = static_cast<T>(v);
    });
}

std::optional<shmrmctl::Group> read_group(const std::string& group, bool present,
                                          const std::string& owner_group) {
    if (!present) return std::nullopt;
    const char* g = group.c_str();
    shmrmctl::Group out;
    out.name = group;
    char sv[SHMRM_TEXT_LEN] = {};
    need(shmrm_getgrpsv(g, sv), "shmrm_getgrpsv");
    out.sv = std::string(sv, strnlen(sv, sizeof sv));
    read_words<shmrmctl::GroupWords>(out, g);
    const auto rscs =
        names("shmrm_enumrsc", [&](char* buf, int* size) { return shmrm_enumrsc(g, buf, size); });
    out.rsccnt = static_cast<int>(rscs.size());
    for (const auto& name : rscs) {
        const char* n = name.c_str();
        shmrmctl::Resource r;
        r.name = name;
        char in_group[SHMRM_NAME_LEN] = {};
        char type[SHMRM_NAME_LEN] = {};
        need(shmrm_getrscinfo(in_group, type, n), "shmrm_getrscinfo");
        r.type = type;
        if (owner_group != in_group) {
            throw Failure(
                cat("shmrm_getrscinfo: ", name, " is in group ", in_group, ", not ", owner_group));
        }
        need(shmrm_getrscgrp(in_group, type, n), "shmrm_getrscgrp");
        if (owner_group != in_group) {
            throw Failure(
                cat("shmrm_getrscgrp: ", name, " is in group ", in_group, ", not ", owner_group));
        }
        const char* t = r.type.c_str();
        read_words<shmrmctl::ResourceWords>(r, g, t, n);
        char text[SHMRM_TEXT_LEN] = {};
        need(shmrm_getrscsv(g, t, n, text), "shmrm_getrscsv");
        r.sv = std::string(text, strnlen(text, sizeof text));
        int len = SHMRM_TEXT_LEN;
        need(shmrm_getrscfree(g, t, n, r.free.data(), &len), "shmrm_getrscfree");
        if (len != SHMRM_TEXT_LEN) throw Failure(cat("shmrm_getrscfree: length ", len));
        std::memset(text, 0, sizeof text);
        need(shmrm_getdescript(g, t, n, text, &len), "shmrm_getdescript");
        r.descript = std::string(text, strnlen(text, sizeof text));
        out.resources.push_back(std::move(r));
    }
    return out;
}

}  // namespace

OwnRecords read_own(const Identity& id) {
    const auto groups = names("shmrm_enumgrp", shmrm_enumgrp);
    int mains = 0, scratches = 0;
    for (const auto& g : groups) {
        mains += g == id.group;
        scratches += g == id.scratch;
    }
    if (mains != 1 || scratches > 1) {
        throw Failure(cat("shmrm_enumgrp lists ", id.group, " ", mains, " times and ", id.scratch,
                          " ", scratches, " times"));
    }
    OwnRecords out;
    out.main = read_group(id.group, true, id.group);
    out.scratch = read_group(id.scratch, scratches == 1, id.scratch);
    for (const auto& name : names("shmrm_enummon", shmrm_enummon)) {
        if (!name.starts_with(id.monitor_prefix)) continue;
        const char* n = name.c_str();
        shmrmctl::Monitor m;
        m.name = name;
        char type[SHMRM_NAME_LEN] = {};
        need(shmrm_getmoninfo(type, n), "shmrm_getmoninfo");
        m.type = type;
        const char* t = type;
        read_words<shmrmctl::MonitorWords>(m, t, n);
        need(shmrm_getmonprogress(t, n, &m.progress, &m.tick3, &m.tick4), "shmrm_getmonprogress");
        char text[SHMRM_TEXT_LEN] = {};
        const int len = SHMRM_TEXT_LEN;
        need(shmrm_getdescript(nullptr, t, n, text, &len), "shmrm_getdescript (monitor)");
        m.descript = std::string(text, strnlen(text, sizeof text));
        out.monitors.push_back(std::move(m));
    }
    return out;
}

}  // namespace stress
