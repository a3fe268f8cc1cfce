// The module log when its files or paths cannot be used: it does not open, or it goes on
// without what failed. It never writes anywhere else.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <string>

#include "support/sandbox.h"
#include "vexlog.h"
#include "vexutil.h"

namespace {

namespace fs = std::filesystem;
using vextest::Sandbox;

vex::LogHandle open_log(const std::string& name, int size = 1000) {
    vex::LogHandle h = nullptr;
    vex::loglib_open(name.c_str(), &h, 4, size, 0, 0);
    return h;
}

void write(vex::LogHandle h, const char* text) {
    vex::loglib_write(h, 4, 0, "a.cpp", 1, "_t", text);
}

std::size_t lines_in(const std::string& path) {
    const std::string text = Sandbox::read_file(path);
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

TEST(LogFaults, FilesInTheWay) {
    Sandbox sandbox;
    fs::create_directories(sandbox.path() + "/log");
    // A directory where the lock file or the log file belongs: the log does not open.
    for (const char* in_the_way : {"/log/shmrm.log.lock", "/log/shmrm.log"}) {
        SCOPED_TRACE(in_the_way);
        fs::create_directory(sandbox.path() + in_the_way);
        EXPECT_EQ(open_log("shmrm"), nullptr);
        fs::remove(sandbox.path() + in_the_way);
    }
    // A directory where the backup belongs: the file is not rotated and keeps every line.
    vex::LogHandle h = open_log("shmrm", 100);
    ASSERT_NE(h, nullptr);
    fs::create_directory(sandbox.log_path() + ".1");
    for (int i = 0; i < 4; ++i)
        write(h, "a line of some forty bytes");
    vex::loglib_write(h, 4, 0, nullptr, 2, nullptr, nullptr);  // fields left out
    vex::loglib_close(h);
    write(h, "through the closed handle");  // dropped: a closed log is never reopened
    EXPECT_EQ(lines_in(sandbox.log_path()), 5u);
    const std::string text = Sandbox::read_file(sandbox.log_path());
    EXPECT_EQ(text.substr(text.size() - 10), "INFO  :2 \n");
    EXPECT_TRUE(fs::is_directory(sandbox.log_path() + ".1"));
}

#if !defined(_WIN32)
// Paths that do not fit are refused, never cut: a cut lock path could name the log itself.
TEST(LogFaults, PathsTooLongLeaveNoHandle) {
    Sandbox sandbox;
    std::string install = sandbox.path();  // 1000 bytes long, in directories of up to 200
    while (install.size() + 201 < 1000)
        install += "/" + std::string(200, 'd');
    install += "/" + std::string(1000 - install.size() - 1, 'd');
    fs::create_directories(install);
    vextest::set_env("VEX_INSTALL_PATH", install);
    // <install>/log/<name>.log takes 1009 bytes beside the name; paths are below 1088.
    const struct {
        std::size_t name;
        bool opens;
    } rows[] = {{79, false}, {77, false}, {76, false}, {71, true}};  // log, backup, lock, all fit
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string name(row.name, 'n');
        vex::LogHandle h = open_log(name);
        EXPECT_EQ(h != nullptr, row.opens);
        write(h, "fits");
        vex::loglib_close(h);
        EXPECT_EQ(fs::exists(install + "/log/" + name + ".log"), row.opens);
    }
    // Only the files of the name that fits: nothing under a cut name.
    EXPECT_EQ(std::distance(fs::directory_iterator(install + "/log"), fs::directory_iterator()), 2);
}
#endif

}  // namespace
