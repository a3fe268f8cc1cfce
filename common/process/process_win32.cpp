// The process runner on Windows: CreateProcess with an explicit list of inherited handles,
// anonymous pipes, TerminateProcess, waits on the process handle.
#include <windows.h>
// After windows.h:
#include <tlhelp32.h>

#include <cstdlib>
#include <cstring>

#include "process.h"

namespace vex::process {

namespace {

HANDLE handle_of(std::intptr_t v) {
    return reinterpret_cast<HANDLE>(v);
}

void close_handle(std::intptr_t& v) {
    if (v != -1) CloseHandle(handle_of(v));
    v = -1;
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

std::string windows_path(std::string path) {
    for (char& c : path)
        if (c == '/') c = '\\';
    return path;
}

// This process's environment block with `changes` ("NAME=value") replacing any of the same
// name (compared without case, as Windows does).
std::string environment_block(const std::vector<std::string>& changes) {
    std::string block;
    for (const auto& change : changes)
        block += change + '\0';
    char* env = GetEnvironmentStringsA();
    for (const char* e = env; *e != '\0'; e += std::strlen(e) + 1) {
        bool replaced = false;
        for (const auto& change : changes) {
            const auto key = change.find('=') + 1;
            replaced |= _strnicmp(e, change.c_str(), key) == 0;
        }
        if (!replaced) block += std::string(e) + '\0';
    }
    FreeEnvironmentStringsA(env);
    return block + '\0';
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

Process Process::start(const std::vector<std::string>& args, const Options& options) {
    Process p;
    if (args.empty()) return p;
    std::string command_line;
    for (const auto& a : args)
        command_line += (command_line.empty() ? "" : " ") + quote(a);

    // For each standard stream: the child's handle (inheritable) and ours.
    const Stream streams[3] = {options.in, options.out, options.err};
    const DWORD std_ids[3] = {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE};
    std::intptr_t* ours[3] = {&p.in_, &p.out_, &p.err_};
    HANDLE theirs[3] = {nullptr, nullptr, nullptr};
    bool ok = true;
    for (int i = 0; i < 3; ++i) {
        if (streams[i] == Stream::pipe) {
            SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
            HANDLE read_end = nullptr, write_end = nullptr;
            if (!CreatePipe(&read_end, &write_end, &inheritable, 0)) {
                ok = false;
                continue;
            }
            HANDLE mine = i == 0 ? write_end : read_end;
            SetHandleInformation(mine, HANDLE_FLAG_INHERIT, 0);
            theirs[i] = i == 0 ? read_end : write_end;
            *ours[i] = reinterpret_cast<std::intptr_t>(mine);
        } else if (streams[i] == Stream::none) {
            SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
            theirs[i] = CreateFileA("NUL", i == 0 ? GENERIC_READ : GENERIC_WRITE,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE, &inheritable, OPEN_EXISTING,
                                    0, nullptr);
            if (theirs[i] == INVALID_HANDLE_VALUE) theirs[i] = nullptr;
        } else {
            theirs[i] = inheritable_copy(GetStdHandle(std_ids[i]));
        }
    }
    std::vector<HANDLE> inherit;
    for (HANDLE h : theirs)
        if (h != nullptr) inherit.push_back(h);

    STARTUPINFOEXA info{};
    info.StartupInfo.cb = sizeof info;
    info.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    info.StartupInfo.hStdInput = theirs[0];
    info.StartupInfo.hStdOutput = theirs[1];
    info.StartupInfo.hStdError = theirs[2];
    // Only these handles are inherited, so that no other child holds a pipe of this one open.
    SIZE_T size = 0;
    InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    std::vector<char> storage(size);
    auto* list = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(storage.data());
    const bool listed = !inherit.empty() && InitializeProcThreadAttributeList(list, 1, 0, &size);
    if (listed &&
        UpdateProcThreadAttribute(list, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, inherit.data(),
                                  sizeof(HANDLE) * inherit.size(), nullptr, nullptr)) {
        info.lpAttributeList = list;
    }
    const DWORD flags = (info.lpAttributeList != nullptr ? EXTENDED_STARTUPINFO_PRESENT : 0) |
                        (options.own_group ? CREATE_NEW_PROCESS_GROUP : 0);
    std::string block;
    if (!options.env.empty()) block = environment_block(options.env);
    const std::string program = windows_path(args.front());
    PROCESS_INFORMATION process{};
    ok = ok && CreateProcessA(program.c_str(), command_line.data(), nullptr, nullptr,
                              info.lpAttributeList != nullptr ? TRUE : FALSE, flags,
                              block.empty() ? nullptr : block.data(), nullptr, &info.StartupInfo,
                              &process);
    if (listed) DeleteProcThreadAttributeList(list);
    for (HANDLE h : inherit)
        CloseHandle(h);
    if (!ok) {
        p.close_input();
        p.close_output();
        return p;
    }
    CloseHandle(process.hThread);
    p.handle_ = process.hProcess;
    p.id_ = static_cast<long>(process.dwProcessId);
    return p;
}

bool Process::write(const std::string& data) {
    std::size_t done = 0;
    while (done < data.size() && in_ != -1) {
        DWORD n = 0;
        if (!WriteFile(handle_of(in_), data.data() + done, static_cast<DWORD>(data.size() - done),
                       &n, nullptr) ||
            n == 0) {
            return false;
        }
        done += n;
    }
    return done == data.size();
}

void Process::close_input() {
    close_handle(in_);
}

Read Process::read(std::string& into, int timeout_ms, bool from_error) {
    const std::intptr_t from = from_error ? err_ : out_;
    if (from == -1) return Read::end;
    // An anonymous pipe cannot be waited on: look for data every millisecond.
    const ULONGLONG end = GetTickCount64() + static_cast<ULONGLONG>(timeout_ms);
    for (;;) {
        DWORD available = 0;
        if (!PeekNamedPipe(handle_of(from), nullptr, 0, nullptr, &available, nullptr)) {
            if (GetLastError() == ERROR_BROKEN_PIPE) return Read::end;  // the writers have gone
            available = 0;
        }
        if (available > 0) {
            char buf[4096];
            DWORD n = 0;
            if (!ReadFile(handle_of(from), buf, sizeof buf, &n, nullptr) || n == 0)
                return Read::end;
            into.append(buf, n);
            return Read::data;
        }
        if (GetTickCount64() >= end) return Read::timeout;
        Sleep(1);
    }
}

void Process::close_output() {
    close_handle(out_);
    close_handle(err_);
}

void Process::kill() {
    if (handle_ != nullptr) TerminateProcess(handle_, 9);
}

std::optional<Exit> Process::wait(int timeout_ms) {
    if (handle_ == nullptr) return std::nullopt;
    const DWORD bound = timeout_ms < 0 ? INFINITE : static_cast<DWORD>(timeout_ms);
    if (WaitForSingleObject(handle_, bound) != WAIT_OBJECT_0) return std::nullopt;
    DWORD code = 0;
    Exit exit{-1, 0};
    if (GetExitCodeProcess(handle_, &code)) exit.code = static_cast<int>(code);
    CloseHandle(handle_);
    handle_ = nullptr;
    id_ = -1;
    return exit;
}

bool wait_output(const std::vector<Process*>& processes, int timeout_ms) {
    const ULONGLONG end = GetTickCount64() + static_cast<ULONGLONG>(timeout_ms);
    for (;;) {
        for (const Process* p : processes) {
            if (p->out_ == -1) continue;
            DWORD available = 0;
            if (!PeekNamedPipe(handle_of(p->out_), nullptr, 0, nullptr, &available, nullptr) ||
                available > 0) {
                return true;
            }
        }
        if (GetTickCount64() >= end) return false;
        Sleep(1);
    }
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

void set_env(const std::string& name, const std::string& value) {
    // The C runtime's copy (getenv) and the process's block (what children get).
    _putenv_s(name.c_str(), value.c_str());
    SetEnvironmentVariableA(name.c_str(), value.c_str());
}

void unset_env(const std::string& name) {
    _putenv_s(name.c_str(), "");
    SetEnvironmentVariableA(name.c_str(), nullptr);
}

long self_id() {
    return static_cast<long>(GetCurrentProcessId());
}

long parent_id() {
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

}  // namespace vex::process
