// shmrmctl's system layer on Windows: console control events, a named stop event per process,
// console modes. Children are started by the process runner (child.cpp).
//
// A process started by this program (Child) gets a stop event named after its process id (in
// the IPC namespace, as the library's own objects are): "<namespace>.shmrmctl_stop_<pid>". The
// child creates or opens it when it starts, the parent right after CreateProcess; setting it is
// the parent's request to stop, which the child's sleeps wake up for. Console control events
// (Ctrl-C, Ctrl-Break, closing the console) set the same event.
#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <system_error>
#include <utility>

#include "system.h"

namespace shmrmctl::sys {

namespace {

std::string stop_event_name(DWORD pid) {
    const char* ns = std::getenv("VEX_IPC_NAMESPACE");
    const std::string prefix = ns != nullptr && *ns != '\0' ? std::string(ns) + "." : "";
    return prefix + "shmrmctl_stop_" + std::to_string(pid);
}

// This process's stop event, named on first use (before any change of the namespace).
HANDLE own_stop_event() {
    static const HANDLE event = [] {
        HANDLE e =
            CreateEventA(nullptr, TRUE, FALSE, stop_event_name(GetCurrentProcessId()).c_str());
        return e != nullptr ? e : CreateEventA(nullptr, TRUE, FALSE, nullptr);
    }();
    return event;
}

BOOL WINAPI on_console_event(DWORD event) {
    request_stop();
    if (event == CTRL_CLOSE_EVENT || event == CTRL_LOGOFF_EVENT || event == CTRL_SHUTDOWN_EVENT) {
        // The process ends as soon as this returns: leave the main thread time to clean up (it
        // ends the process itself when done; the system's own bound is five seconds).
        Sleep(4000);
    }
    return TRUE;
}

}  // namespace

void* open_stop_request(const vex::process::Process& child) {
    return CreateEventA(nullptr, TRUE, FALSE,
                        stop_event_name(static_cast<DWORD>(child.id())).c_str());
}
void send_stop_request(vex::process::Process&, void* stop) {
    if (stop != nullptr) SetEvent(stop);
}
void close_stop_request(void* stop) {
    if (stop != nullptr) CloseHandle(stop);
}

// A child's stop event reaches it while the parent runs; a console's close reaches every
// process attached to it.
std::vector<std::string> parent_env() {
    return {};
}
void follow_parent() {}

void init_output() {
    // "\n" line ends, as on every other system.
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
}

void install_stop_handlers() {
    own_stop_event();
    SetConsoleCtrlHandler(on_console_event, TRUE);
}

void ignore_broken_pipe() {}  // no such signal: a send to a closed socket fails

bool stop_requested() {
    return WaitForSingleObject(own_stop_event(), 0) == WAIT_OBJECT_0;
}
void request_stop() {
    SetEvent(own_stop_event());
}

bool pause_for(double seconds) {
    WaitForSingleObject(own_stop_event(), static_cast<DWORD>(seconds * 1000));
    return !stop_requested();
}

void wait_for_stop() {
    WaitForSingleObject(own_stop_event(), INFINITE);
}

std::string make_temp_dir(const std::string& prefix, std::string& error) {
    char temp[MAX_PATH + 1];
    const DWORD n = GetTempPathA(sizeof temp, temp);
    if (n == 0 || n > MAX_PATH) {
        error = "GetTempPath failed";
        return {};
    }
    static unsigned serial = 0;
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::string path = std::string(temp) + prefix + std::to_string(process_id()) + "-" +
                                 std::to_string(++serial) + "-" + std::to_string(GetTickCount());
        if (CreateDirectoryA(path.c_str(), nullptr)) return path;
        if (GetLastError() != ERROR_ALREADY_EXISTS) break;
    }
    error = "CreateDirectory failed (error " + std::to_string(GetLastError()) + ")";
    return {};
}

bool interactive() {
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(STD_INPUT_HANDLE), &mode) &&
           GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &mode);
}

struct Console::Saved {
    HANDLE in = nullptr, out = nullptr;
    DWORD in_mode = 0, out_mode = 0;
    bool in_ok = false, out_ok = false;
};

std::size_t output_columns() {
    if (const char* columns = std::getenv("COLUMNS")) {
        char* end = nullptr;
        const long n = std::strtol(columns, &end, 10);
        if (end != columns && *end == '\0' && n > 0) return static_cast<std::size_t>(n);
    }
    CONSOLE_SCREEN_BUFFER_INFO info{};
    if (!GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &info)) return 0;
    const auto cols = info.srWindow.Right - info.srWindow.Left + 1;
    return cols > 0 ? static_cast<std::size_t>(cols) : 0;
}

Console::Console(bool screen) : saved_(std::make_unique<Saved>()), screen_(screen) {
    Saved& s = *saved_;
    s.in = GetStdHandle(STD_INPUT_HANDLE);
    s.out = GetStdHandle(STD_OUTPUT_HANDLE);
    s.in_ok = GetConsoleMode(s.in, &s.in_mode) != 0;
    s.out_ok = GetConsoleMode(s.out, &s.out_mode) != 0;
    if (s.in_ok) {
        SetConsoleMode(s.in,
                       (s.in_mode & ~static_cast<DWORD>(ENABLE_LINE_INPUT | ENABLE_ECHO_INPUT)) |
                           ENABLE_PROCESSED_INPUT);
    }
    if (s.out_ok) {
        SetConsoleMode(s.out,
                       s.out_mode | ENABLE_PROCESSED_OUTPUT | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
    }
    if (screen_) write("\x1b[?1049h\x1b[?25l\x1b[H\x1b[2J");
}

Console::~Console() {
    if (screen_) write("\x1b[0m\x1b[?25h\x1b[?1049l");
    if (saved_->in_ok) SetConsoleMode(saved_->in, saved_->in_mode);
    if (saved_->out_ok) SetConsoleMode(saved_->out, saved_->out_mode);
}

Console::Size Console::size() const {
    CONSOLE_SCREEN_BUFFER_INFO info{};
    Size s;
    if (GetConsoleScreenBufferInfo(saved_->out, &info)) {
        const auto rows = info.srWindow.Bottom - info.srWindow.Top + 1;
        // Three columns fewer: Wine's console counts the bytes of escape sequences as columns,
        // and the erase that ends each line would wrap a full one onto an extra line there.
        const auto cols = info.srWindow.Right - info.srWindow.Left - 2;
        if (rows > 0 && cols > 0) {
            s.rows = static_cast<std::size_t>(rows);
            s.cols = static_cast<std::size_t>(cols);
        }
    }
    return s;
}

void Console::write(const std::string& text) const {
    std::size_t done = 0;
    while (done < text.size()) {
        DWORD n = 0;
        if (!WriteFile(saved_->out, text.data() + done, static_cast<DWORD>(text.size() - done), &n,
                       nullptr) ||
            n == 0) {
            return;
        }
        done += n;
    }
}

bool Console::read_keys(int timeout_ms, std::string& keys) const {
    HANDLE waits[2] = {saved_->in, own_stop_event()};
    const DWORD r = WaitForMultipleObjects(2, waits, FALSE, static_cast<DWORD>(timeout_ms));
    if (r == WAIT_FAILED) return false;
    if (r != WAIT_OBJECT_0) return true;
    INPUT_RECORD records[32];
    DWORD n = 0;
    if (!ReadConsoleInputA(saved_->in, records, 32, &n)) return false;
    for (DWORD i = 0; i < n; ++i) {
        const KEY_EVENT_RECORD& key = records[i].Event.KeyEvent;
        if (records[i].EventType != KEY_EVENT || !key.bKeyDown) continue;
        if (key.uChar.AsciiChar != 0) {
            keys.append(key.wRepeatCount, key.uChar.AsciiChar);
            continue;
        }
        static constexpr std::pair<WORD, const char*> kMoves[] = {
            {VK_UP, "\x1b[A"}, {VK_DOWN, "\x1b[B"}, {VK_PRIOR, "\x1b[5~"}, {VK_NEXT, "\x1b[6~"}};
        for (const auto& [code, sequence] : kMoves) {
            if (key.wVirtualKeyCode == code) keys += sequence;
        }
    }
    return true;
}

std::size_t view_page() {
    SYSTEM_INFO info{};
    GetSystemInfo(&info);
    return info.dwPageSize;
}

std::tm local_now() {
    const std::time_t t = std::time(nullptr);
    std::tm tm{};
    localtime_s(&tm, &t);
    return tm;
}

std::uint32_t tick_now() {
    return GetTickCount();
}

}  // namespace shmrmctl::sys

namespace shmrmctl::sys {

std::string error_text(int errno_value) {
    return std::strerror(errno_value);
}

std::string system_error_text(unsigned error) {
    std::string text = std::system_category().message(static_cast<int>(error));
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == '.'))
        text.pop_back();
    return text;
}

}  // namespace shmrmctl::sys
