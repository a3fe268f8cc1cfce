// The only code of the stress program that knows the operating system: starting this program
// again as a worker, killing and reaping workers, and the control page that the parent and its
// workers share. POSIX here; a Win32 version would use CreateProcess, TerminateProcess and a
// named mapping with a named mutex per worker behind the same declarations.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace stress {

struct Child {
    long id = -1;     // process id
    int output = -1;  // read end of its standard output
};

// Starts this program with `args`; its standard output comes back through `child.output`.
bool start_self(const std::vector<std::string>& args, Child& child);
// Ends the process at once (SIGKILL), without asking.
void kill_now(const Child& child);
// Waits up to `wait_ms` for the child to end and reaps it: its exit code, or 128 + the signal
// that ended it; nullopt while it still runs.
std::optional<int> reap(const Child& child, int wait_ms);
// Waits up to `wait_ms` for output from any child, then appends what each has written to its
// entry of `text`; `open[i]` becomes false at the end of child i's output.
void read_output(const std::vector<Child>& children, std::vector<std::string>& text,
                 std::vector<bool>& open, int wait_ms);
// Runs this program again with these arguments and the current environment, as a child, and
// waits for it: its exit code, or 128 + the signal that ended it.
int run_self(char** argv);
// This process's id.
long self_id();
// The id of the process that started this one.
long parent_id();

// A page of shared memory (a file of the run's temporary directory) with a stop flag and, per
// worker process, a kill guard and a "holds the region lock" mark.
//
// The kill guard: a worker holds it around each call that writes more than one word of the
// region; the killer takes it before it kills that worker. A kill therefore never lands inside
// such a call, and lands anywhere else.
class ControlPage {
  public:
    static constexpr int kMaxWorkers = 64;

    // The parent's page, new; nullptr on failure.
    static std::unique_ptr<ControlPage> create(const std::string& path);
    // A worker's view of the parent's page; nullptr on failure.
    static std::unique_ptr<ControlPage> open(const std::string& path);
    ~ControlPage();
    ControlPage(const ControlPage&) = delete;
    ControlPage& operator=(const ControlPage&) = delete;

    void request_stop();
    bool stop_requested() const;

    // Takes worker w's kill guard, waiting at most timeout_ms; false when it did not come.
    bool take_guard(int w, unsigned timeout_ms);
    void release_guard(int w);

    void set_holding(int w, bool holding);
    bool holding(int w) const;

  private:
    explicit ControlPage(void* page) : page_(page) {}
    void* page_;
};

}  // namespace stress
