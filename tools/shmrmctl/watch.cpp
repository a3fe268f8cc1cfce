// hold, status and watch: the commands that show or keep the region.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>

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

// One screen: the title, then every table, changed cells in reverse video.
std::string frame(const std::vector<Table>& now, const std::vector<Table>& before,
                  const std::string& title, sys::Console::Size size) {
    std::vector<std::string> lines{title};
    for (std::size_t t = 0; t < now.size(); ++t) {
        const Table* prev =
            t < before.size() && before[t].title == now[t].title ? &before[t] : nullptr;
        auto changed = [&](std::size_t r, std::size_t c) {
            if (prev == nullptr) return false;
            if (r >= prev->rows.size() || c >= prev->rows[r].size()) return true;
            return prev->rows[r][c] != now[t].rows[r][c];
        };
        lines.emplace_back();
        for (auto& l : format_table(now[t], changed, size.cols, "\x1b[7m", "\x1b[0m")) {
            lines.push_back(std::move(l));
        }
    }
    std::string out = "\x1b[H";
    for (std::size_t i = 0; i < lines.size() && i < size.rows; ++i) {
        out += lines[i];
        out += "\x1b[K";
        if (i + 1 < size.rows) out += "\r\n";
    }
    out += "\x1b[J";
    return out;
}

}  // namespace

int print_status(unsigned int timeout_ms, bool json) {
    Bytes bytes;
    Failure failure;
    if (!take_region_bytes(timeout_ms, bytes, failure)) return report(failure);
    const Snapshot s = decode(bytes, std::nullopt, sys::view_page());
    if (json) {
        std::printf("%s\n", json_text(s).c_str());
        return kExitOk;
    }
    ViewOptions options;
    options.now_tick = sys::tick_now();
    bool first = true;
    for (const Table& t : tables(s, options)) {
        if (!first) std::printf("\n");
        first = false;
        for (const auto& line : format_table(t))
            std::printf("%s\n", line.c_str());
    }
    return kExitOk;
}

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
        std::fprintf(stderr, "shmrmctl: watch needs a terminal; use status\n");
        return 1;
    }
    sys::install_stop_handlers();
    const auto start = std::chrono::steady_clock::now();
    const auto interval_ms = static_cast<int>(std::max(options.interval_s, 0.05) * 1000);
    sys::Console console;
    std::vector<Table> before;
    while (!sys::stop_requested()) {
        Bytes bytes;
        Failure failure;
        std::vector<Table> now;
        std::string note;
        if (take_region_bytes(options.timeout_ms, bytes, failure)) {
            ViewOptions view;
            view.now_tick = sys::tick_now();
            now = tables(decode(bytes, std::nullopt, sys::view_page()), view);
        } else {
            note = "  -- " + failure.message();
        }
        const std::string title = fmt::format("shmrmctl watch  {}  every {:.1f}s  q: quit{}",
                                              clock_text(), options.interval_s, note);
        console.write(frame(now, before, title, console.size()));
        if (!now.empty()) before = std::move(now);

        std::string keys;
        if (!console.read_keys(interval_ms, keys)) break;  // the terminal went away
        if (keys.find_first_of("qQ\x03") != std::string::npos) sys::request_stop();
        if (options.run_for_s > 0 && std::chrono::steady_clock::now() - start >=
                                         std::chrono::duration<double>(options.run_for_s)) {
            break;
        }
    }
    return 0;
}

}  // namespace shmrmctl
