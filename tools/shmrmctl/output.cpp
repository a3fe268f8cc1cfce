#include "output.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <set>

#include "records.h"
#include "region.h"
#include "system.h"
#include "vexshmrm.h"

namespace shmrmctl {

namespace {

int fail(Exit status, const std::string& message) {
    return report(message, status);
}

int failed_read(const Failure& failure) {
    return report(failure);
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> out;
    std::size_t from = 0;
    while (true) {
        const std::size_t to = text.find(separator, from);
        out.push_back(text.substr(from, to - from));
        if (to == std::string::npos) return out;
        from = to + 1;
    }
}

// The tables a status with these options shows, before any column is picked.
std::vector<Table> sections(std::vector<Table> all, const StatusOptions& o) {
    if (o.section.empty()) return all;
    std::erase_if(all, [&](const Table& t) { return t.title != o.section; });
    return all;
}

std::int64_t now_seconds() {
    return static_cast<std::int64_t>(std::time(nullptr));
}

// The region decoded now, with the clocks the views need; false (a message printed) when it
// cannot be read.
bool read_snapshot(unsigned int timeout_ms, Snapshot& s, ViewOptions& view, int& status) {
    Bytes bytes;
    Failure failure;
    if (!take_region_bytes(timeout_ms, bytes, failure)) {
        status = failed_read(failure);
        return false;
    }
    view.now_tick = sys::tick_now();
    view.taken_at = now_seconds();
    s = decode(bytes, std::nullopt, sys::view_page());
    return true;
}

int finish_output() {
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        return fail(kExitFailure, "cannot write the output");
    return 0;
}

}  // namespace

bool check_status_options(const StatusOptions& o, std::string& error) {
    const auto& names = section_names();
    if (!o.section.empty() && std::find(names.begin(), names.end(), o.section) == names.end()) {
        error = fmt::format("no section '{}' (known: {})", o.section, fmt::join(names, ", "));
        return false;
    }
    if (o.columns.empty()) return true;
    if (o.json) {
        error = "-o picks the columns of the tables, not of --json";
        return false;
    }
    Snapshot empty;
    empty.has_header = true;
    std::vector<std::string> known;
    for (const Table& t : sections(tables(empty), o)) {
        for (const auto& c : t.columns) {
            if (std::find(known.begin(), known.end(), c) == known.end()) known.push_back(c);
        }
    }
    for (const auto& name : split(o.columns, ',')) {
        if (std::find(known.begin(), known.end(), name) == known.end()) {
            error = fmt::format("unknown column '{}' (known: {})", name, fmt::join(known, ","));
            return false;
        }
    }
    return true;
}

int print_snapshot(const Snapshot& s, const ViewOptions& view, const StatusOptions& o) {
    if (o.json) {
        std::vector<std::string> parts;
        if (!o.section.empty()) parts.push_back(o.section);
        std::printf("%s\n", json_text(s, view, parts).c_str());
        return finish_output();
    }
    TableStyle style;
    style.width = sys::output_columns();
    style.truncate = !o.notruncate;
    style.headings = !o.noheadings;
    style.raw = o.raw;
    const std::vector<std::string> picked =
        o.columns.empty() ? std::vector<std::string>{} : split(o.columns, ',');
    bool first = true;
    for (Table t : sections(tables(s, view), o)) {
        if (!picked.empty()) {
            t = select_columns(t, picked);
            if (t.columns.empty()) continue;
        }
        if (!first && style.headings) std::printf("\n");
        first = false;
        for (const auto& line : format_table(t, style))
            std::printf("%s\n", line.c_str());
    }
    return finish_output();
}

int status_command(const StatusOptions& o, unsigned int timeout_ms) {
    std::string error;
    if (!check_status_options(o, error)) return fail(kExitUsage, error);
    Snapshot s;
    ViewOptions view;
    int status = 0;
    if (!read_snapshot(timeout_ms, s, view, status)) return status;
    return print_snapshot(s, view, o);
}

int get_command(Kind kind, const Keys& keys, const std::string& attribute, bool json,
                unsigned int timeout_ms) {
    const auto names = attribute_names(kind);
    if (!attribute.empty() && std::find(names.begin(), names.end(), attribute) == names.end()) {
        return fail(kExitUsage, fmt::format("unknown attribute '{}' (known: {})", attribute,
                                            fmt::join(names, ", ")));
    }
    Snapshot s;
    ViewOptions view;
    int status = 0;
    if (!read_snapshot(timeout_ms, s, view, status)) return status;
    const auto all = records(s);
    const Record* r = find_record(all, kind, keys);
    if (r == nullptr) {
        // A resource in a group that is not there: the group is what is missing.
        const bool no_group =
            kind == Kind::kResource && find_record(all, Kind::kGroup, keys) == nullptr;
        return report(no_group ? fmt::format("no group '{}'", printable(keys.group))
                               : "no " + describe(kind, keys),
                      kExitNotFound, result_hint(SHMRM_ERR_NOTFOUND));
    }
    if (json) {
        auto j = record_json(s, *r);
        if (!attribute.empty()) {
            const auto found = std::find_if(r->values.begin(), r->values.end(),
                                            [&](const auto& v) { return v.first == attribute; });
            nlohmann::ordered_json one;
            one[attribute] =
                j.contains(attribute) ? j[attribute] : nlohmann::ordered_json(found->second);
            j = std::move(one);
        }
        std::printf(
            "%s\n",
            j.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace).c_str());
        return finish_output();
    }
    if (!attribute.empty()) {
        for (const auto& [name, value] : r->values) {
            if (name == attribute) std::printf("%s\n", value.c_str());
        }
        return finish_output();
    }
    std::vector<std::pair<const char*, std::string>> key_values;
    if (kind == Kind::kGroup) key_values = {{"name", r->group}};
    if (kind == Kind::kResource)
        key_values = {{"group", r->group}, {"type", r->type}, {"name", r->name}};
    if (kind == Kind::kMonitor) key_values = {{"type", r->type}, {"name", r->name}};
    for (const auto& [name, value] : key_values)
        std::printf("%s=%s\n", name, printable(value).c_str());
    for (const auto& [name, value] : r->values)
        std::printf("%s=%s\n", name.c_str(), printable(value).c_str());
    return finish_output();
}

int track_command(double interval_s, unsigned int timeout_ms) {
    sys::install_stop_handlers();
    Snapshot before;
    ViewOptions view;
    int status = 0;
    if (!read_snapshot(timeout_ms, before, view, status)) return status;
    auto previous = records(before);
    bool readable = true;
    while (sys::pause_for(interval_s)) {
        Snapshot now;
        Bytes bytes;
        Failure failure;
        const std::string time = rfc3339(now_seconds());
        if (!take_region_bytes(timeout_ms, bytes, failure)) {
            if (readable)
                std::printf("%s region unreadable: %s\n", time.c_str(),
                            printable(failure.message()).c_str());
            readable = false;
            if (finish_output() != 0) return kExitFailure;
            continue;
        }
        if (!readable) std::printf("%s region readable\n", time.c_str());
        readable = true;
        auto current = records(decode(bytes, std::nullopt, sys::view_page()));
        for (const Change& c : diff(previous, current))
            std::printf("%s %s\n", time.c_str(), change_text(c).c_str());
        if (finish_output() != 0) return kExitFailure;
        previous = std::move(current);
    }
    return 0;
}

}  // namespace shmrmctl
