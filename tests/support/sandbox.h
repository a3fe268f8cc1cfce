// A temporary install directory for one test: etc/vex.xml and log/, with VEX_INSTALL_PATH
// pointing at it for as long as the sandbox lives.
#pragma once

#include <string>

#include "process/process.h"
#include "region_layout.h"

namespace vextest {

// The test's environment, as the library and the processes the test starts see it.
using vex::process::set_env;
using vex::process::unset_env;
// This process's id, in decimal.
std::string process_id_text();

using shmrm::Capacities;
// What a test's configuration gives unless it says otherwise.
inline constexpr Capacities kDefaultCapacities{128, 16, 128};

class Sandbox {
  public:
    Sandbox();
    ~Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    const std::string& path() const { return path_; }
    std::string log_path() const { return path_ + "/log/shmrm.log"; }

    // Writes etc/vex.xml verbatim.
    void write_config(const std::string& xml) const;
    // Writes a configuration with these capacities and log settings.
    void configure(Capacities caps, int log_level = 4, int log_size = 1000000) const;
    // The lines of the module log, or of another file below the sandbox.
    std::string read_log() const;
    static std::string read_file(const std::string& path);

  private:
    std::string path_;
    std::string saved_env_;
    bool had_env_ = false;
};

}  // namespace vextest
