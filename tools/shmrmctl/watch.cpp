// hold, status and watch: the commands that show or keep the region.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <string_view>

#include "region.h"
#include "render.h"
#include "system.h"
#include "terminal.h"
#include "vexshmrm.h"

namespace shmrmctl {

namespace {

std::string clock_text() {
    const std::tm tm = sys::local_now();
    char buf[16];
    std::strftime(buf, sizeof buf, "%H:%M:%S", &tm);
    return buf;
}

// The lines below the title: every table after a blank line, and for each line the table it
// belongs to and whether it is one of its rows.
struct Body {
    std::vector<std::string> lines;
    std::vector<std::size_t> table;
    std::vector<bool> row;
};

Body body(const std::vector<Table>& now, const std::vector<Table>& before, std::size_t cols,
          bool marks) {
    Body out;
    TableStyle style;
    style.width = cols;
    style.clip = true;
    style.truncate = cols <= 80;  // the compact columns; wider, lines are cut at the edge
    for (std::size_t t = 0; t < now.size(); ++t) {
        const Table* prev = t < before.size() && before[t].title == now[t].title &&
                                    before[t].columns == now[t].columns
                                ? &before[t]
                                : nullptr;
        auto changed = [&](std::size_t r, std::size_t c) {
            if (prev == nullptr || !marks) return false;
            if (r >= prev->rows.size() || c >= prev->rows[r].size()) return true;
            return prev->rows[r][c] != now[t].rows[r][c];
        };
        auto lines = format_table(now[t], style, changed, "\x1b[7m", "\x1b[0m");
        lines.insert(lines.begin(), std::string());
        for (std::size_t i = 0; i < lines.size(); ++i) {
            out.lines.push_back(std::move(lines[i]));
            out.table.push_back(t);
            out.row.push_back(i >= 3);  // the blank line, the title, the column names
        }
    }
    return out;
}

// The lines of one screen of `rows` lines from the title and the body scrolled by `offset`
// (clamped here): when the body does not fit, the last line says how many rows of which
// tables lie below.
std::vector<std::string> screen(const std::string& title, const Body& b,
                                const std::vector<Table>& now, std::size_t rows, std::size_t cols,
                                std::size_t& offset) {
    std::vector<std::string> out{title};
    const std::size_t room = rows > 1 ? rows - 1 : 0;
    if (b.lines.size() <= room) {
        offset = 0;
        out.insert(out.end(), b.lines.begin(), b.lines.end());
        return out;
    }
    const std::size_t shown = room > 0 ? room - 1 : 0;  // one line for the marker
    offset = std::min(offset, b.lines.size() - shown);
    for (std::size_t i = offset; i < offset + shown; ++i)
        out.push_back(b.lines[i]);
    std::vector<std::string> below;
    for (std::size_t t = 0; t < now.size(); ++t) {
        std::size_t n = 0;
        for (std::size_t i = offset + shown; i < b.lines.size(); ++i)
            if (b.table[i] == t && b.row[i]) ++n;
        if (n > 0) below.push_back(fmt::format("{} more {}", n, now[t].title));
    }
    if (below.empty()) below.emplace_back("more");
    const std::string marker =
        fmt::format("-- {} below; j/k or arrows, PgUp/PgDn scroll --", fmt::join(below, ", "));
    if (room > 0) out.push_back(fit_width(marker, cols));
    return out;
}

// Moves the view by the scroll keys among `keys`: j/k and the arrows by a line, PgUp/PgDn
// (and space, b) by a page, g/G to the top and the bottom.
void scroll(const std::string& keys, std::size_t page, std::size_t& offset) {
    const std::pair<const char*, long> moves[] = {{"\x1b[A", -1}, {"\x1bOA", -1},  {"\x1b[B", 1},
                                                  {"\x1bOB", 1},  {"\x1b[5~", -2}, {"\x1b[6~", 2},
                                                  {"k", -1},      {"j", 1},        {"b", -2},
                                                  {" ", 2},       {"g", -3},       {"G", 3}};
    for (std::size_t i = 0; i < keys.size();) {
        long move = 0;
        std::size_t used = 1;
        for (const auto& [key, m] : moves) {
            const std::string_view k(key);
            if (keys.compare(i, k.size(), k) == 0) {
                move = m;
                used = k.size();
                break;
            }
        }
        const std::size_t far = std::numeric_limits<std::size_t>::max() / 2;
        const std::size_t step = move == 1 || move == -1 ? 1 : move == 2 || move == -2 ? page : far;
        if (move > 0) offset = std::min(offset + step, far);
        if (move < 0) offset = offset > step ? offset - step : 0;
        i += used;
    }
}

// What the terminal allows: escape sequences to redraw in place (not on TERM=dumb), and
// reverse video for changed cells (not with NO_COLOR set).
struct Capabilities {
    bool redraw = true;
    bool marks = true;
};
Capabilities capabilities() {
    Capabilities c;
    const char* term = std::getenv("TERM");
    const char* no_color = std::getenv("NO_COLOR");
    c.redraw = term == nullptr || std::string_view(term) != "dumb";
    c.marks = c.redraw && (no_color == nullptr || *no_color == '\0');
    return c;
}

}  // namespace

int hold() {
    // Creating where a region exists would only join it, and leave the node to whichever holder
    // stays longest.
    if (region_exists()) {
        return report(fmt::format("a region '{}' exists already; this hold would only join it",
                                  object_name(kMappingObject)),
                      kExitFailure,
                      "one holder per namespace: stop the other one first, or set "
                      "VEX_IPC_NAMESPACE for a node of its own");
    }
    sys::install_stop_handlers();
    const int rc = shmrm_create();
    if (rc != SHMRM_OK) return report(Failure{"shmrm_create", rc});
    int size = 0;
    shmrm_dump(nullptr, &size);
    // The first word stays "ready" for scripts that wait for it.
    std::printf("ready: region of %d bytes\n", size);
    std::fflush(stdout);
    sys::wait_for_stop();
    const int released = shmrm_delete();
    if (released != SHMRM_OK) return report(Failure{"shmrm_delete", released});
    std::printf("released\n");
    return 0;
}

int watch(const WatchOptions& options) {
    if (!sys::interactive()) {
        std::fprintf(stderr, "shmrmctl: watch needs a terminal; use status or track\n");
        return 1;
    }
    sys::install_stop_handlers();
    const auto start = std::chrono::steady_clock::now();
    const auto interval_ms = static_cast<int>(std::max(options.interval_s, 0.05) * 1000);
    const Capabilities can = capabilities();
    sys::Console console(can.redraw);
    std::vector<Table> before;
    std::vector<std::string> printed;  // on a dumb terminal: the last body printed
    std::size_t offset = 0;
    while (!sys::stop_requested()) {
        Bytes bytes;
        Failure failure;
        std::vector<Table> now;
        std::string note;
        const sys::Console::Size size = console.size();
        if (take_region_bytes(options.timeout_ms, bytes, failure)) {
            ViewOptions view;
            view.now_tick = sys::tick_now();
            now = tables(decode(bytes, std::nullopt, sys::view_page()), view);
            if (size.cols <= 80) {
                for (Table& t : now)
                    t = compact(t);
            }
        } else {
            note = "  -- " + failure.message();
        }
        const Body b = body(now, before, size.cols, can.marks);
        const std::string title =
            fit_width(fmt::format("shmrmctl watch  {}  every {:.1f}s  q: quit{}{}", clock_text(),
                                  options.interval_s, can.redraw ? "  j/k: scroll" : "", note),
                      size.cols);
        if (can.redraw) {
            std::string out = "\x1b[H";
            const auto lines = screen(title, b, now, size.rows, size.cols, offset);
            for (std::size_t i = 0; i < lines.size(); ++i) {
                out += lines[i];
                out += "\x1b[K";
                if (i + 1 < lines.size()) out += "\r\n";
            }
            out += "\x1b[J";
            console.write(out);
        } else if (b.lines != printed) {
            // No cursor to move: the whole view again, only when it changed.
            std::string out = title + "\r\n";
            for (const auto& line : b.lines)
                out += line + "\r\n";
            console.write(out + "\r\n");
            printed = b.lines;
        }
        if (!now.empty()) before = std::move(now);

        std::string keys;
        if (!console.read_keys(interval_ms, keys)) break;  // the terminal went away
        if (keys.find_first_of("qQ\x03") != std::string::npos) sys::request_stop();
        scroll(keys, size.rows > 3 ? size.rows - 3 : 1, offset);
        if (options.run_for_s > 0 && std::chrono::steady_clock::now() - start >=
                                         std::chrono::duration<double>(options.run_for_s)) {
            break;
        }
    }
    return 0;
}

}  // namespace shmrmctl
