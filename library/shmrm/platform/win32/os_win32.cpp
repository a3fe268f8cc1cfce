// os.h on Win32. The kernel's named mappings and mutexes already have the lifetimes and the
// ownership rules that os.h describes, so every call maps onto one or two system calls.
#include <windows.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <new>

#include "os.h"

namespace vex::os {

namespace {

static_assert(kErrorFileNotFound == ERROR_FILE_NOT_FOUND);
static_assert(kErrorAlreadyExists == ERROR_ALREADY_EXISTS);
static_assert(kWaitObject0 == WAIT_OBJECT_0 && kWaitAbandoned == WAIT_ABANDONED &&
              kWaitTimeout == WAIT_TIMEOUT && kWaitFailed == WAIT_FAILED && kInfinite == INFINITE);

// Object names are plain: non-empty, without '/' and no longer than kObjectNameMax, as on every
// system the library runs on.
bool usable_name(const char* name) {
    if (name != nullptr && *name != '\0' && std::strchr(name, '/') == nullptr &&
        std::strlen(name) <= kObjectNameMax)
        return true;
    SetLastError(ERROR_INVALID_NAME);
    return false;
}

// Handles of mappings are inheritable, as the node's processes have always opened them.
SECURITY_ATTRIBUTES* inheritable() {
    static SECURITY_ATTRIBUTES attributes{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    return &attributes;
}

HANDLE handle_of(const AppendFile* file) {
    return reinterpret_cast<HANDLE>(file->fd);
}

bool same_file(HANDLE a, HANDLE b) {
    BY_HANDLE_FILE_INFORMATION x{};
    BY_HANDLE_FILE_INFORMATION y{};
    return GetFileInformationByHandle(a, &x) != 0 && GetFileInformationByHandle(b, &y) != 0 &&
           x.dwVolumeSerialNumber == y.dwVolumeSerialNumber &&
           x.nFileIndexHigh == y.nFileIndexHigh && x.nFileIndexLow == y.nFileIndexLow;
}

CRITICAL_SECTION* section(unsigned char* storage) {
    return std::launder(reinterpret_cast<CRITICAL_SECTION*>(storage));
}

}  // namespace

unsigned last_error() {
    return GetLastError();
}
void set_last_error(unsigned error) {
    SetLastError(error);
}

Handle create_named_mapping(std::uint64_t size, const char* name) {
    if (!usable_name(name)) return nullptr;
    if (size == 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return CreateFileMappingA(INVALID_HANDLE_VALUE, inheritable(), PAGE_READWRITE,
                              static_cast<DWORD>(size >> 32), static_cast<DWORD>(size), name);
}

Handle open_named_mapping(const char* name) {
    if (!usable_name(name)) return nullptr;
    return OpenFileMappingA(FILE_MAP_ALL_ACCESS, TRUE, name);
}

namespace {

void* map_view_as(Handle mapping, std::size_t* mapped, DWORD access) {
    void* view = MapViewOfFile(mapping, access, 0, 0, 0);
    if (view == nullptr) return nullptr;
    MEMORY_BASIC_INFORMATION info{};
    if (VirtualQuery(view, &info, sizeof info) == 0) {
        const DWORD error = GetLastError();
        UnmapViewOfFile(view);
        SetLastError(error);
        return nullptr;
    }
    if (mapped != nullptr) *mapped = info.RegionSize;
    return view;
}

}  // namespace

void* map_view(Handle mapping, std::size_t* mapped) {
    return map_view_as(mapping, mapped, FILE_MAP_WRITE);
}
void* map_view_read(Handle mapping, std::size_t* mapped) {
    return map_view_as(mapping, mapped, FILE_MAP_READ);
}

bool unmap_view(void* view) {
    return UnmapViewOfFile(view) != 0;
}

Handle create_named_mutex(const char* name) {
    if (!usable_name(name)) return nullptr;
    return CreateMutexA(nullptr, FALSE, name);
}

unsigned wait_mutex(Handle mutex, unsigned timeout_ms) {
    return WaitForSingleObject(mutex, timeout_ms);
}

bool release_mutex(Handle mutex) {
    return ReleaseMutex(mutex) != 0;
}

bool close_handle(Handle handle) {
    return CloseHandle(handle) != 0;
}

// The kernel ends a named object with its last handle: there is never one left to remove or list.
bool remove_if_unused(const char*) {
    return false;
}
std::size_t namespace_objects(const char*, void (*)(const char*, void*), void*) {
    return 0;
}
void sweep_namespace(const char*) {}

void LocalLock::init() {
    static_assert(sizeof(storage_) >= sizeof(CRITICAL_SECTION));
    static_assert(alignof(CRITICAL_SECTION) <= 16);
    InitializeCriticalSection(new (storage_) CRITICAL_SECTION);
}
void LocalLock::destroy() {
    DeleteCriticalSection(section(storage_));
}
void LocalLock::enter() {
    EnterCriticalSection(section(storage_));
}
void LocalLock::leave() {
    LeaveCriticalSection(section(storage_));
}

void sleep_ms(unsigned ms) {
    Sleep(ms);
}

unsigned tick_count() {
    return GetTickCount();
}

unsigned long process_id() {
    return GetCurrentProcessId();
}
unsigned long thread_id() {
    return GetCurrentThreadId();
}

// ---- Files ----------------------------------------------------------------------------------

bool is_directory(const char* path) {
    const DWORD attributes = GetFileAttributesA(path);
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool make_directory(const char* path) {
    if (CreateDirectoryA(path, nullptr) != 0) return true;
    return GetLastError() == ERROR_ALREADY_EXISTS && is_directory(path);
}

char path_separator() {
    return '\\';
}

namespace {

// Opens a regular file, making it when missing; anything else at the path is refused. Other
// processes may write, rename and replace the file while it is open here.
HANDLE open_regular(const char* path, DWORD access) {
    HANDLE h = CreateFileA(path, access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                           nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE) return nullptr;
    if (GetFileType(h) != FILE_TYPE_DISK) {
        CloseHandle(h);
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return h;
}

constexpr DWORD kAppend = FILE_APPEND_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE;

}  // namespace

bool append_open(AppendFile* file, const char* path) {
    append_close(file);
    HANDLE h = open_regular(path, kAppend);
    if (h == nullptr) return false;
    file->fd = reinterpret_cast<std::intptr_t>(h);
    return true;
}

// Wine places an append by a seek and a write, so two handles can interleave.
const bool kAppendsAreAtomic = false;

bool append_reopen(AppendFile* file, const char* path) {
    if (file->fd == -1) return append_open(file, path);
    HANDLE h = open_regular(path, kAppend);
    if (h == nullptr) return false;
    CloseHandle(handle_of(file));  // its writers hold the page lock, as this caller does
    file->fd = reinterpret_cast<std::intptr_t>(h);
    return true;
}

void append_close(AppendFile* file) {
    if (file->fd == -1) return;
    CloseHandle(handle_of(file));
    file->fd = -1;
}

bool append_write(AppendFile* file, const void* data, std::size_t len) {
    if (file->fd == -1) return false;
    const char* p = static_cast<const char*>(data);
    while (len > 0) {
        const DWORD chunk = len > 0x40000000u ? 0x40000000u : static_cast<DWORD>(len);
        DWORD written = 0;
        if (WriteFile(handle_of(file), p, chunk, &written, nullptr) == 0 || written == 0) {
            return false;
        }
        p += written;
        len -= written;
    }
    return true;
}

std::int64_t append_size(AppendFile* file) {
    LARGE_INTEGER size{};
    if (file->fd == -1 || GetFileSizeEx(handle_of(file), &size) == 0) return -1;
    return size.QuadPart;
}

bool append_is_current(AppendFile* file, const char* path) {
    if (file->fd == -1) return false;
    HANDLE named = CreateFileA(path, 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                               nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (named == INVALID_HANDLE_VALUE) return false;
    const bool same = same_file(handle_of(file), named);
    CloseHandle(named);
    return same;
}

bool rename_replace(const char* from, const char* to) {
    return MoveFileExA(from, to, MOVEFILE_REPLACE_EXISTING) != 0;
}

bool page_map(FilePage* page, const char* path, std::size_t size) {
    page_unmap(page);
    HANDLE file = open_regular(path, GENERIC_READ | GENERIC_WRITE);
    if (file == nullptr) return false;
    // The section is backed by the file, which it makes at least `size` bytes long.
    HANDLE mapping =
        CreateFileMappingA(file, nullptr, PAGE_READWRITE, 0, static_cast<DWORD>(size), nullptr);
    void* address = mapping ? MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, size) : nullptr;
    if (address == nullptr) {
        if (mapping != nullptr) CloseHandle(mapping);
        CloseHandle(file);
        return false;
    }
    page->address = address;
    page->fd = reinterpret_cast<std::intptr_t>(file);
    page->mapping = reinterpret_cast<std::intptr_t>(mapping);
    return true;
}

void page_unmap(FilePage* page) {
    if (page->address == nullptr) return;
    UnmapViewOfFile(page->address);
    CloseHandle(reinterpret_cast<HANDLE>(page->mapping));
    CloseHandle(reinterpret_cast<HANDLE>(page->fd));
    *page = FilePage{};
}

bool page_trylock(FilePage* page) {
    if (page->address == nullptr) return false;
    OVERLAPPED at{};
    return LockFileEx(reinterpret_cast<HANDLE>(page->fd),
                      LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &at) != 0;
}

void page_unlock(FilePage* page) {
    if (page->address == nullptr) return;
    OVERLAPPED at{};
    UnlockFileEx(reinterpret_cast<HANDLE>(page->fd), 0, 1, 0, &at);
}

WallClock wall_clock() {
    FILETIME ft{};
    GetSystemTimePreciseAsFileTime(&ft);
    const std::uint64_t ticks = (std::uint64_t{ft.dwHighDateTime} << 32) | ft.dwLowDateTime;
    const std::uint64_t ms = ticks / 10000 - 11644473600000ull;  // since 1970
    return WallClock{static_cast<std::int64_t>(ms / 1000), static_cast<int>(ms % 1000)};
}

LocalTime local_time_of(std::int64_t seconds) {
    const auto t = static_cast<std::time_t>(seconds);
    std::tm parts{};
    localtime_s(&parts, &t);
    return LocalTime{parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday,
                     parts.tm_hour,        parts.tm_min,     parts.tm_sec};
}

// Windows threads are not cancelled.
CancelGuard::CancelGuard() = default;
CancelGuard::~CancelGuard() = default;

}  // namespace vex::os
