// What shmrmctl asks of the operating system, in one place: stop requests, sleeping, starting
// and stopping its own child processes, the environment, the console, the clock. The rest of
// the program includes no system header; system_posix.cpp and system_win32.cpp implement this.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "process/process.h"

namespace shmrmctl::sys {

// Standard output as every system gets it: "\n" line ends, flushed line by line where the C
// library can.
void init_output();

// ---- Stop requests
// From here on a stop request is recorded instead of ending the process: SIGINT, SIGTERM, SIGHUP
// (the terminal closed) and SIGPIPE (the reader of standard output went away); on Windows Ctrl-C,
// Ctrl-Break, closing the console, and this process's stop event, which the parent that started it
// (Child::stop) sets.
void install_stop_handlers();
bool stop_requested();
void request_stop();
// From here on a write to a connection its peer has closed fails instead of raising SIGPIPE (which
// would otherwise be a stop request): for a server, whose clients may go at any time.
void ignore_broken_pipe();
// Sleeps up to `seconds`; returns early (false) when a stop is requested.
bool pause_for(double seconds);
// Sleeps until a stop is requested.
void wait_for_stop();

// ---- This program, started again
// What a child started by this process gets in its environment so that it follows its parent:
// follow_parent(), called first thing in main, then asks for a stop request (SIGTERM, through
// Linux's parent-death signal) when the parent ends, however it ends, so that no child outlives
// it; a child whose parent is already gone gets it at once.
inline constexpr const char* kParentVariable = "SHMRMCTL_PARENT_PID";
std::vector<std::string> parent_env();
void follow_parent();

class Child {
  public:
    // Starts this program with `args`, standard error shared, in a process group of its own
    // (a Ctrl-C on the console reaches the parent, which stops its children in order). With
    // `capture_stdout` its standard output comes back through a pipe (wait_for_line).
    Child(const std::vector<std::string>& args, bool capture_stdout);
    ~Child();  // stop() when it still runs
    Child(Child&&) noexcept;
    Child& operator=(Child&&) noexcept;
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    bool started() const;
    long id() const;
    // Waits at most `timeout_ms` for a first line that begins with `prefix`.
    bool wait_for_line(const std::string& prefix, int timeout_ms);
    // Asks the child to stop (SIGTERM; on Windows its stop event), ends it hard when it has not
    // exited within `bound_ms`, and reaps it. Its exit status; -1 when it had to be killed or
    // did not exit by itself.
    int stop(int bound_ms = 5000);

  private:
    vex::process::Process process_;
    void* stop_ = nullptr;  // what a stop request goes through, where not a signal
    std::string got_;
};

// How a stop request reaches a child (child.cpp is the same on every system): what it goes
// through, opened once the child runs; the request; closing what was opened.
void* open_stop_request(const vex::process::Process& child);
void send_stop_request(vex::process::Process& child, void* stop);
void close_stop_request(void* stop);

// Runs this program again, with the same arguments followed by `more_args` and with
// `name`=`value` in its environment, as a child, and returns its exit status to end with. For
// settings a library reads when it is loaded.
int run_again_with(const std::string& name, const std::string& value, char** argv,
                   const std::vector<std::string>& more_args);

using vex::process::self_path;
// A new empty directory in the system's temporary folder; empty, with `error` set, on failure.
std::string make_temp_dir(const std::string& prefix, std::string& error);
using vex::process::set_env;

// ---- The console
// Standard input and output are both a terminal (a console on Windows).
bool interactive();
// The width lines of standard output should fit: COLUMNS when set to a number, otherwise the
// terminal's width; 0 (no limit) when standard output is no terminal.
std::size_t output_columns();

// Key input without echo or line editing (Ctrl-C still requests a stop) and, with `screen`,
// the alternate screen; both restored when it goes out of scope.
class Console {
  public:
    explicit Console(bool screen = true);
    ~Console();
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    struct Size {
        std::size_t rows = 24, cols = 80;
    };
    Size size() const;
    void write(const std::string& text) const;
    // Waits at most `timeout_ms` for keys and appends them to `keys` (arrow and page keys as
    // the escape sequences of a VT100); false when the input has ended.
    bool read_keys(int timeout_ms, std::string& keys) const;

    struct Saved;  // the modes to restore

  private:
    std::unique_ptr<Saved> saved_;
    bool screen_;
};

// ---- Views of named mappings
// The size of the pages a view of a named mapping covers whole: a view reaches from the
// mapping's start to the next multiple of it. 1 where a view covers the mapping exactly.
std::size_t view_page();

// ---- Error texts
// The C library's text of an errno value ("Permission denied").
std::string error_text(int errno_value);
// The text of an error number the platform layer reports (vex::os::last_error): an errno value
// here, a system error code on Windows.
std::string system_error_text(unsigned error);

// ---- Clock and process
std::tm local_now();  // the local time, broken down
// The tick count the library stamps progress with (milliseconds since boot, 32 bits).
std::uint32_t tick_now();
inline long process_id() {
    return vex::process::self_id();
}
inline long parent_process_id() {
    return vex::process::parent_id();
}

}  // namespace shmrmctl::sys
