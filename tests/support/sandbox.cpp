#include "support/sandbox.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#if defined(_WIN32)
#include <windows.h>
#endif

namespace vextest {

namespace fs = std::filesystem;

namespace {

// A new, empty directory of the system's temporary folder.
std::string make_temp_directory() {
#if defined(_WIN32)
    char temp[MAX_PATH + 1];
    const DWORD n = GetTempPathA(sizeof temp, temp);
    if (n == 0 || n > MAX_PATH) throw std::runtime_error("GetTempPath failed");
    static unsigned serial = 0;
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::string path = std::string(temp) + "vexshmrm-test-" + process_id_text() + "-" +
                                 std::to_string(++serial) + "-" + std::to_string(GetTickCount());
        if (CreateDirectoryA(path.c_str(), nullptr)) return path;
        if (GetLastError() != ERROR_ALREADY_EXISTS) break;
    }
    throw std::runtime_error("no temporary directory");
#else
    std::string pattern = (fs::temp_directory_path() / "vexshmrm-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    return pattern;
#endif
}

}  // namespace

std::string process_id_text() {
    return std::to_string(vex::process::self_id());
}

Sandbox::Sandbox() {
    path_ = make_temp_directory();
    fs::create_directories(path_ + "/etc");
    if (const char* old = std::getenv("VEX_INSTALL_PATH")) {
        had_env_ = true;
        saved_env_ = old;
    }
    set_env("VEX_INSTALL_PATH", path_);
    configure(kDefaultCapacities);
}

Sandbox::~Sandbox() {
    if (had_env_) {
        set_env("VEX_INSTALL_PATH", saved_env_);
    } else {
        unset_env("VEX_INSTALL_PATH");
    }
    std::error_code ec;
    fs::remove_all(path_, ec);
}

void Sandbox::write_config(const std::string& xml) const {
    std::ofstream(path_ + "/etc/vex.xml", std::ios::trunc) << xml;
}

void Sandbox::configure(Capacities caps, int log_level, int log_size) const {
    std::ostringstream xml;
    xml << "<root>\n  <all><num><group>" << caps.grpmax << "</group><resource>" << caps.rscmax
        << "</resource><monitor>" << caps.monmax << "</monitor></num></all>\n"
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
