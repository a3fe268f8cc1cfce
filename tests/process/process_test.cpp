// The process runner, with this test program started again as the process it watches: the
// first argument "helper" picks what that process does.
#include "process/process.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#else
#include <signal.h>
#endif

namespace {

using vex::process::Exit;
using vex::process::Options;
using vex::process::Process;
using vex::process::Read;
using vex::process::Stream;

int helper(const std::vector<std::string>& args) {
    const std::string& what = args.at(0);
    if (what == "exit") return std::atoi(args.at(1).c_str());
    if (what == "abort") std::abort();
    if (what == "sleep") std::this_thread::sleep_for(std::chrono::seconds(60));
    if (what == "args") {  // one argument a line
        for (std::size_t i = 1; i < args.size(); ++i)
            std::cout << '[' << args[i] << "]\n";
    }
    if (what == "env") {
        const char* value = std::getenv(args.at(1).c_str());
        std::cout << (value != nullptr ? value : "(unset)") << '\n';
    }
    if (what == "echo") {  // each line back on standard output, its length on standard error
        std::string line;
        while (std::getline(std::cin, line)) {
            std::cout << line << std::endl;
            std::cerr << line.size() << std::endl;
        }
    }
    return 0;
}

Exit run_helper(const std::vector<std::string>& args) {
    std::vector<std::string> all{"helper"};
    all.insert(all.end(), args.begin(), args.end());
    Process p = Process::start_self(all);
    EXPECT_TRUE(p.started());
    return p.wait(30000).value_or(Exit{-1000, 0});
}

TEST(Process, ExitCodesComeBack) {
    for (const int code : {0, 1, 3, 42, 255}) {
        const Exit e = run_helper({"exit", std::to_string(code)});
        EXPECT_TRUE(e.exited()) << code;
        EXPECT_EQ(e.code, code);
        EXPECT_EQ(e.status(), code);
    }
}

TEST(Process, AnAbortIsNotAnExit) {
    const Exit e = run_helper({"abort"});
#if defined(_WIN32)
    EXPECT_EQ(e.code, 3);
#else
    EXPECT_FALSE(e.exited());
    EXPECT_EQ(e.signal, SIGABRT);
    EXPECT_EQ(e.status(), 128 + SIGABRT);
#endif
}

TEST(Process, AWaitTimesOutThenAKillEndsIt) {
    Process p = Process::start_self({"helper", "sleep"});
    ASSERT_TRUE(p.started());
    const auto before = std::chrono::steady_clock::now();
    EXPECT_FALSE(p.wait(100).has_value());
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(100));
    EXPECT_TRUE(p.started());
    p.kill();
    const auto e = p.wait(10000);
    ASSERT_TRUE(e.has_value());
#if defined(_WIN32)
    EXPECT_EQ(e->code, 9);
#else
    EXPECT_EQ(e->signal, SIGKILL);
#endif
    EXPECT_FALSE(p.started());
    EXPECT_FALSE(p.wait(0).has_value());  // reaped once only
}

TEST(Process, ArgumentsArriveWhole) {
    const std::vector<std::string> args{"plain",         "two words", "",        "quote\"d",
                                        "back\\slash\\", "tab\there", "end\\\"", "a\\\\b"};
    std::vector<std::string> command{"helper", "args"};
    command.insert(command.end(), args.begin(), args.end());
    Process p = Process::start_self(command, Options{{}, Stream::none, Stream::pipe});
    std::string out;
    while (p.read(out, 10000) == Read::data) {
    }
    std::string expected;
    for (const auto& a : args)
        expected += "[" + a + "]\n";
    EXPECT_EQ(out, expected);
    EXPECT_EQ(p.wait(10000).value_or(Exit{-1, 0}).status(), 0);
}

TEST(Process, EnvironmentChangesReachTheChildOnly) {
    vex::process::set_env("VEXPROC_KEPT", "parent");
    vex::process::set_env("VEXPROC_REPLACED", "parent");
    struct Case {
        const char* name;
        std::vector<std::string> env;
        const char* expected;
    } const cases[] = {
        {"VEXPROC_KEPT", {}, "parent"},
        {"VEXPROC_KEPT", {"VEXPROC_OTHER=x"}, "parent"},
        {"VEXPROC_REPLACED", {"VEXPROC_REPLACED=child"}, "child"},
        {"VEXPROC_ADDED", {"VEXPROC_ADDED=with = sign"}, "with = sign"},
        {"VEXPROC_NEVER", {}, "(unset)"},
    };
    for (const Case& c : cases) {
        const auto r =
            vex::process::run({vex::process::self_path(), "helper", "env", c.name}, c.env);
        ASSERT_TRUE(r.exit.has_value()) << c.name;
        EXPECT_EQ(r.out, std::string(c.expected) + "\n") << c.name;
    }
    EXPECT_STREQ(std::getenv("VEXPROC_REPLACED"), "parent");
    EXPECT_EQ(std::getenv("VEXPROC_ADDED"), nullptr);
    vex::process::unset_env("VEXPROC_KEPT");
    vex::process::unset_env("VEXPROC_REPLACED");
    EXPECT_EQ(std::getenv("VEXPROC_KEPT"), nullptr);
}

TEST(Process, PipesCarryInputAndBothOutputs) {
    Process p = Process::start_self({"helper", "echo"},
                                    Options{{}, Stream::pipe, Stream::pipe, Stream::pipe});
    ASSERT_TRUE(p.started());
    // More than a pipe holds, so that a reader that leaves one side unread would stall.
    const std::string line(1000, 'x');
    std::string out, err;
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(p.write(line + "\n"));
        while (out.size() < (line.size() + 1) * static_cast<std::size_t>(i + 1))
            ASSERT_EQ(p.read(out, 10000), Read::data);
    }
    p.close_input();
    while (p.read(err, 10000, true) == Read::data) {
    }
    EXPECT_EQ(p.read(out, 10000), Read::end);
    EXPECT_EQ(out.size(), 1001u * 100);
    EXPECT_EQ(err.substr(0, 5), "1000\n");
    EXPECT_EQ(err.size(), 5u * 100);
    EXPECT_EQ(p.wait(10000).value_or(Exit{-1, 0}).status(), 0);
}

TEST(Process, RunCapturesAndBoundsTheRun) {
    const auto done = vex::process::run({vex::process::self_path(), "helper", "args", "a b"});
    ASSERT_TRUE(done.exit.has_value());
    EXPECT_EQ(done.out, "[a b]\n");
    const auto killed = vex::process::run({vex::process::self_path(), "helper", "sleep"}, {}, 200);
    EXPECT_FALSE(killed.exit.has_value());
    const auto missing = vex::process::run({vex::process::self_path() + ".missing"});
    EXPECT_FALSE(missing.exit.has_value());
}

}  // namespace

int main(int argc, char** argv) {
#if defined(_WIN32)
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
#endif
    if (argc > 1 && std::string(argv[1]) == "helper")
        return helper(std::vector<std::string>(argv + 2, argv + argc));
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
