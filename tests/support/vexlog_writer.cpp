// Writes numbered lines to the module log, for tests of several processes sharing it.
// Usage: vexlog_writer <tag> <count> <rotation size> [threads]
// Line i (from 0) carries the text "<tag> seq=<i> <padding>"; with threads, each thread writes
// its own lines under the tag "<tag>.<thread>". The exit code is 0 when the log was opened, 2
// otherwise.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "vexlog.h"

int main(int argc, char** argv) {
    if (argc != 4 && argc != 5) {
        std::fprintf(stderr, "usage: %s <tag> <count> <rotation size> [threads]\n", argv[0]);
        return 1;
    }
    const std::string tag = argv[1];
    const long count = std::strtol(argv[2], nullptr, 10);
    const int size = static_cast<int>(std::strtol(argv[3], nullptr, 10));

    vex::LogHandle log = nullptr;
    vex::loglib_open("shmrm", &log, 4, size, 0, 0);
    if (log == nullptr) return 2;
    auto lines = [log, count](const std::string& writer) {
        const std::string padding(40, '.');
        for (long i = 0; i < count; ++i) {
            const std::string text = writer + " seq=" + std::to_string(i) + " " + padding;
            vex::loglib_write(log, 4, 0, "writer.cpp", 1, writer.c_str(), text.c_str());
        }
    };
    if (argc == 4) {
        lines(tag);
    } else {
        std::vector<std::thread> threads;
        for (long t = 0; t < std::strtol(argv[4], nullptr, 10); ++t)
            threads.emplace_back(lines, tag + "." + std::to_string(t));
        for (std::thread& t : threads)
            t.join();
    }
    vex::loglib_close(log);
    return 0;
}
