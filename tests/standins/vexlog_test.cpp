#include "vexlog.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "os.h"
#include "support/child.h"
#include "support/sandbox.h"

#if !defined(_WIN32)
#include <fcntl.h>
#include <sys/stat.h>
#endif

namespace {

namespace fs = std::filesystem;
using vextest::Sandbox;
using Texts = std::vector<std::string>;

// One whole log line: stamp, pid, tid, level, tag, source:line, text.
const std::regex kLine(
    R"((\d{4})-(\d\d)-(\d\d) (\d\d):(\d\d):(\d\d)\.(\d{3}) (\d+) (\d+) (\S+) (\S+) (\S+):(\d+) (.*))");

// The lines of a file; `complete`: the last line has its newline.
Texts lines_of(const std::string& path, bool* complete = nullptr) {
    const std::string text = Sandbox::read_file(path);
    if (complete != nullptr) *complete = text.empty() || text.back() == '\n';
    Texts lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// The text field of every line of a file (the lines must all be whole).
Texts texts_of(const std::string& path) {
    Texts texts;
    for (const std::string& line : lines_of(path)) {
        std::smatch m;
        EXPECT_TRUE(std::regex_match(line, m, kLine)) << line;
        texts.push_back(m.size() > 14 ? m[14].str() : std::string());
    }
    return texts;
}

Texts numbers(int first, int last) {  // "n" for n in [first, last)
    Texts out;
    for (int i = first; i < last; ++i)
        out.push_back(std::to_string(i));
    return out;
}

void write(vex::LogHandle h, const std::string& text, int level = 4) {
    vex::loglib_write(h, level, 0, "a.cpp", 1, "_t", text.c_str());
}

class LogTest : public testing::Test {
  protected:
    void TearDown() override {
        for (vex::LogHandle h : handles_)
            vex::loglib_close(h);
    }
    vex::LogHandle open(int level, int size = 1000000, bool may_fail = false) {
        vex::LogHandle h = nullptr;
        vex::loglib_open("shmrm", &h, level, size, 0, 0);
        EXPECT_TRUE(h != nullptr || may_fail) << "the log did not open";
        if (h != nullptr) handles_.push_back(h);
        return h;
    }
    void close(vex::LogHandle h) {
        std::erase(handles_, h);
        vex::loglib_close(h);
    }
    std::string path() const { return sandbox_.log_path(); }
    std::string backup() const { return sandbox_.log_path() + ".1"; }
    Texts all_texts() const {  // the backup's, then the current file's
        Texts texts = texts_of(backup());
        for (std::string& t : texts_of(path()))
            texts.push_back(std::move(t));
        return texts;
    }

    Sandbox sandbox_;
    std::vector<vex::LogHandle> handles_;
};

TEST_F(LogTest, BadOpensLeaveNoHandleAndANullHandleIsHarmless) {
    const struct {
        const char* log_name;
        bool block_folder;  // a plain file where the log folder belongs
        bool no_install;    // the install path does not exist
    } cases[] = {{nullptr, false, false},
                 {"", false, false},
                 {"a/b", false, false},
                 {"shmrm", true, false},
                 {"shmrm", false, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "row " << (&c - cases));
        Sandbox sandbox;
        if (c.block_folder) std::ofstream(sandbox.path() + "/log") << "x";
        if (c.no_install) vextest::set_env("VEX_INSTALL_PATH", sandbox.path() + "/gone");
        int sentinel = 0;
        auto h = reinterpret_cast<vex::LogHandle>(&sentinel);
        vex::loglib_open(c.log_name, &h, 4, 1000, 0, 0);
        EXPECT_EQ(h, nullptr);
    }
    write(nullptr, "text");
    vex::loglib_close(nullptr);
    EXPECT_EQ(vex::loglib_level(nullptr), 0);
    vex::loglib_open("shmrm", nullptr, 4, 1000, 0, 0);
}

TEST_F(LogTest, OpenMakesTheFolderAppendsAndReusesLimitedHandles) {
    ASSERT_FALSE(fs::exists(sandbox_.path() + "/log"));
    vex::LogHandle h = open(4);
    EXPECT_TRUE(fs::is_directory(sandbox_.path() + "/log"));
    write(h, "first");
    close(h);
    std::vector<vex::LogHandle> opened;
    for (; opened.size() < 64 && (h = open(4, 1000000, true)) != nullptr;)
        opened.push_back(h);
    ASSERT_FALSE(opened.empty());
    ASSERT_LT(opened.size(), 64u) << "opening never runs out of handles";
    close(opened.back());
    h = open(16);
    EXPECT_EQ(vex::loglib_level(h), 16);
    write(h, "second", 16);
    EXPECT_EQ(texts_of(path()), (Texts{"first", "second"}));
}

// Lines up to the handle's level are written, whole and in their format.
TEST_F(LogTest, LevelSelectsLinesWrittenInTheirFormat) {
    const std::map<int, std::string> names = {{1, "ERROR"}, {2, "WARNING"}, {4, "INFO"},
                                              {8, "8"},     {16, "FUNC"},   {32, "PARAM"}};
    const char* text = "100% done: %s %d <<< EXIT >>> : 0x00000002";
    for (int level : {0, 1, 4, 16, 32}) {
        SCOPED_TRACE(level);
        fs::remove(path());
        vex::LogHandle h = open(level);
        Texts want, got;  // level names, in the order written
        for (const auto& [l, name] : names) {
            vex::loglib_write(h, l, 0, "src/shmrm.cpp", 1234, "_create", text);
            if (l <= level) want.push_back(name);
        }
        close(h);
        bool complete = false;
        for (const std::string& line : lines_of(path(), &complete)) {
            std::smatch m;
            ASSERT_TRUE(std::regex_match(line, m, kLine)) << line;
            const int lows[] = {1, 1, 0, 0, 0}, highs[] = {12, 31, 23, 59, 60};
            for (std::size_t f = 0; f < 5; ++f)  // month, day, hour, minute, second
                EXPECT_TRUE(std::stoi(m[f + 2]) >= lows[f] && std::stoi(m[f + 2]) <= highs[f]) << f;
            EXPECT_EQ(std::stoul(m[8]), vex::os::process_id());
            EXPECT_EQ(std::stoul(m[9]), vex::os::thread_id());
            got.push_back(m[10]);
            EXPECT_EQ((Texts{m[11], m[12], m[13], m[14]}),
                      (Texts{"_create", "src/shmrm.cpp", "1234", text}));
        }
        EXPECT_TRUE(complete);
        EXPECT_EQ(got, want);
    }
}

TEST_F(LogTest, LongTextIsCutToOneLine) {
    vex::LogHandle h = open(4);
    write(h, std::string(10000, 'x'));
    write(h, "after");
    const Texts texts = texts_of(path());  // whole lines: the first kept its newline
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_GT(texts[0].size(), 4000u);
    EXPECT_LT(texts[0].size(), 10000u);
    EXPECT_EQ(texts[0].find_first_not_of('x'), std::string::npos);
    EXPECT_EQ(texts[1], "after");
}

TEST_F(LogTest, SizesBelowOneNeverRotateAndALongLineIsWrittenAlone) {
    for (int size : {0, -1}) {
        SCOPED_TRACE(size);
        fs::remove(path());
        vex::LogHandle h = open(4, size);
        for (int i = 0; i < 200; ++i)
            write(h, std::to_string(i));
        close(h);
        EXPECT_FALSE(fs::exists(backup()));
        EXPECT_EQ(texts_of(path()), numbers(0, 200));
    }
    fs::remove(path());
    vex::LogHandle h = open(4, 10);
    write(h, "0");  // an empty file is never rotated, so the backup is never empty
    EXPECT_FALSE(fs::exists(backup()));
    write(h, "1");
    write(h, "2");
    EXPECT_EQ(texts_of(backup()), Texts{"1"});
    EXPECT_EQ(texts_of(path()), Texts{"2"});
}

TEST_F(LogTest, RotationKeepsOneBackupAndTheSizeLimitAcrossHandles) {
    // Two handles on one log act like two processes: each must notice the other's rotations.
    constexpr int kLines = 60;  // several rotations' worth
    vex::LogHandle a = open(4, 1000), b = open(4, 1000);
    for (int i = 0; i < kLines; ++i)
        write(i % 2 == 0 ? a : b, std::to_string(i));
    ASSERT_TRUE(fs::exists(backup()));
    EXPECT_LE(fs::file_size(path()), 1000u);
    EXPECT_LE(fs::file_size(backup()), 1000u);
    // A full file was rotated: the next line would not have fitted.
    EXPECT_GT(fs::file_size(backup()) + lines_of(backup()).front().size() + 2, 1000u);
    // The backup holds the lines just before the current file; older ones are gone.
    const Texts texts = all_texts();
    ASSERT_FALSE(texts.empty());
    EXPECT_LT(texts.size(), static_cast<std::size_t>(kLines));
    EXPECT_EQ(texts, numbers(kLines - static_cast<int>(texts.size()), kLines));
    // A file renamed away by someone else is left behind for a new one within a second.
    fs::remove(backup());
    fs::rename(path(), backup());
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    write(a, "after");
    EXPECT_EQ(texts_of(path()), Texts{"after"});
}

// Every writer's lines appear whole, once each, in order: "<tag> seq=<i> ...".
void expect_every_line_once(const Texts& texts, const Texts& tags, int per_tag) {
    const std::regex text_re(R"((\S+) seq=(\d+)( .*)?)");
    std::map<std::string, int> next;
    for (const std::string& text : texts) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(text, m, text_re)) << text;
        ASSERT_EQ(std::stoi(m[2]), next[m[1]]++) << "writer " << m[1];
    }
    for (const std::string& tag : tags)
        EXPECT_EQ(next[tag], per_tag) << "writer " << tag;
    EXPECT_EQ(next.size(), tags.size());
}

// Threads sharing a handle and processes sharing the file, all at once.
TEST_F(LogTest, ThreadsAndProcessesShareTheLogAndItsRotation) {
    // Lines of 100 to 125 bytes: all writers together pass the size once, but not twice.
    constexpr int kLines = 300, kSize = 4 * kLines * 112 * 6 / 10;
    vex::LogHandle h = open(4, kSize);
    std::vector<std::thread> threads;
    for (const char* tag : {"t0", "t1"})
        threads.emplace_back([h, tag = std::string(tag)] {
            for (int i = 0; i < kLines; ++i)
                write(h, tag + " seq=" + std::to_string(i) + " " + std::string(40, '.'));
        });
    const std::string size = std::to_string(kSize), count = std::to_string(kLines);
    EXPECT_EQ(vextest::run_together(
                  {{VEX_LOG_WRITER_EXE, "A", count, size}, {VEX_LOG_WRITER_EXE, "B", count, size}}),
              (std::vector<int>{0, 0}));
    for (std::thread& t : threads)
        t.join();
    bool complete = false;
    lines_of(path(), &complete);
    EXPECT_TRUE(complete);
    ASSERT_TRUE(fs::exists(backup()));
    expect_every_line_once(all_texts(), {"t0", "t1", "A", "B"}, kLines);
}

#if !defined(_WIN32)
TEST_F(LogTest, FilesAreSharedWithTheGroupWhateverTheUmask) {
    const mode_t old = umask(077);
    open(4);
    umask(old);
    for (const std::string& file : {path(), path() + ".lock"}) {
        struct stat st {};
        ASSERT_EQ(stat(file.c_str(), &st), 0) << file;
        EXPECT_EQ(st.st_mode & 0777, 0660u) << file;
    }
}
#endif

// Appending, sizes, renames, files replaced under a handle and folders are covered above.
TEST(AppendFileTest, NotInheritedAndRefusingEverythingOnceClosed) {
    Sandbox sandbox;
    const std::string path = sandbox.path() + "/f";
    vex::os::AppendFile file;
    ASSERT_TRUE(vex::os::append_open(&file, path.c_str()));
    ASSERT_TRUE(vex::os::append_write(&file, "new\n", 4));
#if !defined(_WIN32)
    EXPECT_NE(fcntl(static_cast<int>(file.fd), F_GETFD) & FD_CLOEXEC, 0);
#endif
    vex::os::append_close(&file);
    EXPECT_EQ(file.fd, -1);
    EXPECT_FALSE(vex::os::append_write(&file, "x", 1));
    EXPECT_EQ(vex::os::append_size(&file), -1);
    EXPECT_FALSE(vex::os::append_is_current(&file, path.c_str()));
    EXPECT_EQ(Sandbox::read_file(path), "new\n");
}

}  // namespace
