// shmrmctl driven as a real process against a region this test holds and fills through the API.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>

#include <set>
#include <sstream>
#include <string>
#include <vector>
#include "vexshmrm_schema.h"

#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#include <windows.h>
#else
#include <unistd.h>
#endif

#include "support/child.h"
#include "support/sandbox.h"
#include "tool.h"
#include "vexshmrm.h"

namespace {

using vextest::shmrmctl;

using nlohmann::json;
using Result = vextest::RunResult;

using Caps = std::array<int, 3>;  // grpmax, rscmax, monmax

// The size of a region with these capacities, and the length of a view of it: whole pages on
// Windows.
long long region_size(Caps c) {
    return 184 + c[0] * (344 + c[1] * 884LL) + c[2] * 412LL;
}
long long view_size(long long size) {
#if defined(_WIN32)
    return (size + 4095) / 4096 * 4096;
#else
    return size;
#endif
}

// The header's capacities as the holder (this process) reads them.
Caps header_caps() {
    Caps c{};
    EXPECT_EQ(shmrm_getmaxvalue(&c[0], &c[1], &c[2]), SHMRM_OK);
    return c;
}

json parse(const Result& r) {
    EXPECT_EQ(r.status, 0) << r.err;
    return json::parse(r.out, nullptr, false);
}

// The test holds a small region (4 groups of 3 resources, 4 monitors) for its whole run.
class Shmrmctl : public testing::Test {
  protected:
    void SetUp() override {
        sandbox_.configure({4, 3, 4});
        ASSERT_EQ(shmrm_create(), SHMRM_OK);
    }
    void TearDown() override { shmrm_delete(); }

    // Two groups, three resources, two monitors, every field given a value of its own.
    static void populate() {
        ASSERT_EQ(shmrm_setacstat(11), 0);
        ASSERT_EQ(shmrm_setacstat2(12), 0);
        ASSERT_EQ(shmrm_setpow32port(5001), 0);
        for (const char* g : {"web", "db"})
            ASSERT_EQ(shmrm_addgrp(g), 0);
        ASSERT_EQ(shmrm_setgrpstat("db", 2), 0);
        ASSERT_EQ(shmrm_setgrpenv("db", -3), 0);
        ASSERT_EQ(shmrm_setgrpflag("db", 0xbeef), 0);
        ASSERT_EQ(shmrm_setgrpretrycnt("db", 4), 0);
        ASSERT_EQ(shmrm_setgrpfocnt("db", 5), 0);
        ASSERT_EQ(shmrm_setgrpsv("db", "online"), 0);
        ASSERT_EQ(shmrm_addrsc("web", "ip", "vip"), 0);
        ASSERT_EQ(shmrm_addrsc("db", "disk", "vol"), 0);
        ASSERT_EQ(shmrm_addrsc("db", "app", "engine"), 0);
        ASSERT_EQ(shmrm_setrscstat("db", "app", "engine", 7), 0);
        ASSERT_EQ(shmrm_setrscfocnt("db", "app", "engine", 8), 0);
        ASSERT_EQ(shmrm_setrscstrtret("db", "app", "engine", -9), 0);
        ASSERT_EQ(shmrm_setrscstopret("db", "app", "engine", 10), 0);
        ASSERT_EQ(shmrm_setrscsv("db", "app", "engine", "running"), 0);
        const unsigned char data[] = {0x01, 0xab, 0x00, 0xff};
        ASSERT_EQ(shmrm_setrscfree("db", "app", "engine", data, 4), 0);
        ASSERT_EQ(shmrm_setdescript("db", "app", "engine", "the engine", 11), 0);
        ASSERT_EQ(shmrm_addmon("ping", "gw"), 0);
        ASSERT_EQ(shmrm_addmon("proc", "agent"), 0);
        ASSERT_EQ(shmrm_setmonstat("proc", "agent", 1), 0);
        ASSERT_EQ(shmrm_setmonfo("proc", "agent", 2), 0);
        ASSERT_EQ(shmrm_setmonproc("proc", "agent", 3), 0);
        ASSERT_EQ(shmrm_setmoninst("proc", "agent", 4), 0);
        ASSERT_EQ(shmrm_setmoninstdata("proc", "agent", 5), 0);
        ASSERT_EQ(shmrm_setmonscriptcnt("proc", "agent", -6), 0);
        ASSERT_EQ(shmrm_setmonrestartcnt("proc", "agent", 7), 0);
        ASSERT_EQ(shmrm_setmonfinactcnt("proc", "agent", 8), 0);
        ASSERT_EQ(shmrm_setmonsimuflag("proc", "agent", 9), 0);
        ASSERT_EQ(shmrm_settargetpid("proc", "agent", 10), 0);
        ASSERT_EQ(shmrm_setmonret("proc", "agent", 11), 0);
        ASSERT_EQ(shmrm_setparentpid("proc", "agent", 12), 0);
        ASSERT_EQ(shmrm_setmonprogress("proc", "agent", 3), 0);
        ASSERT_EQ(shmrm_setmonprogress("proc", "agent", 4), 0);
        ASSERT_EQ(shmrm_setdescript(nullptr, "proc", "agent", "watcher", 8), 0);
    }

    std::string file(const std::string& name) const { return sandbox_.path() + "/" + name; }

    vextest::Sandbox sandbox_;
};

TEST_F(Shmrmctl, StatusJsonHoldsEveryFieldAsWritten) {
    populate();
    const json j = parse(shmrmctl({"status", "--json"}));
    ASSERT_FALSE(j.is_discarded());
    unsigned int tick3 = 0, tick4 = 0;
    int step = 0;
    ASSERT_EQ(shmrm_getmonprogress("proc", "agent", &step, &tick3, &tick4), 0);
    const std::vector<std::pair<std::string, json>> expected = {
        {"/size", view_size(region_size({4, 3, 4}))},
        {"/header/grpmax", 4},
        {"/header/rscmax", 3},
        {"/header/monmax", 4},
        {"/header/grpcnt", 2},
        {"/header/moncnt", 2},
        {"/header/acstat", 11},
        {"/header/acstat2", 12},
        {"/header/pow32port", 5001},
        {"/groups/0/name", "web"},
        {"/groups/0/rsccnt", 1},
        {"/groups/0/resources/0/type", "ip"},
        {"/groups/0/resources/0/name", "vip"},
        {"/groups/1/name", "db"},
        {"/groups/1/stat", 2},
        {"/groups/1/env", -3},
        {"/groups/1/flag", 0xbeef},
        {"/groups/1/retrycnt", 4},
        {"/groups/1/focnt", 5},
        {"/groups/1/sv", "online"},
        {"/groups/1/rsccnt", 2},
        {"/groups/1/resources/1/name", "engine"},
        {"/groups/1/resources/1/stat", 7},
        {"/groups/1/resources/1/focnt", 8},
        {"/groups/1/resources/1/strtret", -9},
        {"/groups/1/resources/1/stopret", 10},
        {"/groups/1/resources/1/sv", "running"},
        {"/groups/1/resources/1/descript", "the engine"},
        {"/groups/1/resources/1/free", "01ab00ff" + std::string(504, '0')},
        {"/monitors/0/type", "ping"},
        {"/monitors/0/progress", 0},
        {"/monitors/1/name", "agent"},
        {"/monitors/1/stat", 1},
        {"/monitors/1/fo", 2},
        {"/monitors/1/proc", 3},
        {"/monitors/1/inst", 4},
        {"/monitors/1/instdata", 5},
        {"/monitors/1/scriptcnt", -6},
        {"/monitors/1/restartcnt", 7},
        {"/monitors/1/finactcnt", 8},
        {"/monitors/1/simuflag", 9},
        {"/monitors/1/targetpid", 10},
        {"/monitors/1/ret", 11},
        {"/monitors/1/parentpid", 12},
        {"/monitors/1/progress", 4},
        {"/monitors/1/tick3", tick3},
        {"/monitors/1/tick4", tick4},
        {"/monitors/1/descript", "watcher"},
        {"/damage", json::array()},
    };
    for (const auto& [pointer, value] : expected) {
        EXPECT_EQ(j.value(json::json_pointer(pointer), json()), value) << pointer;
    }
    const Result text = shmrmctl({"status"});
    EXPECT_EQ(text.status, 0);
    for (const char* shown : {"monitors", "engine", "running", "0xbeef", "01ab00ff"}) {
        EXPECT_NE(text.out.find(shown), std::string::npos) << shown;
    }
}

TEST_F(Shmrmctl, DecodedDumpIsTheSnapshotStatusShows) {
    populate();
    ASSERT_EQ(shmrmctl({"dump", file("region.dump")}).status, 0);
    json live = parse(shmrmctl({"status", "--json"}));
    shmrm_clear();  // the dump alone must carry the snapshot
    json decoded = parse(shmrmctl({"decode", file("region.dump"), "--json"}));
    EXPECT_TRUE(decoded["time"].is_null());  // a dump file does not say when it was taken
    live.erase("time");
    decoded.erase("time");
    EXPECT_EQ(decoded, live);
    const Result ok = shmrmctl({"check", "--file", file("region.dump")});
    EXPECT_EQ(ok.status, 0) << ok.out;
}

// A dump file with bytes planted at region offsets; `check` must name each fault, and neither
// check nor decode may read past the bytes whatever the header says.
TEST_F(Shmrmctl, CheckNamesEachPlantedViolation) {
    populate();
    ASSERT_EQ(shmrmctl({"dump", file("healthy")}).status, 0);
    EXPECT_EQ(shmrmctl({"check"}).status, 0);
    std::ifstream in(file("healthy"), std::ios::binary);
    const std::string healthy((std::istreambuf_iterator<char>(in)), {});
    constexpr std::size_t kFileHead = 40, kGroup = 344 + 3 * 884, kMons = 184 + 4 * kGroup;
    struct Case {
        const char* name;
        std::size_t offset;  // in the region
        std::string bytes;
        const char* expected;
        std::size_t keep = 0;  // cut the file to this many bytes (0: whole)
    };
    const std::string big("\x7f\x00\x00\x00", 4);
    const Case cases[] = {
        {"grpcnt", 48, big, "grpcnt: 127 outside 0..4"},
        {"moncnt", 52, "\xff\xff\xff\xff", "moncnt: -1 outside 0..4"},
        {"rsccnt", 184 + kGroup + 296, big, "group 1 'db': rsccnt 127 outside 0..3"},
        {"group name", 184, std::string(32, 'A'), "group 0: name has no NUL"},
        {"resource type", 184 + 344 + 32, std::string(32, 'B'), "resource 0: type has no NUL"},
        {"monitor name", kMons + 412, std::string(32, 'C'), "monitor 1: name has no NUL"},
        {"free group", 184 + 3 * kGroup + 100, "x", "group position 3: free but byte 100"},
        {"free slot", 184 + 344 + 884 + 5, "y", "'web': free resource slot 1: byte 5"},
        {"free monitor", kMons + 3 * 412 + 411, "z", "monitor position 3: free but byte 411"},
        {"capacities", 40, big, "capacities: the header says grpmax 4, rscmax 127"},
        {"truncated", 0, "", "truncated: the file header says", kFileHead + 1000},
    };
    for (const Case& c : cases) {
        std::string damaged = healthy;
        damaged.replace(kFileHead + c.offset, c.bytes.size(), c.bytes);
        if (c.keep != 0) damaged.resize(c.keep);
        std::ofstream(file(c.name), std::ios::binary) << damaged;
        const Result r = shmrmctl({"check", "--file", file(c.name)});
        EXPECT_EQ(r.status, 1) << c.name;
        EXPECT_NE(r.out.find(c.expected), std::string::npos) << c.name << ":\n" << r.out;
        EXPECT_LE(shmrmctl({"decode", file(c.name), "--json"}).status, 1) << c.name;
    }
    std::ofstream(file("garbage"), std::ios::binary) << "not a dump at all";
    for (const auto& args : {std::vector<std::string>{"decode", file("garbage")},
                             {"check", "--file", file("garbage")},
                             {"decode", file("absent")}}) {
        const Result r = shmrmctl(args);
        EXPECT_EQ(r.status, 1) << args[1];
        EXPECT_NE(r.err.find("shmrmctl: "), std::string::npos) << r.err;
    }
}

// A tool configured otherwise than the node reads the region as it is and writes nothing into
// it: not capacities smaller than the node's (which attaching would write over the node's), nor
// larger ones (which the library refuses to attach with).
TEST_F(Shmrmctl, ReadingCommandsLeaveTheNodesCapacities) {
    populate();
    for (const Caps other : {Caps{2, 3, 2}, Caps{8, 2, 6}}) {
        vextest::Sandbox sandbox;
        sandbox.configure({other[0], other[1], other[2]});
        for (const auto& args : {std::vector<std::string>{"status"},
                                 {"status", "--json"},
                                 {"check"},
                                 {"dump", "--force", file("region.dump")}}) {
            const Result r = shmrmctl(args, {"VEX_INSTALL_PATH=" + sandbox.path()});
            EXPECT_EQ(r.status, 0) << other[0] << " " << args[0] << ": " << r.out << r.err;
            EXPECT_EQ(header_caps(), (Caps{4, 3, 4})) << other[0] << " " << args[0];
        }
    }
}

// Capacities in the header that describe another size than the region's: check, and decode of
// a dump, name them with the size they give and the region's own.
TEST_F(Shmrmctl, CheckReportsCapacitiesThatDescribeAnotherSize) {
    populate();
    // Written by the holder's setmaxvalue, then by a process that attaches configured otherwise.
    for (const auto& [by_attach, caps] : {std::pair{false, Caps{2, 3, 4}}, {true, Caps{1, 2, 1}}}) {
        if (by_attach) {
            vextest::Sandbox other;
            other.configure({caps[0], caps[1], caps[2]});
            ASSERT_EQ(shmrmctl({"set", "header", "pow32port", "5001"},
                               {"VEX_INSTALL_PATH=" + other.path()})
                          .status,
                      0);
        } else {
            ASSERT_EQ(shmrm_setmaxvalue(caps[0], caps[1], caps[2]), SHMRM_OK);
        }
        ASSERT_EQ(header_caps(), caps);
        const std::string expected =
            "geometry: grpmax " + std::to_string(caps[0]) + ", rscmax " + std::to_string(caps[1]) +
            ", monmax " + std::to_string(caps[2]) + " give " + std::to_string(region_size(caps)) +
            " bytes, the region has " + std::to_string(view_size(region_size({4, 3, 4})));
        ASSERT_EQ(shmrmctl({"dump", "--force", file("rewritten")}).status, 0);
        for (const auto& args : {std::vector<std::string>{"check"},
                                 {"check", "--file", file("rewritten")},
                                 {"decode", file("rewritten")}}) {
            const Result r = shmrmctl(args);
            EXPECT_EQ(r.status, 1) << args[0] << " " << caps[0];
            EXPECT_NE((r.out + r.err).find(expected), std::string::npos) << r.out << r.err;
        }
        ASSERT_EQ(shmrm_setmaxvalue(4, 3, 4), SHMRM_OK);
    }
}

TEST_F(Shmrmctl, WritesReachTheExportsAndReportTheirResults) {
    ASSERT_EQ(shmrm_addgrp("g"), 0);
    ASSERT_EQ(shmrm_addrsc("g", "t", "r"), 0);
    ASSERT_EQ(shmrm_addmon("m", "n"), 0);
    struct Case {
        std::vector<std::string> args;
        int status;
        const char* out;  // expected in stdout (success) or stderr (failure)
    };
    const Case cases[] = {
        {{"set", "group", "g", "stat", "0x10"}, 0, ""},
        {{"get", "group", "g", "stat"}, 0, "16\n"},
        {{"set", "group", "g", "flag", "65535"}, 0, ""},
        {{"get", "group", "g", "flag"}, 0, "0xffff\n"},
        {{"set", "resource", "*", "*", "r", "free", "0a0b"}, 0, ""},
        {{"get", "resource", "g", "t", "r", "free"}, 0, "0a0b0000"},
        {{"set", "resource", "g", "t", "r", "descript", "hello"}, 0, ""},
        {{"get", "resource", "g", "t", "r", "descript"}, 0, "hello\n"},
        {{"set", "monitor", "*", "n", "scriptcnt", "-1"}, 0, ""},
        {{"get", "monitor", "m", "n", "scriptcnt"}, 0, "-1\n"},
        {{"set", "monitor", "m", "n", "progress", "0"}, 0, ""},
        {{"get", "monitor", "m", "n", "progress"}, 0, "0 0 0\n"},
        {{"set", "header", "pow32port", "8080"}, 0, ""},
        {{"get", "header", "maxvalue"}, 0, "4,3,4\n"},
        {{"set", "header", "acstat", "0"}, 6, "setting acstat of the header: a required argument"},
        {{"set", "header", "maxvalue", "5,3,4"}, 6, "setting maxvalue of the header"},
        {{"get", "group", "nosuch", "stat"}, 4, "no group 'nosuch'"},
        {{"get", "monitor", "x", "n", "ret"}, 4, "no monitor 'x/n'"},
        {{"set", "group", "g", "colour", "1"}, 2, "a group has no attribute 'colour'"},
        {{"set", "group", "g", "stat", "12abc"}, 6, "'12abc' is not a number"},
        {{"set", "group", "g", "flag", "70000"}, 6, "an unsigned short is 0 to 65535"},
        {{"get", "resource", "g", "r", "stat"},
         4,
         "no resource 'r/stat' in group 'g'"},  // a whole record
        {{"add", "resource", "g", "t", "r2"}, 0, ""},
        {{"add", "resource", "g", "t", "r3"}, 0, ""},
        {{"add", "resource", "g", "t", "r4"}, 8, "the group's resource slots are full"},
        {{"remove", "resource", "*", "*", "r2"}, 0, ""},
        {{"remove", "monitor", "*", "gone"}, 4, "no monitor '*/gone'"},
        {{"add", "thing", "x"}, 2, "'thing' is no kind of record"},
    };
    for (const Case& c : cases) {
        const Result r = shmrmctl(c.args);
        std::string what;
        for (const auto& a : c.args)
            what += a + " ";
        EXPECT_EQ(r.status, c.status) << what << r.err;
        EXPECT_NE((c.status == 0 ? r.out : r.err).find(c.out), std::string::npos)
            << what << "\nstdout: " << r.out << "\nstderr: " << r.err;
    }
    // What the tool wrote, as the exports read it back.
    int value = 0;
    EXPECT_EQ(shmrm_getpow32port(&value), 0);
    EXPECT_EQ(value, 8080);
    char names[64];
    int size = sizeof names;
    ASSERT_EQ(shmrm_enumrsc("g", names, &size), 0);
    EXPECT_EQ(std::string(names, static_cast<std::size_t>(size)), std::string("r\0r3\0\0", 6));
}

TEST(ShmrmctlAlone, NoRegionIsReportedNotCrashedOn) {
    vextest::Sandbox sandbox;
    for (const auto& args : {std::vector<std::string>{"status"},
                             {"status", "--json"},
                             {"check"},
                             {"get", "header", "acstat"},
                             {"add", "group", "g"}}) {
        const Result r = shmrmctl(args);
        EXPECT_EQ(r.status, 3) << args[0] << ": " << r.out << r.err;
        EXPECT_NE(r.err.find("no region '"), std::string::npos) << r.err;
    }
    EXPECT_NE(shmrmctl({"status", "--bogus"}).status, 0);
    EXPECT_NE(shmrmctl({"get", "--help"}).out.find("scriptcnt"), std::string::npos);
}

TEST(ShmrmctlAlone, DemoOnceRunsToTheEndAndLeavesNothingBehind) {
    vextest::Sandbox sandbox;  // for the region check below; the demo makes its own
    const std::string ns = "shmrmctl-demo-test-" + vextest::process_id_text();
    const Result r = shmrmctl({"demo", "--once", "--workers", "2", "--namespace", ns});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("=== snapshot 3 ==="), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("worker 1 pid"), std::string::npos) << r.out;  // workers did write
    std::istringstream lines(r.out);
    std::string word, install;
    int pids = 0;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream in(line);
        long pid = 0;
        if (in >> word && (word == "holder" || word == "worker") && in >> pid && in.eof()) {
            ++pids;
            EXPECT_FALSE(vextest::process_running(pid)) << word << " " << pid << " lives";
        }
        if (word == "install") install = line.substr(8);
    }
    EXPECT_EQ(pids, 3);
    const Result gone = shmrmctl({"status"}, {"VEX_IPC_NAMESPACE=" + ns});
    EXPECT_NE(gone.err.find("no region '" + ns + "."), std::string::npos) << gone.err;
    EXPECT_FALSE(install.empty() || std::filesystem::exists(install)) << install;
}

// Every integer attribute of the schema, written with `set` and read back from `status --json`,
// each with a value of its own: a row wired to another row's export shows a wrong value here.
TEST_F(Shmrmctl, EveryIntegerAttributeRoundTripsThroughSetAndStatus) {
    ASSERT_EQ(shmrm_addgrp("g"), 0);
    ASSERT_EQ(shmrm_addrsc("g", "t", "r"), 0);
    ASSERT_EQ(shmrm_addmon("t", "m"), 0);
    struct Row {
        std::vector<std::string> args;  // the set command's words before the value
        std::string pointer;            // where status shows the attribute
    };
    std::vector<Row> rows;
    std::vector<std::string> keys;
    std::string at;
    auto add = [&](const char* name) {
        std::vector<std::string> args = {"set"};
        args.insert(args.end(), keys.begin(), keys.end());
        args.push_back(name);
        rows.push_back({args, at + name});
    };
#define VEXTEST_WORD(name, shape, ...) SHMRM_IF_WORD(shape, add(#name);)
    keys = {"header"}, at = "/header/";
    SHMRM_HEADER_ATTRIBUTES(VEXTEST_WORD)
    keys = {"group", "g"}, at = "/groups/0/";
    SHMRM_GROUP_ATTRIBUTES(VEXTEST_WORD)
    keys = {"resource", "g", "t", "r"}, at = "/groups/0/resources/0/";
    SHMRM_RESOURCE_ATTRIBUTES(VEXTEST_WORD)
    keys = {"monitor", "t", "m"}, at = "/monitors/0/";
    SHMRM_MONITOR_ATTRIBUTES(VEXTEST_WORD)
#undef VEXTEST_WORD
    for (std::size_t i = 0; i < rows.size(); ++i) {
        std::vector<std::string> args = rows[i].args;
        args.push_back(std::to_string(100 + i));
        const Result r = shmrmctl(args);
        EXPECT_EQ(r.status, 0) << rows[i].pointer << ": " << r.err;
    }
    const json j = parse(shmrmctl({"status", "--json"}));
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(j.value(json::json_pointer(rows[i].pointer), json()), 100 + static_cast<int>(i))
            << rows[i].pointer;
    }
}

// Every row of the schema is a column of its record's table in `status` and a key of its record
// in `status --json` (the capacities as their three names); a row the views leave out fails here.
TEST_F(Shmrmctl, EverySchemaRowIsAStatusColumnAndAJsonKey) {
    ASSERT_EQ(shmrm_addgrp("g"), 0);
    ASSERT_EQ(shmrm_addrsc("g", "t", "r"), 0);
    ASSERT_EQ(shmrm_addmon("t", "m"), 0);
    struct Record {
        std::string table, pointer;
        std::vector<std::string> names;
    };
    std::vector<Record> records = {
        {"region", "/header", {}},
        {"groups", "/groups/0", {}},
        {"resources", "/groups/0/resources/0", {}},
        {"monitors", "/monitors/0", {}},
    };
    std::size_t at = 0;
    auto add = [&](const std::string& name, const std::string& shape) {
        auto& names = records[at].names;
        if (shape == "maxvalue") {
            names.insert(names.end(), {"grpmax", "rscmax", "monmax"});
        } else {
            names.push_back(name);
        }
    };
#define VEXTEST_ROW(name, shape, ...) add(#name, #shape);
    SHMRM_HEADER_ATTRIBUTES(VEXTEST_ROW)
    at = 1;
    SHMRM_GROUP_ATTRIBUTES(VEXTEST_ROW)
    at = 2;
    SHMRM_RESOURCE_ATTRIBUTES(VEXTEST_ROW)
    at = 3;
    SHMRM_MONITOR_ATTRIBUTES(VEXTEST_ROW)
#undef VEXTEST_ROW

    // The column names of each table: the line after its title.
    const Result text = shmrmctl({"status"});
    ASSERT_EQ(text.status, 0) << text.err;
    std::map<std::string, std::set<std::string>> columns;
    std::istringstream lines(text.out);
    std::string title, line;
    while (std::getline(lines, title)) {
        if (title.empty() || !std::getline(lines, line)) continue;
        std::istringstream words(line);
        for (std::string w; words >> w;)
            columns[title].insert(w);
        while (std::getline(lines, line) && !line.empty()) {
        }
    }
    const json j = parse(shmrmctl({"status", "--json"}));
    for (const Record& record : records) {
        const json object = j.value(json::json_pointer(record.pointer), json());
        ASSERT_TRUE(object.is_object()) << record.pointer;
        for (const std::string& name : record.names) {
            EXPECT_TRUE(columns[record.table].count(name)) << record.table << ": " << name;
            EXPECT_TRUE(object.contains(name)) << record.pointer << ": " << name;
        }
    }
}

}  // namespace

// A namespace of its own, set before the library loads (with the program): start again with it.
int main(int argc, char** argv) {
#if defined(_WIN32)
    // Plain "\n" line ends, as the test runner reading the output expects.
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
#endif
    if (const auto parent = vextest::in_own_namespace(argc, argv, "shmrmctltest")) return *parent;
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
