// Writes numbered lines to the module log, for tests of several processes sharing it.
// Usage: vexlog_writer <tag> <count> <rotation size>
// Line i (from 0) carries the text "<tag> seq=<i> <padding>"; the exit code is 0 when the log
// was opened, 2 otherwise.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "vexlog.h"

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s <tag> <count> <rotation size>\n", argv[0]);
        return 1;
    }
    const std::string tag = argv[1];
    const long count = std::strtol(argv[2], nullptr, 10);
    const int size = static_cast<int>(std::strtol(argv[3], nullptr, 10));

    vex::LogHandle log = nullptr;
    vex::loglib_open("shmrm", &log, 4, size, 0, 0);
    if (log == nullptr) return 2;
    const std::string padding(40, '.');
    for (long i = 0; i < count; ++i) {
        const std::string text = tag + " seq=" + std::to_string(i) + " " + padding;
        vex::loglib_write(log, 4, 0, "writer.cpp", 1, tag.c_str(), text.c_str());
    }
    vex::loglib_close(log);
    return 0;
}
