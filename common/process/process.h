// Starting and watching other processes, on POSIX systems (posix_spawn) and on Windows
// (CreateProcess): a program or this program again, with changes to its environment, its
// standard streams inherited, discarded or through pipes, killed, and waited for with a bound.
// Used by the tests, shmrmctl and the stress program alike.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vex::process {

// What a started process gets as one of its standard streams.
enum class Stream {
    inherit,  // this process's own
    pipe,     // a pipe to this process (write() for input, read() for output)
    none,     // nothing: the null device
};

struct Options {
    // "NAME=value" entries added to this process's environment, replacing any of the same name.
    std::vector<std::string> env;
    Stream in = Stream::inherit, out = Stream::inherit, err = Stream::inherit;
    // A process group of its own: an interrupt from the terminal reaches this process only,
    // which then stops its children itself.
    bool own_group = false;
};

// How a process ended.
struct Exit {
    int code = 0;    // the exit code, when it ended by itself
    int signal = 0;  // the signal that ended it (POSIX); 0 when it exited
    bool exited() const { return signal == 0; }
    // The status a shell reports: the exit code, or 128 + the signal.
    int status() const { return signal == 0 ? code : 128 + signal; }
};

enum class Read {
    data,     // something was appended
    timeout,  // nothing came in time
    end,      // the output has ended (or was never a pipe)
};

class Process;
// Waits at most `timeout_ms` until one of `processes` has standard output to read (or its
// output has ended); false when none had in time.
bool wait_output(const std::vector<Process*>& processes, int timeout_ms);

class Process {
  public:
    Process() = default;
    // Starts `args` (the program's path, then its arguments); started() tells whether it ran.
    static Process start(const std::vector<std::string>& args, const Options& options = {});
    // Starts this program again with `args` after its name.
    static Process start_self(const std::vector<std::string>& args, const Options& options = {});
    ~Process();  // closes the pipes, then kills and reaps the process when it still runs
    Process(Process&& other) noexcept;
    Process& operator=(Process&& other) noexcept;
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    bool started() const;
    long id() const;
    // The process handle on Windows (for waits on several objects); null elsewhere.
    void* handle() const;

    // Writes all of `data` to its standard input pipe; false when it cannot take it.
    bool write(const std::string& data);
    void close_input();
    // Appends what it has written to its standard output (or error) pipe, waiting at most
    // `timeout_ms` for something to come.
    Read read(std::string& into, int timeout_ms, bool from_error = false);
    void close_output();

    // Ends it at once (SIGKILL; TerminateProcess with exit code 9), without reaping it.
    void kill();
#if !defined(_WIN32)
    void signal(int sig);
#endif
    // Waits at most `timeout_ms` (negative: without limit) for it to end and reaps it; nullopt
    // while it still runs. After that, the process is gone: started() is false.
    std::optional<Exit> wait(int timeout_ms);
    // kill(), then wait() without limit.
    Exit kill_and_wait();

  private:
    friend bool wait_output(const std::vector<Process*>& processes, int timeout_ms);
    long id_ = -1;
    void* handle_ = nullptr;  // Windows: the process
    // Pipes: ints (POSIX descriptors, -1 when none) or Windows handles, stored alike.
    std::intptr_t in_ = -1, out_ = -1, err_ = -1;
};

struct Result {
    std::optional<Exit> exit;  // nullopt: not started, or killed when the time was up
    std::string out, err;
};
// Runs `args` with no input, captures its standard output and error, and waits for it; a run
// that has not ended within `timeout_ms` is killed.
Result run(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
           int timeout_ms = 60000);

// This program's path.
std::string self_path();
#if !defined(_WIN32)
// Replaces this process with this program again, `args` after its name, keeping its process id
// (for settings a library reads when it is loaded). Returns only when that failed.
void exec_self(const std::vector<std::string>& args);
#endif
// Changes this process's environment: what getenv() returns and what children get.
void set_env(const std::string& name, const std::string& value);
void unset_env(const std::string& name);
long self_id();
// The id of the process that started this one.
long parent_id();

}  // namespace vex::process
