#include "records.h"

#include <fmt/format.h>

#include <map>
#include <tuple>

#include "render.h"

namespace shmrmctl {

namespace {

// An attribute's value as `get` prints it, made from the record's schema rows.
#define SHMRMCTL_VALUE_word(name) word_text(r.name)
#define SHMRMCTL_VALUE_text(name) r.name
#define SHMRMCTL_VALUE_descript(name) r.name
#define SHMRMCTL_VALUE_free(name) hex(r.name.data(), r.name.size())
#define SHMRMCTL_VALUE_progress(name) fmt::format("{} {} {}", r.progress, r.tick3, r.tick4)
#define SHMRMCTL_VALUE_maxvalue(name) \
    fmt::format("{},{},{}", r.caps.grpmax, r.caps.rscmax, r.caps.monmax)
#define SHMRMCTL_VALUE_ROW(name, shape, ...) out.emplace_back(#name, SHMRMCTL_VALUE_##shape(name));

using Values = std::vector<std::pair<std::string, std::string>>;

Values values(const Header& r) {
    Values out;
    SHMRM_HEADER_ATTRIBUTES(SHMRMCTL_VALUE_ROW)
    return out;
}
Values values(const Group& r) {
    Values out;
    SHMRM_GROUP_ATTRIBUTES(SHMRMCTL_VALUE_ROW)
    return out;
}
Values values(const Resource& r) {
    Values out;
    SHMRM_RESOURCE_ATTRIBUTES(SHMRMCTL_VALUE_ROW)
    return out;
}
Values values(const Monitor& r) {
    Values out;
    SHMRM_MONITOR_ATTRIBUTES(SHMRMCTL_VALUE_ROW)
    return out;
}

#undef SHMRMCTL_VALUE_word
#undef SHMRMCTL_VALUE_text
#undef SHMRMCTL_VALUE_descript
#undef SHMRMCTL_VALUE_free
#undef SHMRMCTL_VALUE_progress
#undef SHMRMCTL_VALUE_maxvalue
#undef SHMRMCTL_VALUE_ROW

std::string quoted(const std::string& value) {
    if (!value.empty() && value.find_first_of(" \"\\") == std::string::npos) {
        return printable(value);
    }
    std::string out = "\"";
    for (const char c : printable(value)) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + '"';
}

}  // namespace

const char* kind_name(Kind kind) {
    static constexpr const char* names[] = {"header", "group", "resource", "monitor"};
    return names[static_cast<int>(kind)];
}

std::string record_id(const Record& r) {
    switch (r.kind) {
        case Kind::kHeader:
            return {};
        case Kind::kGroup:
            return r.group;
        case Kind::kResource:
            return r.group + "/" + r.type + "/" + r.name;
        case Kind::kMonitor:
            return r.type + "/" + r.name;
    }
    return {};
}

std::vector<Record> records(const Snapshot& s) {
    std::vector<Record> out;
    if (s.has_header) out.push_back({Kind::kHeader, {}, {}, {}, 0, 0, values(s.header)});
    for (std::size_t g = 0; g < s.groups.size(); ++g) {
        const Group& grp = s.groups[g];
        out.push_back({Kind::kGroup, grp.name, {}, {}, g, 0, values(grp)});
    }
    for (std::size_t g = 0; g < s.groups.size(); ++g) {
        const Group& grp = s.groups[g];
        for (std::size_t j = 0; j < grp.resources.size(); ++j) {
            const Resource& r = grp.resources[j];
            out.push_back({Kind::kResource, grp.name, r.type, r.name, g, j, values(r)});
        }
    }
    for (std::size_t k = 0; k < s.monitors.size(); ++k) {
        const Monitor& m = s.monitors[k];
        out.push_back({Kind::kMonitor, {}, m.type, m.name, k, 0, values(m)});
    }
    return out;
}

const Record* find_record(const std::vector<Record>& all, Kind kind, const Keys& keys) {
    for (const Record& r : all) {
        if (r.kind != kind) continue;
        const bool match = kind == Kind::kHeader ||
                           (kind == Kind::kGroup && r.group == keys.group) ||
                           (kind != Kind::kGroup && (keys.any_type || r.type == keys.type) &&
                            r.name == keys.name &&
                            (kind == Kind::kMonitor || keys.any_group || r.group == keys.group));
        if (match) return &r;
    }
    return nullptr;
}

nlohmann::ordered_json record_json(const Snapshot& s, const Record& r) {
    static const char* const sections[] = {"region", "groups", "groups", "monitors"};
    const auto j = to_json(s, {}, {sections[static_cast<int>(r.kind)]});
    switch (r.kind) {
        case Kind::kHeader:
            return j["header"];
        case Kind::kGroup: {
            auto out = j["groups"][r.index];
            out.erase("resources");
            return out;
        }
        case Kind::kResource: {
            nlohmann::ordered_json out{{"group", r.group}};
            out.update(j["groups"][r.index]["resources"][r.slot]);
            return out;
        }
        case Kind::kMonitor:
            return j["monitors"][r.index];
    }
    return {};
}

std::vector<Change> diff(const std::vector<Record>& before, const std::vector<Record>& after) {
    // kind, id, and which of the records alike
    using Key = std::tuple<Kind, std::string, int>;
    auto keyed = [](const std::vector<Record>& all) {
        std::map<Key, const Record*> out;
        std::map<std::pair<Kind, std::string>, int> seen;
        for (const Record& r : all) {
            const std::string id = record_id(r);
            out[{r.kind, id, seen[{r.kind, id}]++}] = &r;
        }
        return out;
    };
    const auto old_records = keyed(before), new_records = keyed(after);
    std::vector<Change> out;
    std::map<std::pair<Kind, std::string>, int> seen;
    for (const Record& r : after) {
        const std::string id = record_id(r);
        const auto found = old_records.find({r.kind, id, seen[{r.kind, id}]++});
        if (found == old_records.end()) {
            out.push_back({Change::What::kAdded, r.kind, id, {}, {}, {}});
            continue;
        }
        const auto& was = found->second->values;
        for (std::size_t i = 0; i < r.values.size() && i < was.size(); ++i) {
            if (was[i].second != r.values[i].second) {
                out.push_back({Change::What::kChanged, r.kind, id, r.values[i].first, was[i].second,
                               r.values[i].second});
            }
        }
    }
    seen.clear();
    for (const Record& r : before) {
        const std::string id = record_id(r);
        if (new_records.count({r.kind, id, seen[{r.kind, id}]++}) == 0) {
            out.push_back({Change::What::kRemoved, r.kind, id, {}, {}, {}});
        }
    }
    return out;
}

std::vector<Change> diff(const Snapshot& before, const Snapshot& after) {
    return diff(records(before), records(after));
}

std::string change_text(const Change& c) {
    std::string out = kind_name(c.kind);
    if (c.kind != Kind::kHeader) out += " " + quoted(c.id);
    switch (c.what) {
        case Change::What::kAdded:
            return out + " added";
        case Change::What::kRemoved:
            return out + " removed";
        case Change::What::kChanged:
            break;
    }
    return fmt::format("{} {} {} -> {}", out, c.attribute, quoted(c.before), quoted(c.after));
}

}  // namespace shmrmctl
