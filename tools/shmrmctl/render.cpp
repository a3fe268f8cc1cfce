#include "render.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <cwchar>
#include <set>

namespace shmrmctl {

namespace {

using nlohmann::ordered_json;

std::string num(long long v) {
    return std::to_string(v);
}

// Calls f(bytes, width) for each character of a text: its bytes and the columns it takes, or
// -1 for a byte that is no printable character. Widths come from the C library and the
// locale's character set (LC_CTYPE, set by the program); Windows builds print ASCII only.
template <typename F>
void each_character(std::string_view text, F f) {
#if defined(_WIN32)
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto u = static_cast<unsigned char>(text[i]);
        f(text.substr(i, 1), u >= 0x20 && u < 0x7f ? 1 : -1);
    }
#else
    std::mbstate_t state{};
    std::size_t i = 0;
    while (i < text.size()) {
        wchar_t wc = 0;
        const std::size_t n = std::mbrtowc(&wc, text.data() + i, text.size() - i, &state);
        if (n == 0 || n == static_cast<std::size_t>(-1) || n == static_cast<std::size_t>(-2)) {
            f(text.substr(i, 1), -1);
            state = {};
            ++i;
            continue;
        }
        f(text.substr(i, n), wcwidth(wc));
        i += n;
    }
#endif
}

// The free area in a table: its bytes up to the last non-zero one, in hex.
std::string free_cell(const std::array<std::uint8_t, 256>& data) {
    std::size_t used = data.size();
    while (used > 0 && data[used - 1] == 0)
        --used;
    return hex(data.data(), used);
}

// The seconds a monitor's progress has taken: from step 3 to step 4, or from step 3 until now
// (still running); none when its stamps do not tell.
std::optional<double> progress_seconds(const Monitor& m, const ViewOptions& o, bool& running) {
    running = false;
    if (m.tick3 != 0 && m.tick4 != 0 && m.progress == 4) return tick_seconds(m.tick3, m.tick4);
    if (m.tick3 != 0 && m.progress == 3 && o.now_tick) {
        running = true;
        return tick_seconds(m.tick3, *o.now_tick);
    }
    return std::nullopt;
}

std::string duration_cell(const Monitor& m, const ViewOptions& o) {
    bool running = false;
    const auto secs = progress_seconds(m, o, running);
    if (!secs) return "-";
    return fmt::format("{:.1f}{}", *secs, running ? "+" : "");
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
    Record::each([&](auto word) { out.push_back(word_text(r.*word.value)); });
    out.insert(out.end(), counts.begin(), counts.end());
    if constexpr (Record::has(Other::kText)) out.push_back(r.sv);
    if constexpr (Record::has(Other::kProgress)) {
        for (auto&& c : {num(r.progress), num(r.tick3), num(r.tick4), duration_cell(r, o)})
            out.push_back(c);
    }
    if constexpr (Record::has(Other::kDescript)) out.push_back(r.descript);
    if constexpr (Record::has(Other::kFree)) out.push_back(free_cell(r.free));
    return out;
}

// A record's attributes as JSON, in the order of its schema rows (the capacities of the
// header's maxvalue are keys of their own, written first).
#define SHMRMCTL_JSON_word(name) j[#name] = r.name;
#define SHMRMCTL_JSON_text(name) j[#name] = r.name;
#define SHMRMCTL_JSON_descript(name) j[#name] = r.name;
#define SHMRMCTL_JSON_free(name) j[#name] = hex(r.name.data(), r.name.size());
#define SHMRMCTL_JSON_maxvalue(name)
#define SHMRMCTL_JSON_progress(name)                                    \
    {                                                                   \
        bool running = false;                                           \
        const auto secs = progress_seconds(r, o, running);              \
        j["progress"] = r.progress;                                     \
        j["tick3"] = r.tick3;                                           \
        j["tick4"] = r.tick4;                                           \
        j["secs"] = secs ? ordered_json(*secs) : ordered_json(nullptr); \
    }
#define SHMRMCTL_JSON_ROW(name, shape, ...) SHMRMCTL_JSON_##shape(name)

void add_rows(ordered_json& j, const Header& r, const ViewOptions&) {
    SHMRM_HEADER_ATTRIBUTES(SHMRMCTL_JSON_ROW)
}
void add_rows(ordered_json& j, const Group& r, const ViewOptions&) {
    SHMRM_GROUP_ATTRIBUTES(SHMRMCTL_JSON_ROW)
}
void add_rows(ordered_json& j, const Resource& r, const ViewOptions&) {
    SHMRM_RESOURCE_ATTRIBUTES(SHMRMCTL_JSON_ROW)
}
void add_rows(ordered_json& j, const Monitor& r,
              const ViewOptions& o){SHMRM_MONITOR_ATTRIBUTES(SHMRMCTL_JSON_ROW)}
#undef SHMRMCTL_JSON_word
#undef SHMRMCTL_JSON_text
#undef SHMRMCTL_JSON_descript
#undef SHMRMCTL_JSON_free
#undef SHMRMCTL_JSON_maxvalue
#undef SHMRMCTL_JSON_progress
#undef SHMRMCTL_JSON_ROW

ordered_json resource_json(const Resource& r, const std::string* group) {
    ordered_json j = ordered_json::object();
    if (group != nullptr) j["group"] = *group;
    j["type"] = r.type;
    j["name"] = r.name;
    add_rows(j, r, {});
    return j;
}

bool wanted(const std::vector<std::string>& sections, const char* name) {
    return sections.empty() || std::find(sections.begin(), sections.end(), name) != sections.end();
}

}  // namespace

namespace detail {

bool text_column(const std::string& name) {
    static const std::set<std::string> texts = {"group",    "type", "name", "sv",
                                                "descript", "free", "what"};
    return texts.count(name) != 0;
}

std::string take_width(std::string_view text, std::size_t width) {
    std::string out;
    std::size_t used = 0;
    bool full = false;
    each_character(text, [&](std::string_view bytes, int w) {
        const std::size_t cols = w < 0 ? 1 : static_cast<std::size_t>(w);
        if (full || used + cols > width) {
            full = true;
            return;
        }
        out += bytes;
        used += cols;
    });
    return out;
}

std::vector<std::size_t> column_widths(const Table& t, const TableStyle& style) {
    const std::size_t n = t.columns.size();
    std::vector<std::size_t> widths(n, 0);
    for (std::size_t c = 0; c < n && style.headings; ++c)
        widths[c] = display_width(t.columns[c]);
    for (const auto& row : t.rows) {
        for (std::size_t c = 0; c < row.size() && c < n; ++c)
            widths[c] = std::max(widths[c], display_width(printable(row[c])));
    }
    if (style.width == 0 || !style.truncate || n == 0) return widths;
    constexpr std::size_t kNarrowest = 6;  // a text column is never cut below this
    std::size_t total = 2 * (n - 1);
    for (const std::size_t w : widths)
        total += w;
    // Cutting texts helps only when it makes the lines fit; otherwise they stay whole.
    std::size_t narrowest = 2 * (n - 1);
    for (std::size_t c = 0; c < n; ++c)
        narrowest += text_column(t.columns[c]) ? std::min(widths[c], kNarrowest) : widths[c];
    if (narrowest > style.width) return widths;
    while (total > style.width) {
        std::size_t widest = n;
        for (std::size_t c = 0; c < n; ++c) {
            if (text_column(t.columns[c]) && widths[c] > kNarrowest &&
                (widest == n || widths[c] > widths[widest])) {
                widest = c;
            }
        }
        if (widest == n) break;  // what is left is no text: the line stays wider
        const std::size_t shrink =
            std::min(total - style.width, widths[widest] - std::max(kNarrowest, std::size_t{1}));
        const std::size_t step = std::max<std::size_t>(1, shrink / 4);
        widths[widest] -= step;
        total -= step;
    }
    return widths;
}

}  // namespace detail

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

std::string printable(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    each_character(text, [&](std::string_view bytes, int w) {
        if (w < 0) {
            out += '?';
        } else {
            out += bytes;
        }
    });
    return out;
}

std::size_t display_width(std::string_view text) {
    std::size_t width = 0;
    each_character(
        text, [&](std::string_view, int w) { width += w < 0 ? 1 : static_cast<std::size_t>(w); });
    return width;
}

std::string fit_width(std::string_view text, std::size_t width) {
    if (display_width(text) <= width) return std::string(text);
    if (width == 0) return {};
    return detail::take_width(text, width - 1) + "~";
}

std::string raw_escaped(std::string_view text) {
    std::string out;
    each_character(text, [&](std::string_view bytes, int w) {
        if (w < 0 || bytes == " " || bytes == "\\") {
            for (const char c : bytes)
                out += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
        } else {
            out += bytes;
        }
    });
    return out;
}

double tick_seconds(std::uint32_t from, std::uint32_t to) {
    return static_cast<double>(static_cast<std::uint32_t>(to - from)) / 1000.0;
}

const std::vector<std::string>& section_names() {
    static const std::vector<std::string> names = {"region", "groups", "resources", "monitors"};
    return names;
}

std::vector<Table> tables(const Snapshot& s, const ViewOptions& o) {
    std::vector<Table> out;
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
        groups.rows.push_back(cells(grp, {index(g), grp.name}, {num(grp.rsccnt)}, o));
        for (std::size_t j = 0; j < grp.resources.size(); ++j) {
            const Resource& r = grp.resources[j];
            resources.rows.push_back(cells(r, {grp.name, index(j), r.type, r.name}, {}, o));
        }
    }
    out.push_back(std::move(groups));
    out.push_back(std::move(resources));
    Table monitors{"monitors", columns<Monitor>({"#", "type", "name"}), {}};
    for (std::size_t k = 0; k < s.monitors.size(); ++k) {
        const Monitor& m = s.monitors[k];
        monitors.rows.push_back(cells(m, {index(k), m.type, m.name}, {}, o));
    }
    out.push_back(std::move(monitors));
    if (!s.damage.empty()) {
        Table damage{"damage", {"what"}, {}};
        for (const auto& d : s.damage)
            damage.rows.push_back({d});
        out.push_back(std::move(damage));
    }
    return out;
}

Table select_columns(const Table& t, const std::vector<std::string>& names) {
    std::vector<std::size_t> picked;
    for (const auto& name : names) {
        const auto at = std::find(t.columns.begin(), t.columns.end(), name);
        if (at != t.columns.end())
            picked.push_back(static_cast<std::size_t>(at - t.columns.begin()));
    }
    Table out{t.title, {}, {}};
    for (const std::size_t c : picked)
        out.columns.push_back(t.columns[c]);
    for (const auto& row : t.rows) {
        auto& cells_out = out.rows.emplace_back();
        for (const std::size_t c : picked)
            cells_out.push_back(c < row.size() ? row[c] : std::string());
    }
    return out;
}

Table compact(const Table& t) {
    static const std::vector<std::pair<std::string, std::vector<std::string>>> kept = {
        {"region", {"grpcnt", "moncnt", "acstat", "acstat2", "pow32port"}},
        {"groups", {"#", "name", "stat", "flag", "focnt", "rsccnt", "sv"}},
        {"resources", {"group", "type", "name", "stat", "focnt", "sv"}},
        {"monitors", {"type", "name", "stat", "fo", "proc", "progress", "secs", "descript"}},
    };
    for (const auto& [title, names] : kept) {
        if (t.title == title) return select_columns(t, names);
    }
    return t;
}

std::vector<std::string> format_table(const Table& t, const TableStyle& style) {
    return format_table(
        t, style, [](std::size_t, std::size_t) { return false; }, "", "");
}

std::string rfc3339(std::int64_t seconds) {
    return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(static_cast<std::time_t>(seconds)));
}

ordered_json to_json(const Snapshot& s, const ViewOptions& o,
                     const std::vector<std::string>& sections) {
    ordered_json j;
    j["version"] = kJsonVersion;
    j["time"] = o.taken_at ? ordered_json(rfc3339(*o.taken_at)) : ordered_json(nullptr);
    if (wanted(sections, "region")) {
        j["size"] = s.size;
        if (s.has_header) {
            const Header& h = s.header;
            ordered_json& head = j["header"] = ordered_json::object();
            head["grpmax"] = h.caps.grpmax;
            head["rscmax"] = h.caps.rscmax;
            head["monmax"] = h.caps.monmax;
            head["grpcnt"] = h.grpcnt;
            head["moncnt"] = h.moncnt;
            add_rows(head, h, o);
        } else {
            j["header"] = nullptr;
        }
    }
    if (wanted(sections, "groups")) {
        j["groups"] = ordered_json::array();
        for (const Group& g : s.groups) {
            ordered_json& gj = j["groups"].emplace_back(ordered_json::object());
            gj["name"] = g.name;
            add_rows(gj, g, o);
            gj["rsccnt"] = g.rsccnt;
            gj["resources"] = ordered_json::array();
            for (const Resource& r : g.resources)
                gj["resources"].push_back(resource_json(r, nullptr));
        }
    }
    if (!sections.empty() && wanted(sections, "resources") && !wanted(sections, "groups")) {
        // Asked for alone, the resources are one list, each with its group.
        j["resources"] = ordered_json::array();
        for (const Group& g : s.groups) {
            for (const Resource& r : g.resources)
                j["resources"].push_back(resource_json(r, &g.name));
        }
    }
    if (wanted(sections, "monitors")) {
        j["monitors"] = ordered_json::array();
        for (const Monitor& m : s.monitors) {
            ordered_json& mj = j["monitors"].emplace_back(ordered_json::object());
            mj["type"] = m.type;
            mj["name"] = m.name;
            add_rows(mj, m, o);
        }
    }
    j["damage"] = s.damage;
    return j;
}

std::string json_text(const Snapshot& s, const ViewOptions& o,
                      const std::vector<std::string>& sections) {
    return to_json(s, o, sections).dump(2, ' ', false, ordered_json::error_handler_t::replace);
}

}  // namespace shmrmctl
