// hold, status and watch: the commands that show or keep the region.
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>

#include "region.h"
#include "render.h"
#include "signals.h"
#include "terminal.h"
#include "vexshmrm.h"

namespace shmrmctl {

namespace {

void write_all(const std::string& s) {
    std::size_t done = 0;
    while (done < s.size()) {
        const ssize_t n = ::write(STDOUT_FILENO, s.data() + done, s.size() - done);
        if (n <= 0) {
            if (n < 0 && errno == EINTR) continue;
            return;
        }
        done += static_cast<std::size_t>(n);
    }
}

// Raw input (no echo, no line editing; Ctrl-C still signals) on the alternate screen, restored
// when it goes out of scope.
class RawTerminal {
  public:
    RawTerminal() {
        ok_ = tcgetattr(STDIN_FILENO, &saved_) == 0;
        if (ok_) {
            termios raw = saved_;
            raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
            raw.c_cc[VMIN] = 0;
            raw.c_cc[VTIME] = 0;
            tcsetattr(STDIN_FILENO, TCSANOW, &raw);
        }
        write_all("\x1b[?1049h\x1b[?25l\x1b[H\x1b[2J");
    }
    ~RawTerminal() {
        write_all("\x1b[0m\x1b[?25h\x1b[?1049l");
        if (ok_) tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
    }
    RawTerminal(const RawTerminal&) = delete;
    RawTerminal& operator=(const RawTerminal&) = delete;

  private:
    termios saved_{};
    bool ok_ = false;
};

struct Size {
    std::size_t rows = 24, cols = 80;
};
Size terminal_size() {
    winsize ws{};
    Size s;
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_row > 0 && ws.ws_col > 0) {
        s.rows = ws.ws_row;
        s.cols = ws.ws_col;
    }
    return s;
}

std::string clock_text() {
    const std::time_t t = std::time(nullptr);
    std::tm tm{};
    localtime_r(&t, &tm);
    char buf[16];
    std::strftime(buf, sizeof buf, "%H:%M:%S", &tm);
    return buf;
}

// One screen: the title, then every table, changed cells in reverse video.
std::string frame(const std::vector<Table>& now, const std::vector<Table>& before,
                  const std::string& title, Size size) {
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

bool print_status(unsigned int timeout_ms, bool json) {
    Bytes bytes;
    Failure failure;
    if (!take_region_bytes(timeout_ms, bytes, failure)) {
        std::fprintf(stderr, "shmrmctl: %s\n", failure.message().c_str());
        return false;
    }
    const Snapshot s = decode(bytes);
    if (json) {
        std::printf("%s\n", json_text(s).c_str());
        return true;
    }
    ViewOptions options;
    options.now_tick = tick_now();
    bool first = true;
    for (const Table& t : tables(s, options)) {
        if (!first) std::printf("\n");
        first = false;
        for (const auto& line : format_table(t))
            std::printf("%s\n", line.c_str());
    }
    return true;
}

int hold() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    const int rc = shmrm_create();
    if (rc != SHMRM_OK) {
        std::fprintf(stderr, "shmrmctl: %s\n", Failure{"shmrm_create", rc}.message().c_str());
        return 1;
    }
    int size = 0;
    shmrm_dump(nullptr, &size);
    std::printf("ready %d\n", size);
    std::fflush(stdout);
    int sig = 0;
    sigwait(&set, &sig);
    const int released = shmrm_delete();
    if (released != SHMRM_OK) {
        std::fprintf(stderr, "shmrmctl: %s\n", Failure{"shmrm_delete", released}.message().c_str());
        return 1;
    }
    std::printf("released\n");
    return 0;
}

int watch(const WatchOptions& options) {
    if (!isatty(STDIN_FILENO) || !isatty(STDOUT_FILENO)) {
        std::fprintf(stderr, "shmrmctl: watch needs a terminal; use status\n");
        return 1;
    }
    install_stop_handlers();
    const auto start = std::chrono::steady_clock::now();
    const auto interval_ms = static_cast<int>(std::max(options.interval_s, 0.05) * 1000);
    RawTerminal terminal;
    std::vector<Table> before;
    while (!stop_requested()) {
        Bytes bytes;
        Failure failure;
        std::vector<Table> now;
        std::string note;
        if (take_region_bytes(options.timeout_ms, bytes, failure)) {
            ViewOptions view;
            view.now_tick = tick_now();
            now = tables(decode(bytes), view);
        } else {
            note = "  -- " + failure.message();
        }
        const std::string title = fmt::format("shmrmctl watch  {}  every {:.1f}s  q: quit{}",
                                              clock_text(), options.interval_s, note);
        write_all(frame(now, before, title, terminal_size()));
        if (!now.empty()) before = std::move(now);

        pollfd in{STDIN_FILENO, POLLIN, 0};
        if (poll(&in, 1, interval_ms) > 0 && (in.revents & POLLIN) != 0) {
            char keys[32];
            const ssize_t n = ::read(STDIN_FILENO, keys, sizeof keys);
            if (n == 0) break;  // the terminal went away
            for (ssize_t i = 0; i < n; ++i) {
                if (keys[i] == 'q' || keys[i] == 'Q' || keys[i] == 3) request_stop();
            }
        }
        if (options.run_for_s > 0 && std::chrono::steady_clock::now() - start >=
                                         std::chrono::duration<double>(options.run_for_s)) {
            break;
        }
    }
    return 0;
}

}  // namespace shmrmctl
