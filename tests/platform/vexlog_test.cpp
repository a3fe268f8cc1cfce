#include "vexlog.h"

#include <gtest/gtest.h>

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

// One whole log line: stamp, pid, tid, level, tag, source:line, text.
const std::regex kLine(
    R"((\d{4})-(\d\d)-(\d\d) (\d\d):(\d\d):(\d\d)\.(\d{3}) (\d+) (\d+) (\S+) (\S+) (\S+):(\d+) (.*))");

// The lines of a file; `complete`: the last line has its newline.
std::vector<std::string> lines_of(const std::string& path, bool* complete = nullptr) {
    const std::string text = Sandbox::read_file(path);
    if (complete != nullptr) *complete = text.empty() || text.back() == '\n';
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// The text field of every line of a file (the lines must all be whole).
std::vector<std::string> texts_of(const std::string& path) {
    std::vector<std::string> texts;
    for (const std::string& line : lines_of(path)) {
        std::smatch m;
        EXPECT_TRUE(std::regex_match(line, m, kLine)) << line;
        texts.push_back(m.size() > 14 ? m[14].str() : std::string());
    }
    return texts;
}

// "n" for n in [first, last).
std::vector<std::string> numbers(int first, int last) {
    std::vector<std::string> out;
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

    vex::LogHandle open(int level, int size = 1000000) {
        vex::LogHandle h = nullptr;
        vex::loglib_open("shmrm", &h, level, size, 0, 0);
        if (h != nullptr) handles_.push_back(h);
        return h;
    }
    void close(vex::LogHandle h) {
        std::erase(handles_, h);
        vex::loglib_close(h);
    }

    std::string log_path() const { return sandbox_.log_path(); }
    std::string backup_path() const { return sandbox_.log_path() + ".1"; }
    // The texts of the backup followed by those of the current file.
    std::vector<std::string> all_texts() const {
        std::vector<std::string> texts = texts_of(backup_path());
        for (std::string& t : texts_of(log_path()))
            texts.push_back(std::move(t));
        return texts;
    }

    Sandbox sandbox_;
    std::vector<vex::LogHandle> handles_;
};

// ---- Opening ----------------------------------------------------------------------------

TEST_F(LogTest, NullHandleIsHarmless) {
    write(nullptr, "text");
    vex::loglib_close(nullptr);
    EXPECT_EQ(vex::loglib_level(nullptr), 0);
    vex::loglib_open("shmrm", nullptr, 4, 1000, 0, 0);
    vex::LogHandle h = nullptr;
    vex::loglib_open(nullptr, &h, 4, 1000, 0, 0);
    EXPECT_EQ(h, nullptr);
}

TEST_F(LogTest, OpenMakesTheFolderAndAppends) {
    ASSERT_FALSE(fs::exists(sandbox_.path() + "/log"));
    vex::LogHandle h = open(4);
    ASSERT_NE(h, nullptr);
    EXPECT_TRUE(fs::is_directory(sandbox_.path() + "/log"));
    write(h, "first");
    close(h);
    h = open(32);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(vex::loglib_level(h), 32);
    write(h, "second");
    EXPECT_EQ(texts_of(log_path()), (std::vector<std::string>{"first", "second"}));
}

TEST_F(LogTest, OpenFailuresLeaveNoHandle) {
    const struct {
        const char* log_name;
        bool block_folder;  // a plain file where the log folder belongs
        bool no_install;    // the install path does not exist
    } cases[] = {
        {"", false, false}, {"a/b", false, false}, {"shmrm", true, false}, {"shmrm", false, true}};
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
}

TEST_F(LogTest, HandlesAreLimitedAndReused) {
    std::vector<vex::LogHandle> opened;
    for (vex::LogHandle h; opened.size() < 64 && (h = open(4)) != nullptr;)
        opened.push_back(h);
    ASSERT_FALSE(opened.empty());
    ASSERT_LT(opened.size(), 64u) << "opening never runs out of handles";
    close(opened.back());
    vex::LogHandle again = open(16);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(vex::loglib_level(again), 16);
    write(again, "reused", 16);
    EXPECT_EQ(texts_of(log_path()), std::vector<std::string>{"reused"});
}

// ---- Lines ------------------------------------------------------------------------------

TEST_F(LogTest, LevelSelectsLines) {
    const std::pair<int, std::vector<std::string>> cases[] = {
        {0, {}}, {1, {"1"}}, {4, {"1", "2", "4"}}, {16, {"1", "2", "4", "8", "16"}}};
    for (const auto& [level, expected] : cases) {
        SCOPED_TRACE(level);
        fs::remove(log_path());
        vex::LogHandle h = open(level);
        ASSERT_NE(h, nullptr);
        for (int l : {1, 2, 4, 8, 16, 32})
            write(h, std::to_string(l), l);
        close(h);
        EXPECT_EQ(texts_of(log_path()), expected);
    }
}

TEST_F(LogTest, LineFormat) {
    const std::pair<int, const char*> cases[] = {{1, "ERROR"}, {2, "WARNING"}, {4, "INFO"},
                                                 {16, "FUNC"}, {32, "PARAM"},  {8, "8"}};
    vex::LogHandle h = open(32);
    ASSERT_NE(h, nullptr);
    const char* text = "100% done: %s %d <<< EXIT >>> : 0x00000002";
    for (const auto& [level, name] : cases)
        vex::loglib_write(h, level, 0, "src/shmrm.cpp", 1234, "_create", text);
    bool complete = false;
    const std::vector<std::string> lines = lines_of(log_path(), &complete);
    EXPECT_TRUE(complete);
    ASSERT_EQ(lines.size(), std::size(cases));
    for (std::size_t i = 0; i < lines.size(); ++i) {
        SCOPED_TRACE(lines[i]);
        std::smatch m;
        ASSERT_TRUE(std::regex_match(lines[i], m, kLine));
        const int lows[] = {1, 1, 0, 0, 0}, highs[] = {12, 31, 23, 59, 60};
        for (std::size_t f = 0; f < 5; ++f) {  // month, day, hour, minute, second
            EXPECT_GE(std::stoi(m[f + 2]), lows[f]);
            EXPECT_LE(std::stoi(m[f + 2]), highs[f]);
        }
        EXPECT_EQ(std::stoul(m[8]), vex::os::process_id());
        EXPECT_EQ(std::stoul(m[9]), vex::os::thread_id());
        EXPECT_EQ(m[10], cases[i].second);
        EXPECT_EQ(m[11], "_create");
        EXPECT_EQ(m[12], "src/shmrm.cpp");
        EXPECT_EQ(m[13], "1234");
        EXPECT_EQ(m[14], text);
    }
}

TEST_F(LogTest, LongTextIsCutToOneLine) {
    vex::LogHandle h = open(4);
    ASSERT_NE(h, nullptr);
    const std::string text(10000, 'x');
    write(h, text);
    write(h, "after");
    bool complete = false;
    const std::vector<std::string> lines = lines_of(log_path(), &complete);
    EXPECT_TRUE(complete);
    const std::vector<std::string> texts = texts_of(log_path());
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_GT(texts[0].size(), 4000u);
    EXPECT_LT(lines[0].size(), text.size());
    EXPECT_EQ(texts[0], std::string(texts[0].size(), 'x'));
    EXPECT_EQ(texts[1], "after");
}

// ---- Rotation ---------------------------------------------------------------------------

TEST_F(LogTest, RotationKeepsOneBackupAndTheSizeLimit) {
    constexpr int kSize = 1000, kLines = 60;  // several rotations' worth
    vex::LogHandle h = open(4, kSize);
    ASSERT_NE(h, nullptr);
    for (int i = 0; i < kLines; ++i)
        write(h, std::to_string(i));
    ASSERT_TRUE(fs::exists(backup_path()));
    EXPECT_LE(fs::file_size(log_path()), static_cast<std::uintmax_t>(kSize));
    EXPECT_LE(fs::file_size(backup_path()), static_cast<std::uintmax_t>(kSize));
    // A full file was rotated: the next line would not have fitted.
    const std::size_t line = lines_of(backup_path()).front().size() + 1;
    EXPECT_GT(fs::file_size(backup_path()) + line + 1, static_cast<std::uintmax_t>(kSize));
    // The backup holds the lines just before the current file; older ones are gone.
    const std::vector<std::string> texts = all_texts();
    ASSERT_FALSE(texts.empty());
    EXPECT_LT(texts.size(), static_cast<std::size_t>(kLines));
    EXPECT_EQ(texts, numbers(kLines - static_cast<int>(texts.size()), kLines));
}

TEST_F(LogTest, NoRotationWithoutPositiveSize) {
    for (int size : {0, -1}) {
        SCOPED_TRACE(size);
        fs::remove(log_path());
        vex::LogHandle h = open(4, size);
        ASSERT_NE(h, nullptr);
        for (int i = 0; i < 200; ++i)
            write(h, std::to_string(i));
        close(h);
        EXPECT_FALSE(fs::exists(backup_path()));
        EXPECT_EQ(texts_of(log_path()), numbers(0, 200));
    }
}

TEST_F(LogTest, LineLargerThanTheSizeIsWrittenAlone) {
    vex::LogHandle h = open(4, 10);
    ASSERT_NE(h, nullptr);
    write(h, "0");  // an empty file is never rotated, so the backup is never empty
    EXPECT_FALSE(fs::exists(backup_path()));
    write(h, "1");
    write(h, "2");
    EXPECT_EQ(texts_of(backup_path()), std::vector<std::string>{"1"});
    EXPECT_EQ(texts_of(log_path()), std::vector<std::string>{"2"});
}

TEST_F(LogTest, HandleFollowsARotationByAnother) {
    // Two handles on one log act like two processes: each must notice the other's rotation.
    constexpr int kSize = 400, kLines = 11;  // a little over one rotation of about seven lines
    vex::LogHandle a = open(4, kSize), b = open(4, kSize);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    for (int i = 0; i < kLines; ++i)
        write(i % 2 == 0 ? a : b, std::to_string(i));
    ASSERT_TRUE(fs::exists(backup_path()));
    EXPECT_LE(fs::file_size(log_path()), static_cast<std::uintmax_t>(kSize));
    EXPECT_EQ(all_texts(), numbers(0, kLines));

    // A file renamed away by someone else is left behind for a new one.
    fs::remove(backup_path());
    fs::rename(log_path(), backup_path());
    write(a, "after");
    EXPECT_EQ(texts_of(log_path()), std::vector<std::string>{"after"});
}

// ---- Concurrency ------------------------------------------------------------------------

// Every writer's lines appear whole, once each, in order: "<tag> seq=<i> ...".
void expect_every_line_once(const std::vector<std::string>& texts,
                            const std::vector<std::string>& tags, int per_tag) {
    const std::regex text_re(R"((\S+) seq=(\d+)( .*)?)");
    std::map<std::string, int> next;
    for (const std::string& text : texts) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(text, m, text_re)) << text;
        int& expected = next[m[1]];
        ASSERT_EQ(std::stoi(m[2]), expected) << "writer " << m[1];
        ++expected;
    }
    for (const std::string& tag : tags)
        EXPECT_EQ(next[tag], per_tag) << "writer " << tag;
    EXPECT_EQ(next.size(), tags.size());
}

TEST_F(LogTest, ThreadsShareAHandle) {
    // Lines of about 90 bytes: the total passes the size once, but not twice.
    constexpr int kThreads = 4, kLines = 300, kSize = kThreads * kLines * 90 * 6 / 10;
    vex::LogHandle h = open(4, kSize);
    ASSERT_NE(h, nullptr);
    std::vector<std::string> tags;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        tags.push_back("t" + std::to_string(t));
        threads.emplace_back([h, tag = tags.back()] {
            for (int i = 0; i < kLines; ++i)
                write(h, tag + " seq=" + std::to_string(i) + " " + std::string(20, '.'));
        });
    }
    for (std::thread& t : threads)
        t.join();
    ASSERT_TRUE(fs::exists(backup_path()));
    expect_every_line_once(all_texts(), tags, kLines);
}

#ifdef VEX_LOG_WRITER_EXE
TEST_F(LogTest, ProcessesShareTheLogAndItsRotation) {
    // Writer lines are 100 to 125 bytes: both writers together pass the size once, not twice.
    constexpr int kLines = 300;
    const std::string size = std::to_string(2 * kLines * 112 * 6 / 10), count = "300";
    const std::vector<int> codes = vextest::run_together(
        {{VEX_LOG_WRITER_EXE, "A", count, size}, {VEX_LOG_WRITER_EXE, "B", count, size}});
    EXPECT_EQ(codes, (std::vector<int>{0, 0}));
    bool complete = false;
    lines_of(log_path(), &complete);
    EXPECT_TRUE(complete);
    ASSERT_TRUE(fs::exists(backup_path()));
    expect_every_line_once(all_texts(), {"A", "B"}, kLines);
}
#endif

// ---- The files underneath ---------------------------------------------------------------

#if !defined(_WIN32)
TEST_F(LogTest, FilesAreSharedWithTheGroupWhateverTheUmask) {
    const mode_t old = umask(077);
    vex::LogHandle h = open(4);
    umask(old);
    ASSERT_NE(h, nullptr);
    for (const std::string& path : {log_path(), log_path() + ".lock"}) {
        struct stat st {};
        ASSERT_EQ(stat(path.c_str(), &st), 0) << path;
        EXPECT_EQ(st.st_mode & 0777, 0660u) << path;
    }
}

TEST(AppendFileTest, DescriptorIsNotInherited) {
    Sandbox sandbox;
    vex::os::AppendFile file;
    ASSERT_TRUE(vex::os::append_open(&file, (sandbox.path() + "/f").c_str()));
    const int flags = fcntl(static_cast<int>(file.fd), F_GETFD);
    EXPECT_NE(flags & FD_CLOEXEC, 0);
    vex::os::append_close(&file);
    EXPECT_EQ(file.fd, -1);
}
#endif

TEST(AppendFileTest, WritesAppendAndTrackThePath) {
    Sandbox sandbox;
    const std::string path = sandbox.path() + "/f";
    std::ofstream(path, std::ios::binary) << "old\n";
    vex::os::AppendFile file;
    ASSERT_TRUE(vex::os::append_open(&file, path.c_str()));
    EXPECT_EQ(vex::os::append_size(&file), 4);
    ASSERT_TRUE(vex::os::append_write(&file, "new\n", 4));
    EXPECT_EQ(vex::os::append_size(&file), 8);
    EXPECT_EQ(Sandbox::read_file(path), "old\nnew\n");
    EXPECT_TRUE(vex::os::append_is_current(&file, path.c_str()));

    std::ofstream(path + ".1") << "stale";
    ASSERT_TRUE(vex::os::rename_replace(path.c_str(), (path + ".1").c_str()));
    EXPECT_EQ(Sandbox::read_file(path + ".1"), "old\nnew\n");
    EXPECT_FALSE(vex::os::append_is_current(&file, path.c_str()));
    std::ofstream(path) << "";
    EXPECT_FALSE(vex::os::append_is_current(&file, path.c_str()));
    vex::os::append_close(&file);

    EXPECT_FALSE(vex::os::append_write(&file, "x", 1));
    EXPECT_EQ(vex::os::append_size(&file), -1);
    EXPECT_FALSE(vex::os::append_is_current(&file, path.c_str()));
}

TEST(AppendFileTest, MakeDirectory) {
    Sandbox sandbox;
    const std::string dir = sandbox.path() + "/d";
    EXPECT_FALSE(vex::os::is_directory(dir.c_str()));
    EXPECT_TRUE(vex::os::make_directory(dir.c_str()));
    EXPECT_TRUE(vex::os::make_directory(dir.c_str()));  // already there
    EXPECT_TRUE(vex::os::is_directory(dir.c_str()));
    std::ofstream(sandbox.path() + "/file") << "x";
    EXPECT_FALSE(vex::os::make_directory((sandbox.path() + "/file").c_str()));
    EXPECT_FALSE(vex::os::make_directory((sandbox.path() + "/no/such").c_str()));
}

}  // namespace
