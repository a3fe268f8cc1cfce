// The operating-system services vexshmrm and its stand-in libraries need, behind one interface.
// posix/ implements what every POSIX system gives the same way and linux/ what is Linux's own (a
// second POSIX system writes its own version of linux/'s files); win32/ implements it for Windows.
// No other code knows which system it runs on.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vex::os {

using Handle = void*;

// Error numbers that callers test for; every other failure reports the system's own number.
inline constexpr unsigned kErrorFileNotFound = 2;
inline constexpr unsigned kErrorAlreadyExists = 183;

// Results of wait_mutex.
inline constexpr unsigned kWaitObject0 = 0;
inline constexpr unsigned kWaitAbandoned = 0x80;
inline constexpr unsigned kWaitTimeout = 258;
inline constexpr unsigned kWaitFailed = 0xFFFFFFFFu;
inline constexpr unsigned kInfinite = 0xFFFFFFFFu;

// The calling thread's last error, as every call below leaves it.
unsigned last_error();
void set_last_error(unsigned error);

// Object names are non-empty, hold no '/' and have at most kObjectNameMax characters (the space
// a system's companion objects need is kept free on every system); other names are refused.
inline constexpr std::size_t kObjectNameMax = 249;

// A named, memory-backed mapping that lives exactly while some process holds a handle to it or
// a view of it; a process that dies releases what it held. (On Windows its name can no longer
// be opened once the last handle is closed; the library keeps a handle with every view.) After a
// successful create the last error is kErrorAlreadyExists exactly when the mapping existed before
// the call (its size is then the existing one). open fails with kErrorFileNotFound when no process
// holds the mapping. Its memory is committed when it is made: a mapping the system cannot back
// is refused then, and never faults later. No object of a name outlives its last holder.
Handle create_named_mapping(std::uint64_t size, const char* name);
Handle open_named_mapping(const char* name);
// Maps the whole mapping read-write; *mapped receives its length. Where the system allows, the
// view lies between inaccessible pages, so that a stray access past either end faults at once
// instead of touching whatever lies beside it.
void* map_view(Handle mapping, std::size_t* mapped);
// The same, read-only: a write through the view faults. For readers that must change nothing.
void* map_view_read(Handle mapping, std::size_t* mapped);
bool unmap_view(void* view);

// A named, recursive mutex owned by a thread, shared by every process. When its owner thread
// or process ends while holding it, the next waiter gets it with kWaitAbandoned. Its memory is
// committed when it is made (creation fails when it cannot be); it lives while any process holds
// a handle to it.
Handle create_named_mutex(const char* name);
unsigned wait_mutex(Handle mutex, unsigned timeout_ms);
bool release_mutex(Handle mutex);

// Closes a mapping or mutex handle.
bool close_handle(Handle handle);

// Removes a named mapping or mutex that no process holds any more (its holders all died); true
// when it removed one. Where the kernel ends an object with its last handle, there is never one.
bool remove_if_unused(const char* name);

// The objects whose names begin with "<ns>.": each one's name is passed to `each`; the count is
// returned. Where objects end with their last handle, none is ever listed.
std::size_t namespace_objects(const char* ns, void (*each)(const char* name, void* context),
                              void* context);
// Removes every object of the namespace that no process holds.
void sweep_namespace(const char* ns);

// A process-local recursive lock with an explicit lifetime (it may be used from static
// constructors and destructors, in any order).
class LocalLock {
  public:
    void init();
    void destroy();
    void enter();
    void leave();

  private:
    alignas(16) unsigned char storage_[64] = {};
};

void sleep_ms(unsigned ms);
// Milliseconds since the system started, cut to 32 bits.
unsigned tick_count();
unsigned long process_id();
unsigned long thread_id();

// Files, for the stand-in libraries.
bool is_directory(const char* path);
bool make_directory(const char* path);  // true when it exists afterwards
char path_separator();

// An append-only file shared by the processes of the node, written a whole line at a time by one
// write. Only a regular file is opened, and opening never waits: a FIFO, a device or a folder at
// the path is refused.
struct AppendFile {
    std::intptr_t fd = -1;
};
// Whether appends through different descriptors land whole without a lock. Where they may not
// (Wine's appends are a seek and a write), writers take the page lock around each line, waiting a
// bounded moment for it.
extern const bool kAppendsAreAtomic;
bool append_open(AppendFile* file, const char* path);
// Points an open file at the file now at `path` (made when missing). Where appends are atomic,
// other threads may be writing through it meanwhile: each of their writes lands whole in the old
// file or the new one; elsewhere the caller holds the page lock.
bool append_reopen(AppendFile* file, const char* path);
void append_close(AppendFile* file);
bool append_write(AppendFile* file, const void* data, std::size_t len);
std::int64_t append_size(AppendFile* file);  // -1 on failure
bool append_is_current(AppendFile* file,
                       const char* path);  // false once the path names another file
bool rename_replace(const char* from, const char* to);

// A small regular file mapped into memory, shared by every process that maps it; its blocks are
// committed before it is mapped. Its lock is exclusive, never waits, and goes with its holder.
struct FilePage {
    void* address = nullptr;
    std::intptr_t fd = -1;
    std::intptr_t mapping = 0;
};
bool page_map(FilePage* page, const char* path, std::size_t size);
void page_unmap(FilePage* page);
bool page_trylock(FilePage* page);
void page_unlock(FilePage* page);

// The wall clock, read without a system call, and the local date and time of one of its seconds.
struct WallClock {
    std::int64_t seconds;
    int millisecond;
};
WallClock wall_clock();
struct LocalTime {
    int year, month, day, hour, minute, second;
};
LocalTime local_time_of(std::int64_t seconds);

// While it lives, the calling thread cannot be cancelled (where threads can be): what it does
// runs to its end, and leaves nothing half done behind for the others.
class CancelGuard {
  public:
    CancelGuard();
    ~CancelGuard();
    CancelGuard(const CancelGuard&) = delete;
    CancelGuard& operator=(const CancelGuard&) = delete;

  private:
    int previous_ = 0;
};

}  // namespace vex::os
