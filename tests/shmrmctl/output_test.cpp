// shmrmctl's output for scripts, driven as a process against a region this test holds: status
// sections and columns, widths in terminal columns, JSON, get of a whole record, track, and
// reading commands that leave the node log alone.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/sandbox.h"
#include "tool.h"
#include "vexshmrm.h"
#include "vexshmrm_schema.h"

namespace {

using vextest::shmrmctl;

using nlohmann::json;
using Result = vextest::RunResult;

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

class Output : public testing::Test {
  protected:
    // Log level 16: every export writes its entry and exit, so any export called shows.
    void SetUp() override {
        sandbox_.configure({4, 3, 4}, 16);
        ASSERT_EQ(shmrm_create(), SHMRM_OK);
        for (const char* g : {"web", "db"})
            ASSERT_EQ(shmrm_addgrp(g), 0);
        ASSERT_EQ(shmrm_setgrpstat("db", 2), 0);
        ASSERT_EQ(shmrm_setgrpflag("db", 0xbeef), 0);
        ASSERT_EQ(shmrm_setgrpsv("db", "two words"), 0);
        ASSERT_EQ(shmrm_addrsc("web", "ip", "vip"), 0);
        ASSERT_EQ(shmrm_addrsc("db", "app", "engine"), 0);
        ASSERT_EQ(shmrm_setrscstat("db", "app", "engine", 7), 0);
        ASSERT_EQ(shmrm_setrscsv("db", "app", "engine", "running"), 0);
        ASSERT_EQ(shmrm_addmon("proc", "agent"), 0);
        ASSERT_EQ(shmrm_setmonprogress("proc", "agent", 3), 0);
        ASSERT_EQ(shmrm_setmonprogress("proc", "agent", 4), 0);
    }
    void TearDown() override { shmrm_delete(); }

    vextest::Sandbox sandbox_;
};

TEST_F(Output, ColumnsRawAndHeadingsFollowTheOptions) {
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string out;  // exact; for a usage error, a part of standard error
    };
    const Case cases[] = {
        {{"status", "groups", "-o", "name,stat", "--raw", "--noheadings"}, 0, "web 0\ndb 2\n"},
        {{"status", "groups", "-o", "stat,name", "-n"}, 0, "0  web\n2  db\n"},
        {{"status", "groups", "-o", "name,flag,sv", "--raw"},
         0,
         "groups\nname flag sv\nweb 0x0000 \ndb 0xbeef two\\x20words\n"},
        {{"status", "resources", "-o", "group,name,stat", "-n"},
         0,
         "web  vip     0\ndb   engine  7\n"},
        {{"status", "-o", "name", "-r", "-n"}, 0, "web\ndb\nvip\nengine\nagent\n"},
        {{"status", "monitors", "-o", "name,progress,secs", "-n", "-r"}, 0, ""},  // secs: below
        {{"status", "-o", "name,colour"}, 2, "unknown column 'colour'"},
        {{"status", "groups", "-o", "progress"}, 2, "known: #,name,stat"},
        {{"status", "nosuch"}, 2, "no section 'nosuch'"},
        {{"status", "--json", "-o", "name"}, 2, "-o"},
    };
    for (const Case& c : cases) {
        const Result r = shmrmctl(c.args);
        const std::string what = c.args.back();
        EXPECT_EQ(r.status, c.status) << what << ": " << r.err;
        if (c.status != 0) {
            EXPECT_NE(r.err.find(c.out), std::string::npos) << what << ": " << r.err;
        } else if (!c.out.empty()) {
            EXPECT_EQ(r.out, c.out) << what;
        }
    }
    const auto agent =
        lines(shmrmctl({"status", "monitors", "-o", "name,progress,secs", "-n"}).out);
    ASSERT_EQ(agent.size(), 1u);
    EXPECT_TRUE(std::regex_match(agent[0], std::regex("agent  4 +[0-9]+\\.[0-9]"))) << agent[0];
}

// Texts are aligned and cut by the columns they take on the terminal, not by their bytes.
TEST_F(Output, WidthsAreTerminalColumns) {
#if defined(_WIN32)
    GTEST_SKIP() << "the Windows build prints ASCII only";
#endif
    ASSERT_EQ(shmrm_addgrp("caf\xc3\xa9\xe6\xbc\xa2"), 0);  // "café漢": 6 columns, 8 bytes
    ASSERT_EQ(shmrm_setgrpsv("web", "\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e text of some length"), 0);
    const std::vector<std::string> utf8{"LC_ALL=C.UTF-8"};
    EXPECT_EQ(shmrmctl({"status", "groups", "-o", "name,stat", "-n"}, utf8).out,
              "web     0\ndb      2\ncaf\xc3\xa9\xe6\xbc\xa2  0\n");
    // Outside a UTF-8 locale the bytes are no characters and show as '?'.
    EXPECT_EQ(shmrmctl({"status", "groups", "-o", "name", "-n"}, {"LC_ALL=C"}).out,
              "web\ndb\ncaf?????\n");
    // Piped, nothing is cut; on a narrow terminal the sv column is, before a character.
    const std::string whole = shmrmctl({"status", "groups", "-o", "name,sv", "-n"}, utf8).out;
    EXPECT_NE(whole.find("text of some length"), std::string::npos) << whole;
    struct Cut {
        const char* columns;
        std::string first;
    };
    // 8 columns for the names, the rest for sv; 語 would straddle the edge at 14.
    for (const Cut& c : {Cut{"COLUMNS=19", "web     \xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e tex~"},
                         Cut{"COLUMNS=15", "web     \xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e~"},
                         Cut{"COLUMNS=14", "web     \xe6\x97\xa5\xe6\x9c\xac~"}}) {
        const Result r =
            shmrmctl({"status", "groups", "-o", "name,sv", "-n"}, {utf8[0], c.columns});
        ASSERT_FALSE(lines(r.out).empty()) << c.columns;
        EXPECT_EQ(lines(r.out)[0], c.first) << c.columns;
    }
    EXPECT_NE(shmrmctl({"status", "groups", "-o", "name,sv", "-n", "--notruncate"},
                       {utf8[0], "COLUMNS=15"})
                  .out.find("text of some length"),
              std::string::npos);
}

TEST_F(Output, JsonKeysFollowTheSchemaWithVersionTimeAndSecs) {
    const Result r = shmrmctl({"status", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    const json j = json::parse(r.out);
    auto keys = [](const json& object) {
        std::vector<std::string> out;
        for (const auto& [key, value] : object.items())
            out.push_back(key);
        return out;
    };
    // nlohmann::json sorts keys; the text's order is read from the text itself.
    auto text_order = [&](const std::vector<std::string>& expected) {
        std::size_t at = 0;
        for (const auto& key : expected) {
            const std::size_t found = r.out.find("\"" + key + "\":", at);
            EXPECT_NE(found, std::string::npos) << key;
            if (found != std::string::npos) at = found;
        }
    };
    text_order({"version", "time", "size", "header", "groups", "monitors", "damage"});
    std::vector<std::string> group{"name"};
#define VEXTEST_ROW(name, ...) group.push_back(#name);
    SHMRM_GROUP_ATTRIBUTES(VEXTEST_ROW)
#undef VEXTEST_ROW
    group.insert(group.end(), {"rsccnt", "resources"});
    text_order(group);
    EXPECT_EQ(keys(j["groups"][1]).size(), group.size());
    EXPECT_EQ(j["version"], 1);
    const std::string time = j["time"];
    EXPECT_TRUE(std::regex_match(time, std::regex("20[0-9]{2}-[01][0-9]-[0-3][0-9]T[0-2][0-9]:"
                                                  "[0-5][0-9]:[0-6][0-9]Z")))
        << time;
    int step = 0;
    unsigned t3 = 0, t4 = 0;
    ASSERT_EQ(shmrm_getmonprogress("proc", "agent", &step, &t3, &t4), 0);
    EXPECT_DOUBLE_EQ(j["monitors"][0]["secs"].get<double>(), (t4 - t3) / 1000.0);
    // One section alone; resources asked for alone come flat, each with its group.
    const json res = json::parse(shmrmctl({"status", "resources", "--json"}).out);
    EXPECT_FALSE(res.contains("groups"));
    EXPECT_EQ(res["resources"][1]["group"], "db");
    EXPECT_EQ(res["resources"][1]["name"], "engine");
}

TEST_F(Output, GetShowsAWholeRecordAsStatusDoes) {
    const Result whole = shmrmctl({"get", "group", "db"});
    ASSERT_EQ(whole.status, 0) << whole.err;
    EXPECT_EQ(whole.out,
              "name=db\nstat=2\nsv=two words\nenv=0\nflag=0xbeef\nretrycnt=0\nfocnt=0\n");
    // flag reads the same way in get, in status and through a wildcard key.
    EXPECT_EQ(shmrmctl({"get", "group", "db", "flag"}).out, "0xbeef\n");
    EXPECT_NE(shmrmctl({"status", "groups"}).out.find("0xbeef"), std::string::npos);
    const auto resource = lines(shmrmctl({"get", "resource", "*", "app", "engine"}).out);
    ASSERT_GE(resource.size(), 5u);
    EXPECT_EQ(resource[0], "group=db");
    EXPECT_EQ(resource[3], "stat=7");
    const json record =
        json::parse(shmrmctl({"get", "resource", "db", "app", "engine", "--json"}).out);
    const json status = json::parse(shmrmctl({"status", "--json"}).out);
    json expected = status["groups"][1]["resources"][0];
    expected["group"] = "db";
    EXPECT_EQ(record, expected);
    struct Missing {
        std::vector<std::string> args;
        int status;
        const char* err;
    };
    for (const Missing& m : {Missing{{"get", "group", "nosuch"}, 4, "no group 'nosuch'"},
                             Missing{{"get", "monitor", "x", "agent", "ret"}, 4, "no monitor"},
                             Missing{{"get", "group", "db", "colour"}, 2, "unknown attribute"}}) {
        const Result r = shmrmctl(m.args);
        EXPECT_EQ(r.status, m.status) << m.err;
        EXPECT_NE(r.err.find(m.err), std::string::npos) << r.err;
    }
}

#if !defined(_WIN32)
// track in the background while the region changes: one line per change, then per record added
// and removed. Every wait polls the output, bounded.
TEST_F(Output, TrackPrintsALinePerChange) {
    const std::string out = sandbox_.path() + "/track.out";
    const std::string script = R"(
t=$1; out=$2
"$t" track --interval 0.05 >"$out" & pid=$!
seen() { i=0; until grep -q -- "$1" "$out"; do i=$((i+1)); [ $i -gt 400 ] && return 1; sleep 0.05; done; }
n=0
until grep -q "header acstat" "$out"; do n=$((n+1)); [ $n -gt 400 ] && break; "$t" set header acstat $n; sleep 0.05; done
"$t" set resource db app engine stat 2 && seen "stat 7 -> 2"
"$t" set group db sv "now three words" && seen "three"
"$t" add monitor ping new && seen "added"
"$t" remove group web && seen "group web removed"
kill $pid; wait $pid
)";
    const Result r = vextest::run({"/bin/sh", "-c", script, "sh", SHMRMCTL_EXE, out});
    EXPECT_EQ(r.status, 0) << r.err;  // track ends cleanly on SIGTERM
    const std::string text = vextest::Sandbox::read_file(out);
    const std::string stamp = "20[0-9-]{8}T[0-9:]{8}Z ";
    for (const std::string line :
         {"resource db/app/engine stat 7 -> 2", "group db sv \"two words\" -> \"now three words\"",
          "monitor ping/new added", "group web removed", "resource web/ip/vip removed"}) {
        std::string pattern;
        for (const char c : line)
            pattern += std::string(std::strchr(".*+?()[]{}|^$\\/", c) != nullptr ? "\\" : "") + c;
        EXPECT_TRUE(std::regex_search(text, std::regex(stamp + pattern))) << line << "\n" << text;
    }
}
#endif

// The reading commands write nothing to the node log, even where every export would.
TEST_F(Output, ReadingCommandsLeaveTheLogAlone) {
    const std::string before = sandbox_.read_log();
    ASSERT_FALSE(before.empty());  // level 16 does write, for the exports this test calls
    for (const auto& args : {std::vector<std::string>{"status"},
                             {"status", "--json"},
                             {"status", "groups", "-o", "name", "--raw"},
                             {"get", "group", "db"},
                             {"get", "resource", "db", "app", "engine", "stat"},
                             {"get", "header", "maxvalue"}}) {
        EXPECT_EQ(shmrmctl(args).status, 0) << args[0];
    }
    EXPECT_EQ(sandbox_.read_log(), before);
}

}  // namespace

int main(int argc, char** argv) {
    if (const auto parent = vextest::in_own_namespace(argc, argv, "shmrmctlout")) return *parent;
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
