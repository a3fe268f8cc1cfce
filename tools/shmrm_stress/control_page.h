// The control page that the stress program's parent and its workers share: with the process
// runner (common/process), the only code of the program that knows the operating system. POSIX
// here; a Win32 version would use a named mapping with a named mutex per worker.
#pragma once

#include <memory>
#include <string>

namespace stress {

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
