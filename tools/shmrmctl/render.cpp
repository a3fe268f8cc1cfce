#include "render.h"

#include <fmt/format.h>

namespace shmrmctl {

namespace {

std::string cut(const std::string& text, std::size_t width) {
    std::string out = printable(text);
    if (out.size() > width) {
        out.resize(width - 1);
        out += '~';
    }
    return out;
}

std::string num(long long v) {
    return std::to_string(v);
}

// The free area in a table: its bytes up to the last non-zero one, in hex, cut like a text.
std::string free_cell(const std::array<std::uint8_t, 256>& data, std::size_t width) {
    std::size_t used = data.size();
    while (used > 0 && data[used - 1] == 0)
        --used;
    return cut(hex(data.data(), used), width);
}

std::string duration_cell(const Monitor& m, const ViewOptions& o) {
    if (m.tick3 != 0 && m.tick4 != 0 && m.progress == 4) {
        return fmt::format("{:.1f}", tick_seconds(m.tick3, m.tick4));
    }
    if (m.tick3 != 0 && m.progress == 3 && o.now_tick) {
        return fmt::format("{:.1f}+", tick_seconds(m.tick3, *o.now_tick));
    }
    return "-";
}

}  // namespace

std::string hex(const std::uint8_t* data, std::size_t length) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(length * 2);
    for (std::size_t i = 0; i < length; ++i) {
        out += digits[data[i] >> 4];
        out += digits[data[i] & 0xf];
    }
    return out;
}

std::string printable(const std::string& text) {
    std::string out = text;
    for (char& c : out) {
        const auto u = static_cast<unsigned char>(c);
        if (u < 0x20 || u >= 0x7f) c = '?';
    }
    return out;
}

double tick_seconds(std::uint32_t from, std::uint32_t to) {
    return static_cast<double>(static_cast<std::uint32_t>(to - from)) / 1000.0;
}

std::vector<Table> tables(const Snapshot& s, const ViewOptions& o) {
    std::vector<Table> out;
    const std::size_t w = o.text_width;
    if (s.has_header) {
        const Header& h = s.header;
        out.push_back({"region",
                       {"size", "grpmax", "rscmax", "monmax", "grpcnt", "moncnt", "acstat",
                        "acstat2", "pow32port"},
                       {{num(static_cast<long long>(s.size)), num(h.caps.groups),
                         num(h.caps.resources), num(h.caps.monitors), num(h.grpcnt), num(h.moncnt),
                         num(h.acstat), num(h.acstat2), num(h.pow32port)}}});
    }
    Table groups{
        "groups", {"#", "name", "stat", "env", "flag", "retrycnt", "focnt", "rsccnt", "sv"}, {}};
    Table resources{"resources",
                    {"group", "#", "type", "name", "stat", "focnt", "strtret", "stopret", "sv",
                     "descript", "free"},
                    {}};
    for (std::size_t g = 0; g < s.groups.size(); ++g) {
        const Group& grp = s.groups[g];
        groups.rows.push_back({num(static_cast<long long>(g)), cut(grp.name, w), num(grp.stat),
                               num(grp.env), fmt::format("0x{:04x}", grp.flag), num(grp.retrycnt),
                               num(grp.focnt), num(grp.rsccnt), cut(grp.sv, w)});
        for (std::size_t j = 0; j < grp.resources.size(); ++j) {
            const Resource& r = grp.resources[j];
            resources.rows.push_back({cut(grp.name, w), num(static_cast<long long>(j)),
                                      cut(r.type, w), cut(r.name, w), num(r.stat), num(r.focnt),
                                      num(r.strtret), num(r.stopret), cut(r.sv, w),
                                      cut(r.descript, w), free_cell(r.free, w)});
        }
    }
    out.push_back(std::move(groups));
    out.push_back(std::move(resources));
    Table monitors{
        "monitors",
        {"#",         "type",      "name",       "stat",      "fo",       "proc",      "inst",
         "instdata",  "scriptcnt", "restartcnt", "finactcnt", "simuflag", "targetpid", "ret",
         "parentpid", "progress",  "tick3",      "tick4",     "secs",     "descript"},
        {}};
    for (std::size_t k = 0; k < s.monitors.size(); ++k) {
        const Monitor& m = s.monitors[k];
        monitors.rows.push_back({num(static_cast<long long>(k)),
                                 cut(m.type, w),
                                 cut(m.name, w),
                                 num(m.stat),
                                 num(m.fo),
                                 num(m.proc),
                                 num(m.inst),
                                 num(m.instdata),
                                 num(m.scriptcnt),
                                 num(m.restartcnt),
                                 num(m.finactcnt),
                                 num(m.simuflag),
                                 num(m.targetpid),
                                 num(m.ret),
                                 num(m.parentpid),
                                 num(m.progress),
                                 num(m.tick3),
                                 num(m.tick4),
                                 duration_cell(m, o),
                                 cut(m.descript, w)});
    }
    out.push_back(std::move(monitors));
    if (!s.damage.empty()) {
        Table damage{"damage", {"what"}, {}};
        for (const auto& d : s.damage)
            damage.rows.push_back({printable(d)});
        out.push_back(std::move(damage));
    }
    return out;
}

std::vector<std::string> format_table(const Table& t) {
    return format_table(
        t, [](std::size_t, std::size_t) { return false; }, 0, "", "");
}

nlohmann::json to_json(const Snapshot& s) {
    using nlohmann::json;
    json j;
    j["size"] = s.size;
    if (s.has_header) {
        const Header& h = s.header;
        j["header"] = {{"grpmax", h.caps.groups},   {"rscmax", h.caps.resources},
                       {"monmax", h.caps.monitors}, {"grpcnt", h.grpcnt},
                       {"moncnt", h.moncnt},        {"acstat", h.acstat},
                       {"acstat2", h.acstat2},      {"pow32port", h.pow32port}};
    } else {
        j["header"] = nullptr;
    }
    j["groups"] = json::array();
    for (const Group& g : s.groups) {
        json rs = json::array();
        for (const Resource& r : g.resources) {
            rs.push_back({{"name", r.name},
                          {"type", r.type},
                          {"descript", r.descript},
                          {"free", hex(r.free.data(), r.free.size())},
                          {"sv", r.sv},
                          {"stat", r.stat},
                          {"focnt", r.focnt},
                          {"strtret", r.strtret},
                          {"stopret", r.stopret}});
        }
        j["groups"].push_back({{"name", g.name},
                               {"sv", g.sv},
                               {"stat", g.stat},
                               {"env", g.env},
                               {"rsccnt", g.rsccnt},
                               {"flag", g.flag},
                               {"retrycnt", g.retrycnt},
                               {"focnt", g.focnt},
                               {"resources", std::move(rs)}});
    }
    j["monitors"] = json::array();
    for (const Monitor& m : s.monitors) {
        j["monitors"].push_back({{"name", m.name},
                                 {"type", m.type},
                                 {"descript", m.descript},
                                 {"stat", m.stat},
                                 {"fo", m.fo},
                                 {"proc", m.proc},
                                 {"inst", m.inst},
                                 {"instdata", m.instdata},
                                 {"scriptcnt", m.scriptcnt},
                                 {"restartcnt", m.restartcnt},
                                 {"finactcnt", m.finactcnt},
                                 {"simuflag", m.simuflag},
                                 {"targetpid", m.targetpid},
                                 {"ret", m.ret},
                                 {"progress", m.progress},
                                 {"parentpid", m.parentpid},
                                 {"tick3", m.tick3},
                                 {"tick4", m.tick4}});
    }
    j["damage"] = s.damage;
    return j;
}

std::string json_text(const Snapshot& s) {
    return to_json(s).dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace shmrmctl
