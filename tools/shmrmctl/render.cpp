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

// A record's columns: `keys` first, then its words in row order, then `counts`, then what its
// other rows show, in the order of Other.
template <typename Record>
std::vector<std::string> columns(std::initializer_list<const char*> keys,
                                 std::initializer_list<const char*> counts = {}) {
    std::vector<std::string> out(keys.begin(), keys.end());
    Record::each([&](auto word) { out.emplace_back(word.name); });
    out.insert(out.end(), counts.begin(), counts.end());
    if constexpr (Record::has(Other::kText)) out.emplace_back("sv");
    if constexpr (Record::has(Other::kProgress)) {
        for (const char* c : {"progress", "tick3", "tick4", "secs"})
            out.emplace_back(c);
    }
    if constexpr (Record::has(Other::kDescript)) out.emplace_back("descript");
    if constexpr (Record::has(Other::kFree)) out.emplace_back("free");
    return out;
}

// A record's cells in the order of columns<Record>: `keys` and `counts` are given.
template <typename Record>
std::vector<std::string> cells(const Record& r, std::vector<std::string> keys,
                               std::initializer_list<std::string> counts, const ViewOptions& o) {
    std::vector<std::string> out = std::move(keys);
    Record::each([&](auto word) {
        const auto v = r.*word.value;
        if constexpr (kFlagWord<typename decltype(word)::Value>) {
            out.push_back(fmt::format("0x{:04x}", v));
        } else {
            out.push_back(num(v));
        }
    });
    out.insert(out.end(), counts.begin(), counts.end());
    const std::size_t w = o.text_width;
    if constexpr (Record::has(Other::kText)) out.push_back(cut(r.sv, w));
    if constexpr (Record::has(Other::kProgress)) {
        for (auto&& c : {num(r.progress), num(r.tick3), num(r.tick4), duration_cell(r, o)})
            out.push_back(c);
    }
    if constexpr (Record::has(Other::kDescript)) out.push_back(cut(r.descript, w));
    if constexpr (Record::has(Other::kFree)) out.push_back(free_cell(r.free, w));
    return out;
}

// A record as a JSON object: its words by name, and what its other rows hold.
template <typename Record>
nlohmann::json object(const Record& r) {
    nlohmann::json j = nlohmann::json::object();
    Record::each([&](auto word) { j[std::string(word.name)] = r.*word.value; });
    if constexpr (Record::has(Other::kText)) j["sv"] = r.sv;
    if constexpr (Record::has(Other::kProgress)) {
        j["progress"] = r.progress;
        j["tick3"] = r.tick3;
        j["tick4"] = r.tick4;
    }
    if constexpr (Record::has(Other::kDescript)) j["descript"] = r.descript;
    if constexpr (Record::has(Other::kFree)) j["free"] = hex(r.free.data(), r.free.size());
    return j;
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
    auto index = [](std::size_t i) { return num(static_cast<long long>(i)); };
    if (s.has_header) {
        const Header& h = s.header;
        Table region{"region",
                     columns<Header>({"size", "grpmax", "rscmax", "monmax", "grpcnt", "moncnt"}),
                     {}};
        region.rows.push_back(
            cells(h,
                  {num(static_cast<long long>(s.size)), num(h.caps.grpmax), num(h.caps.rscmax),
                   num(h.caps.monmax), num(h.grpcnt), num(h.moncnt)},
                  {}, o));
        out.push_back(std::move(region));
    }
    Table groups{"groups", columns<Group>({"#", "name"}, {"rsccnt"}), {}};
    Table resources{"resources", columns<Resource>({"group", "#", "type", "name"}), {}};
    for (std::size_t g = 0; g < s.groups.size(); ++g) {
        const Group& grp = s.groups[g];
        groups.rows.push_back(cells(grp, {index(g), cut(grp.name, w)}, {num(grp.rsccnt)}, o));
        for (std::size_t j = 0; j < grp.resources.size(); ++j) {
            const Resource& r = grp.resources[j];
            resources.rows.push_back(
                cells(r, {cut(grp.name, w), index(j), cut(r.type, w), cut(r.name, w)}, {}, o));
        }
    }
    out.push_back(std::move(groups));
    out.push_back(std::move(resources));
    Table monitors{"monitors", columns<Monitor>({"#", "type", "name"}), {}};
    for (std::size_t k = 0; k < s.monitors.size(); ++k) {
        const Monitor& m = s.monitors[k];
        monitors.rows.push_back(cells(m, {index(k), cut(m.type, w), cut(m.name, w)}, {}, o));
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
        json& head = j["header"] = object(h);
        head["grpmax"] = h.caps.grpmax;
        head["rscmax"] = h.caps.rscmax;
        head["monmax"] = h.caps.monmax;
        head["grpcnt"] = h.grpcnt;
        head["moncnt"] = h.moncnt;
    } else {
        j["header"] = nullptr;
    }
    j["groups"] = json::array();
    for (const Group& g : s.groups) {
        json rs = json::array();
        for (const Resource& r : g.resources) {
            json& rj = rs.emplace_back(object(r));
            rj["name"] = r.name;
            rj["type"] = r.type;
        }
        json& gj = j["groups"].emplace_back(object(g));
        gj["name"] = g.name;
        gj["rsccnt"] = g.rsccnt;
        gj["resources"] = std::move(rs);
    }
    j["monitors"] = json::array();
    for (const Monitor& m : s.monitors) {
        json& mj = j["monitors"].emplace_back(object(m));
        mj["name"] = m.name;
        mj["type"] = m.type;
    }
    j["damage"] = s.damage;
    return j;
}

std::string json_text(const Snapshot& s) {
    return to_json(s).dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace shmrmctl
