// shmrmctl's system layer on Windows: console control events, a named stop event per process,
// CreateProcess, console modes.
//
// A process started by this program (Child) gets a stop event named after its process id (in
// the IPC namespace, as the library's own objects are): "<namespace>.shmrmctl_stop_<pid>". The
// child creates or opens it when it starts, the parent right after CreateProcess; setting it is
// the parent's request to stop, which the child's sleeps wake up for. Console control events
// (Ctrl-C, Ctrl-Break, closing the console) set the same event.
#include <fcntl.h>
#include <io.h>
#include <windows.h>
// After windows.h:
#include <tlhelp32.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

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

// One argument as the C runtime of the started program splits it back out.
std::string quote(const std::string& arg) {
    if (!arg.empty() && arg.find_first_of(" \t\n\v\"") == std::string::npos) return arg;
    std::string out = "\"";
    std::size_t backslashes = 0;
    for (const char c : arg) {
        if (c == '\\') {
            ++backslashes;
            continue;
        }
        out.append(c == '"' ? 2 * backslashes + 1 : backslashes, '\\');
        backslashes = 0;
        out += c;
    }
    out.append(2 * backslashes, '\\');
    return out + '"';
}

HANDLE inheritable_copy(HANDLE h) {
    HANDLE copy = nullptr;
    if (h == nullptr || h == INVALID_HANDLE_VALUE ||
        !DuplicateHandle(GetCurrentProcess(), h, GetCurrentProcess(), &copy, 0, TRUE,
                         DUPLICATE_SAME_ACCESS)) {
        return nullptr;
    }
    return copy;
}

}  // namespace

struct Child::State {
    HANDLE process = nullptr;
    DWORD pid = 0;
    HANDLE out = nullptr;   // the read end of the child's standard output, when captured
    HANDLE stop = nullptr;  // the child's stop event
    std::string got;
};

namespace {

// Starts this program with `command_line`, which it inherits the standard handles of (standard
// output through a new pipe with `capture`) and no other handle.
bool start(Child::State& s, std::string command_line, bool capture, bool own_group) {
    HANDLE handles[3] = {inheritable_copy(GetStdHandle(STD_INPUT_HANDLE)), nullptr,
                         inheritable_copy(GetStdHandle(STD_ERROR_HANDLE))};
    if (capture) {
        HANDLE write_end = nullptr;
        if (!CreatePipe(&s.out, &write_end, nullptr, 0)) s.out = write_end = nullptr;
        handles[1] = inheritable_copy(write_end);
        if (write_end != nullptr) CloseHandle(write_end);
    } else {
        handles[1] = inheritable_copy(GetStdHandle(STD_OUTPUT_HANDLE));
    }
    std::vector<HANDLE> inherit;
    for (HANDLE h : handles)
        if (h != nullptr) inherit.push_back(h);

    STARTUPINFOEXA info{};
    info.StartupInfo.cb = sizeof info;
    info.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    info.StartupInfo.hStdInput = handles[0];
    info.StartupInfo.hStdOutput = handles[1];
    info.StartupInfo.hStdError = handles[2];
    SIZE_T size = 0;
    InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    std::vector<char> storage(size);
    auto* list = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(storage.data());
    bool listed = !inherit.empty() && InitializeProcThreadAttributeList(list, 1, 0, &size);
    if (listed) {
        info.lpAttributeList = list;
        if (!UpdateProcThreadAttribute(list, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, inherit.data(),
                                       sizeof(HANDLE) * inherit.size(), nullptr, nullptr)) {
            info.lpAttributeList = nullptr;
        }
    }
    const DWORD flags = (info.lpAttributeList != nullptr ? EXTENDED_STARTUPINFO_PRESENT : 0) |
                        (own_group ? CREATE_NEW_PROCESS_GROUP : 0);
    PROCESS_INFORMATION process{};
    const std::string exe = self_path();
    const bool ok = (!capture || handles[1] != nullptr) &&
                    CreateProcessA(exe.c_str(), command_line.data(), nullptr, nullptr,
                                   inherit.empty() ? FALSE : TRUE, flags, nullptr, nullptr,
                                   &info.StartupInfo, &process);
    if (listed) DeleteProcThreadAttributeList(list);
    for (HANDLE h : inherit)
        CloseHandle(h);
    if (!ok) return false;
    CloseHandle(process.hThread);
    s.process = process.hProcess;
    s.pid = process.dwProcessId;
    s.stop = CreateEventA(nullptr, TRUE, FALSE, stop_event_name(s.pid).c_str());
    return true;
}

int stop_process(Child::State& s, int bound_ms) {
    if (s.process == nullptr) return -1;
    if (s.stop != nullptr) SetEvent(s.stop);
    DWORD code = 0;
    int status = -1;
    if (WaitForSingleObject(s.process, static_cast<DWORD>(bound_ms)) == WAIT_OBJECT_0 &&
        GetExitCodeProcess(s.process, &code)) {
        status = static_cast<int>(code);
    } else {
        TerminateProcess(s.process, 1);
        WaitForSingleObject(s.process, 5000);
    }
    CloseHandle(s.process);
    if (s.stop != nullptr) CloseHandle(s.stop);
    s.process = s.stop = nullptr;
    return status;
}

}  // namespace

void init_output() {
    // "\n" line ends, as on every other system.
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
}

void install_stop_handlers() {
    own_stop_event();
    SetConsoleCtrlHandler(on_console_event, TRUE);
}

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

Child::Child(const std::vector<std::string>& args, bool capture_stdout)
    : state_(std::make_unique<State>()) {
    std::string command_line = quote(self_path());
    for (const auto& a : args)
        command_line += " " + quote(a);
    start(*state_, command_line, capture_stdout, true);
}

Child::~Child() {
    if (state_ == nullptr) return;
    stop();
    if (state_->out != nullptr) CloseHandle(state_->out);
}
Child::Child(Child&&) noexcept = default;
Child& Child::operator=(Child&&) noexcept = default;

bool Child::started() const {
    return state_->process != nullptr;
}
long Child::id() const {
    return static_cast<long>(state_->pid);
}

bool Child::wait_for_line(const std::string& prefix, int timeout_ms) {
    if (state_->out == nullptr) return false;
    // An anonymous pipe cannot be waited on: look for data every few milliseconds.
    const ULONGLONG end = GetTickCount64() + static_cast<ULONGLONG>(timeout_ms);
    while (GetTickCount64() < end) {
        DWORD available = 0;
        if (!PeekNamedPipe(state_->out, nullptr, 0, nullptr, &available, nullptr)) {
            if (GetLastError() == ERROR_BROKEN_PIPE) return false;  // the child has gone
            available = 0;
        }
        if (available == 0) {
            Sleep(10);
            continue;
        }
        char buf[256];
        DWORD n = 0;
        if (!ReadFile(state_->out, buf, sizeof buf, &n, nullptr) || n == 0) return false;
        state_->got.append(buf, n);
        if (state_->got.find('\n') != std::string::npos) return state_->got.rfind(prefix, 0) == 0;
    }
    return false;
}

int Child::stop(int bound_ms) {
    return stop_process(*state_, bound_ms);
}

int run_again_with(const std::string& name, const std::string& value, char** /*argv*/,
                   const std::vector<std::string>& more_args) {
    // This process stays, waiting: a stop request it gets is passed on to the new one.
    install_stop_handlers();
    set_env(name, value);
    Child::State again;
    std::string command_line = GetCommandLineA();
    for (const auto& a : more_args)
        command_line += " " + quote(a);
    if (!start(again, command_line, false, false)) {
        std::fprintf(stderr, "shmrmctl: CreateProcess failed (error %lu)\n", GetLastError());
        return 1;
    }
    HANDLE waits[2] = {again.process, own_stop_event()};
    const bool ended = WaitForMultipleObjects(2, waits, FALSE, INFINITE) == WAIT_OBJECT_0;
    const int status = stop_process(again, ended ? 0 : 30000);
    return status < 0 ? 1 : status;
}

std::string self_path() {
    std::string path(MAX_PATH, '\0');
    for (;;) {
        const DWORD n = GetModuleFileNameA(nullptr, path.data(), static_cast<DWORD>(path.size()));
        if (n < path.size()) {
            path.resize(n);
            return path;
        }
        path.resize(path.size() * 2);
    }
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

void set_env(const std::string& name, const std::string& value) {
    // The C runtime's copy (getenv) and the process's block (what children get).
    _putenv_s(name.c_str(), value.c_str());
    SetEnvironmentVariableA(name.c_str(), value.c_str());
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

Console::Console() : saved_(std::make_unique<Saved>()) {
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
    write("\x1b[?1049h\x1b[?25l\x1b[H\x1b[2J");
}

Console::~Console() {
    write("\x1b[0m\x1b[?25h\x1b[?1049l");
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
        if (records[i].EventType == KEY_EVENT && key.bKeyDown && key.uChar.AsciiChar != 0) {
            keys.append(key.wRepeatCount, key.uChar.AsciiChar);
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

long process_id() {
    return static_cast<long>(GetCurrentProcessId());
}

long parent_process_id() {
    static const long parent = [] {
        long found = 0;
        HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
        if (snapshot == INVALID_HANDLE_VALUE) return found;
        PROCESSENTRY32 entry{};
        entry.dwSize = sizeof entry;
        for (BOOL more = Process32First(snapshot, &entry); more;
             more = Process32Next(snapshot, &entry)) {
            if (entry.th32ProcessID == GetCurrentProcessId()) {
                found = static_cast<long>(entry.th32ParentProcessID);
                break;
            }
        }
        CloseHandle(snapshot);
        return found;
    }();
    return parent;
}

}  // namespace shmrmctl::sys
