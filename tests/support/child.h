// A node process started by a test (by exec: the test's own library state is never copied),
// driven one command at a time through its standard input and output. Every wait is bounded.
#pragma once

#include <string>
#include <vector>

#include "process/process.h"

#if !defined(VEX_CHILD_EXE)
#define VEX_CHILD_EXE ""  // a test program without the node child names the program it starts
#endif

namespace vextest {

class Child {
  public:
    // Starts the child program; extra environment entries ("NAME=value") are added to the
    // test's own environment.
    explicit Child(const std::vector<std::string>& extra_env = {},
                   const std::string& program = VEX_CHILD_EXE);
    ~Child();  // ends the child: end of input, then a hard kill if it does not exit in time
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Sends one command and returns the reply line; "timeout" when none comes in time.
    std::string ask(const std::string& command, int timeout_ms = 20000);
    // The result code of a command whose reply starts with it.
    int rc(const std::string& command, int timeout_ms = 20000);
    // Sends a command without waiting for the reply (for a command that blocks).
    void send(const std::string& command);
    // The next reply line, waiting at most timeout_ms; "eof" when the child's output ended.
    std::string reply(int timeout_ms = 20000);

    void kill_hard();  // ends the process at once (SIGKILL, TerminateProcess) and reaps it
    // Waits for the child to exit; its exit status, or -1 on time-out.
    int wait_exit(int timeout_ms = 20000);

  private:
    // Reads what the child has written, waiting at most timeout_ms; false at end of output.
    bool read_some(int timeout_ms);

    vex::process::Process process_;
    std::string buffered_;
};

// Runs programs side by side, each given as its path and arguments, with the test's
// environment; returns their exit codes once all have ended (-1: not started or not ended in
// time).
std::vector<int> run_together(const std::vector<std::vector<std::string>>& commands,
                              int timeout_ms = 120000);

struct RunResult {
    int status = -1;  // the exit status; -1: not started, ended by a signal, or killed
    std::string out, err;
};
// Runs a program (its path and arguments) with the test's environment plus `extra_env`
// ("NAME=value", replacing any of the same name) and no input, and captures its standard output
// and error. A run that has not ended within `timeout_ms` is killed.
RunResult run(const std::vector<std::string>& args, const std::vector<std::string>& extra_env = {},
              int timeout_ms = 60000);

// Whether a process of this id still runs.
bool process_running(long pid);

}  // namespace vextest
