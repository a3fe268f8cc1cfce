// The module log never holds a process back: not a FIFO where its files belong, not a writer
// stopped in the middle of a line, not a thread cancelled inside an export. Under many writers and
// frequent rotations every line stays whole and none written since the rotation before last is
// lost.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/child.h"
#include "support/sandbox.h"
#include "vexshmrm.h"

#if !defined(_WIN32)
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace {

namespace fs = std::filesystem;
using vextest::Capacities;
using vextest::Child;
using vextest::Sandbox;

#if !defined(_WIN32)
constexpr int kBound = 3000;  // ms: a reply later than this counts as blocked

// Calls that trace at every level, each answered within the bound.
void expect_calls_return(Child& child, const std::vector<std::string>& commands) {
    for (const std::string& command : commands)
        EXPECT_NE(child.ask(command, kBound), "timeout") << command;
}

const std::vector<std::string> kCalls = {"setacstat 3", "getacstat", "rwlock 100", "rwunlock",
                                         "addgrp a",    "enumgrp",   "spin 50"};

// A FIFO where the log or its lock file belongs, from the start or put there while the node runs,
// with or without a reader: every call returns as usual, and its lines go nowhere.
TEST(LogNeverBlocks, OnAFifoWhereItsFilesBelong) {
    const struct {
        const char* what;
        const char* file;
        bool at_start, reader;
    } rows[] = {
        {"the log at start", "shmrm.log", true, false},
        {"the log at start, read", "shmrm.log", true, true},
        {"the lock file at start", "shmrm.log.lock", true, false},
        {"the log while running", "shmrm.log", false, false},
        {"the log while running, read", "shmrm.log", false, true},
        {"the backup while running", "shmrm.log.1", false, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        Sandbox sandbox;
        sandbox.configure(Capacities{4, 2, 4}, SHMRM_LOG_PARAM, 2000);  // rotates often
        fs::create_directories(sandbox.path() + "/log");
        const std::string fifo = sandbox.path() + "/log/" + row.file;
        int reader = -1;
        auto make_fifo = [&] {
            fs::remove(fifo);
            ASSERT_EQ(mkfifo(fifo.c_str(), 0660), 0);
            if (row.reader) reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
        };
        if (row.at_start) make_fifo();
        Child child;
        EXPECT_EQ(child.ask("create", kBound), "0");
        if (!row.at_start) {
            make_fifo();
            // A file replaced by someone else is noticed within a second.
            std::this_thread::sleep_for(std::chrono::milliseconds(1100));
        }
        expect_calls_return(child, kCalls);
        EXPECT_EQ(child.ask("delete", kBound), "0");
        child.send("exit");
        EXPECT_EQ(child.wait_exit(kBound), 0);
        if (reader >= 0) close(reader);
    }
}

// A writer stopped (SIGSTOP) at any point of its lines, 40 times, holds no one back: another
// process attaches, takes the lock and traces, and this process traces, each within its bound.
TEST(LogNeverBlocks, AWriterStoppedAnywhere) {
    Sandbox sandbox;
    sandbox.configure(Capacities{4, 2, 4}, SHMRM_LOG_FUNC, 4000);
    ASSERT_EQ(shmrm_create(), SHMRM_OK);
    std::mt19937 rng(5);
    for (int trial = 0; trial < 40; ++trial) {
        SCOPED_TRACE(trial);
        Child writer;
        ASSERT_EQ(writer.rc("attach"), SHMRM_OK);
        const long pid = std::stol(writer.ask("pid").substr(2));
        writer.send("spin 300");
        std::this_thread::sleep_for(std::chrono::microseconds(rng() % 100000));
        ASSERT_EQ(kill(static_cast<pid_t>(pid), SIGSTOP), 0);
        {
            Child other;
            expect_calls_return(other, {"attach", "rwlock 100", "rwunlock", "spin 20", "detach"});
        }
        for (int i = 0; i < 50; ++i) {
            int v = 0;
            EXPECT_EQ(shmrm_getacstat(&v), SHMRM_OK);
        }
        ASSERT_EQ(kill(static_cast<pid_t>(pid), SIGCONT), 0);
        EXPECT_NE(writer.reply(kBound), "timeout");
    }
    EXPECT_EQ(shmrm_delete(), SHMRM_OK);
}

// A thread cancelled inside an export, wherever it was, leaves nothing held: its process and
// another one go on tracing.
TEST(LogNeverBlocks, AThreadCancelledInsideAnExport) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer does not follow cancellation";
#endif
    Sandbox sandbox;
    sandbox.configure(Capacities{4, 2, 4}, SHMRM_LOG_PARAM, 4000);
    ASSERT_EQ(shmrm_create(), SHMRM_OK);
    std::mt19937 rng(9);
    for (int trial = 0; trial < 20; ++trial) {
        pthread_t thread;
        ASSERT_EQ(pthread_create(
                      &thread, nullptr,
                      [](void*) -> void* {
                          for (int v = 0;; pthread_testcancel()) {
                              shmrm_getacstat(&v);
                              shmrm_setgrpstat("nosuch", v);
                          }
                          return nullptr;
                      },
                      nullptr),
                  0);
        std::this_thread::sleep_for(std::chrono::microseconds(rng() % 5000));
        ASSERT_EQ(pthread_cancel(thread), 0);
        ASSERT_EQ(pthread_join(thread, nullptr), 0);
        for (int i = 0; i < 20; ++i) {
            int v = 0;
            EXPECT_EQ(shmrm_getacstat(&v), SHMRM_OK);
        }
    }
    Child other;
    expect_calls_return(other, {"attach", "spin 50", "detach"});
    EXPECT_EQ(shmrm_delete(), SHMRM_OK);
}
#endif

// Lines "<tag> seq=<n> ..." of every file given, in order, whole.
std::map<std::string, std::vector<int>> sequences(const std::vector<std::string>& files) {
    const std::regex whole(
        R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \d+ \d+ INFO (\S+) writer\.cpp:1 (\S+) seq=(\d+) \.{40})");
    std::map<std::string, std::vector<int>> seqs;
    for (const std::string& file : files) {
        std::istringstream in(Sandbox::read_file(file));
        for (std::string line; std::getline(in, line);) {
            std::smatch m;
            EXPECT_TRUE(std::regex_match(line, m, whole)) << line;
            if (m.size() == 4) seqs[m[2]].push_back(std::stoi(m[3]));
        }
    }
    return seqs;
}

// Processes of several threads write to one log small enough to rotate every few dozen lines.
// Every line is whole, and what the backup and the current file hold of each writer is a run of
// its lines without a gap, up to its last one: a line is lost only with the file it was in.
TEST(LogRotation, ManyWritersLoseNothingSinceTheRotationBeforeLast) {
    Sandbox sandbox;
    fs::create_directories(sandbox.path() + "/log");
    constexpr int kLines = 400, kSize = 3000;
    const std::string count = std::to_string(kLines), size = std::to_string(kSize);
    EXPECT_EQ(vextest::run_together({{VEX_LOG_WRITER_EXE, "A", count, size, "2"},
                                     {VEX_LOG_WRITER_EXE, "B", count, size, "2"},
                                     {VEX_LOG_WRITER_EXE, "C", count, size, "2"}}),
              (std::vector<int>{0, 0, 0}));
    const auto seqs = sequences({sandbox.log_path() + ".1", sandbox.log_path()});
    int kept = 0;
    for (const auto& [writer, seq] : seqs) {
        SCOPED_TRACE(writer);
        ASSERT_FALSE(seq.empty());
        EXPECT_EQ(seq.back(), kLines - 1);
        for (std::size_t i = 1; i < seq.size(); ++i)
            EXPECT_EQ(seq[i], seq[i - 1] + 1) << "a gap or a line twice";
        kept += static_cast<int>(seq.size());
    }
    EXPECT_LT(kept, 6 * kLines) << "the log was rotated";
}

}  // namespace
