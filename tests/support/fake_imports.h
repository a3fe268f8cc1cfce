// A stand-in for the library's imports: it records every call in order, fails the calls a test
// names, takes pauses without sleeping, and keeps the trace lines the library writes. Calls
// that are not failed go to the real libraries and kernel.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "imports.h"

namespace vextest {

struct TraceLine {
    int level;
    std::string tag;
    std::string text;
    bool operator==(const TraceLine&) const = default;
};

std::ostream& operator<<(std::ostream& out, const TraceLine& line);

class FakeImports {
  public:
    FakeImports();   // installs itself
    ~FakeImports();  // restores the previous table
    FakeImports(const FakeImports&) = delete;
    FakeImports& operator=(const FakeImports&) = delete;

    // Makes the n-th call (1-based; 0 = every call) of `name` fail with `result` (for calls
    // returning a pointer, any non-zero result means "return null"), leaving `error` as the
    // last error.
    void fail(const std::string& name, int result = -1, unsigned error = 5, int nth = 0);
    // Makes the first `count` calls of `name` fail and the later ones go through.
    void fail_first(const std::string& name, int count, int result = -1, unsigned error = 5);
    // For the mapping create: succeed but report the mapping as already existing.
    void report_existing(bool on) { report_existing_ = on; }
    // Values the XML library hands out instead of reading the file (by key).
    void value(const std::string& key, int v) { values_[key] = v; }
    void tick(unsigned t) { tick_ = t; }

    // Every call, in order: its name and, where it has one, its first string argument in
    // parentheses, e.g. "xmllib_load_policy(all)".
    std::vector<std::string> calls;
    // Calls of the XML library only.
    std::vector<std::string> xml_calls() const;
    std::vector<unsigned> pauses;
    std::vector<TraceLine> lines;  // every line written to the log, whatever its level
    bool keep_lines = true;        // off where no one reads them (the fuzzer): no copies made
    int log_opens = 0;
    int log_closes = 0;
    int open_level = 0;  // level and size of the last loglib_open
    int open_size = 0;
    int open_handles() const { return handles_open_; }

    // Lines at `level`, as text.
    std::vector<std::string> texts(int level) const;

    // Implementation detail of the trampolines.
    struct Failure {
        int result;
        unsigned error;
        int nth;
        int seen = 0;
        int first = 0;  // > 0: fail calls 1..first only
    };
    bool should_fail(const std::string& name, int* result);
    std::map<std::string, Failure> failures_;
    std::map<std::string, int> values_;
    bool report_existing_ = false;
    unsigned tick_ = 0;
    bool has_tick_ = false;
    unsigned fake_error_ = 0;
    bool use_fake_error_ = false;
    int handles_open_ = 0;

  private:
    const shmrm::Imports* previous_;
};

}  // namespace vextest
