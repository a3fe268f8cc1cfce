// The ways a snapshot is shown: aligned tables (status, watch) and JSON.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "snapshot.h"

namespace shmrmctl {

struct Table {
    std::string title;
    std::vector<std::string> columns;
    std::vector<std::vector<std::string>> rows;
};

struct ViewOptions {
    // The tick count now, when known: progress at step 3 then shows the time since its stamp.
    std::optional<std::uint32_t> now_tick;
    std::size_t text_width = 24;  // texts longer than this are cut, with a trailing "~"
};

// Header, groups, resources, monitors, and damage when there is any.
std::vector<Table> tables(const Snapshot& s, const ViewOptions& options = {});

// One table as aligned lines; `changed(row, column)` cells are wrapped in the given markers.
// Lines are cut at `width` visible characters (0: no limit).
template <typename Changed>
std::vector<std::string> format_table(const Table& t, Changed changed, std::size_t width,
                                      const std::string& mark_on, const std::string& mark_off);
std::vector<std::string> format_table(const Table& t);

nlohmann::json to_json(const Snapshot& s);
// The JSON text, with bytes that are not UTF-8 replaced.
std::string json_text(const Snapshot& s);

std::string hex(const std::uint8_t* data, std::size_t length);
// A text with control and non-ASCII bytes shown as '?', so a damaged region cannot drive the
// terminal.
std::string printable(const std::string& text);
// Seconds between two tick stamps, in 32-bit unsigned arithmetic (survives one wrap).
double tick_seconds(std::uint32_t from, std::uint32_t to);

}  // namespace shmrmctl

#include "render_format.inl"
