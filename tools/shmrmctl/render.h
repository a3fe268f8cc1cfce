// The ways a snapshot is shown: aligned tables (status, watch) and JSON.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "snapshot.h"

namespace shmrmctl {

// One section of the status view. Cells hold the values as they are; format_table makes them
// printable.
struct Table {
    std::string title;  // also the section's name: region, groups, resources, monitors, damage
    std::vector<std::string> columns;
    std::vector<std::vector<std::string>> rows;
};

struct ViewOptions {
    // The tick count now, when known: progress at step 3 then shows the time since its stamp.
    std::optional<std::uint32_t> now_tick;
    // When the snapshot was taken, in seconds since 1970 (UTC), when known.
    std::optional<std::int64_t> taken_at;
};

// Header, groups, resources, monitors, and damage when there is any.
std::vector<Table> tables(const Snapshot& s, const ViewOptions& options = {});

// The names of the sections tables() can show, in their order.
const std::vector<std::string>& section_names();
// The table with only `names` as columns, in that order; names it has not are left out.
Table select_columns(const Table& t, const std::vector<std::string>& names);
// The columns the live view keeps on a screen of 80 columns or fewer.
Table compact(const Table& t);

struct TableStyle {
    std::size_t width = 0;  // the width lines should fit, in terminal columns; 0: no limit
    bool truncate = true;   // cut text columns (marked "~") so that lines fit `width`
    bool clip = false;      // then cut whatever still does not fit at `width`
    bool headings = true;   // the title and the column names
    bool raw = false;       // cells unaligned, one space apart, with spaces and the rest escaped
};

// One table as lines; `changed(row, column)` cells are wrapped in the given markers.
template <typename Changed>
std::vector<std::string> format_table(const Table& t, const TableStyle& style, Changed changed,
                                      const std::string& mark_on, const std::string& mark_off);
std::vector<std::string> format_table(const Table& t, const TableStyle& style = {});

// The snapshot as JSON: "version", "time" (RFC 3339, UTC; null when unknown), then the region;
// each record's keys in the order of its schema rows. `sections` (names of section_names())
// limits it to those parts; empty: all.
nlohmann::ordered_json to_json(const Snapshot& s, const ViewOptions& options = {},
                               const std::vector<std::string>& sections = {});
// The JSON text, with bytes that are not UTF-8 replaced.
std::string json_text(const Snapshot& s, const ViewOptions& options = {},
                      const std::vector<std::string>& sections = {});
inline constexpr int kJsonVersion = 1;
// A time as RFC 3339 in UTC, to the second: 2026-11-25T13:05:01Z.
std::string rfc3339(std::int64_t seconds);

// A word as every view (status, watch, get, track) shows it: a set of flags as 0x and four hex
// digits, any other number in decimal.
template <typename T>
std::string word_text(T v) {
    if constexpr (kFlagWord<T>) {
        return fmt::format("0x{:04x}", v);
    } else {
        return std::to_string(v);
    }
}

std::string hex(const std::uint8_t* data, std::size_t length);
// A text as the terminal shows it: characters the locale prints as themselves (multibyte ones
// too, in a UTF-8 locale), control characters and bytes that are no character as '?', so a
// damaged region cannot drive the terminal.
std::string printable(std::string_view text);
// How many terminal columns a printable text takes (a wide character takes 2).
std::size_t display_width(std::string_view text);
// The printable text cut to at most `width` columns, never inside a character; a text that was
// cut ends in '~'.
std::string fit_width(std::string_view text, std::size_t width);
// A text for --raw output: printable characters other than space and '\' as themselves, every
// other byte as \xHH.
std::string raw_escaped(std::string_view text);
// Seconds between two tick stamps, in 32-bit unsigned arithmetic (survives one wrap).
double tick_seconds(std::uint32_t from, std::uint32_t to);

}  // namespace shmrmctl

#include "render_format.inl"
