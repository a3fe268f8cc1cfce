#include "support/sandbox.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace vextest {

namespace fs = std::filesystem;

Sandbox::Sandbox() {
    std::string pattern = (fs::temp_directory_path() / "vexshmrm-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
    fs::create_directories(path_ + "/etc");
    if (const char* old = std::getenv("VEX_INSTALL_PATH")) {
        had_env_ = true;
        saved_env_ = old;
    }
    setenv("VEX_INSTALL_PATH", path_.c_str(), 1);
    configure(Capacities{});
}

Sandbox::~Sandbox() {
    if (had_env_) {
        setenv("VEX_INSTALL_PATH", saved_env_.c_str(), 1);
    } else {
        unsetenv("VEX_INSTALL_PATH");
    }
    std::error_code ec;
    fs::remove_all(path_, ec);
}

void Sandbox::write_config(const std::string& xml) const {
    std::ofstream(path_ + "/etc/vex.xml", std::ios::trunc) << xml;
}

void Sandbox::configure(Capacities caps, int log_level, int log_size) const {
    std::ostringstream xml;
    xml << "<root>\n  <all><num><group>" << caps.groups << "</group><resource>" << caps.resources
        << "</resource><monitor>" << caps.monitors << "</monitor></num></all>\n"
        << "  <shmrm><log><level>" << log_level << "</level><size>" << log_size
        << "</size></log></shmrm>\n</root>\n";
    write_config(xml.str());
}

std::string Sandbox::read_log() const {
    return read_file(log_path());
}

std::string Sandbox::read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

}  // namespace vextest
