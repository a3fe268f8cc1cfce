// shmrmctl as an operator meets it: what its errors say and how it exits, the values it refuses
// rather than store wrongly, and the files and streams it writes.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/sandbox.h"
#include "tool.h"
#include "vexshmrm.h"

namespace {

using vextest::contains;
using vextest::ipc_namespace;
using vextest::shmrmctl;

using Result = vextest::RunResult;

std::string joined(const std::vector<std::string>& args) {
    std::string out;
    for (const auto& a : args)
        out += a + " ";
    return out;
}

// A held region of 2 groups of 2 resources and 2 monitors, with group "web", its resource
// ip/vip, and monitor ping/gw.
class ShmrmctlCli : public testing::Test {
  protected:
    void SetUp() override {
        sandbox_.configure({2, 2, 2});
        ASSERT_EQ(shmrm_create(), SHMRM_OK);
        ASSERT_EQ(shmrm_addgrp("web"), SHMRM_OK);
        ASSERT_EQ(shmrm_addrsc("web", "ip", "vip"), SHMRM_OK);
        ASSERT_EQ(shmrm_addmon("ping", "gw"), SHMRM_OK);
    }
    void TearDown() override { shmrm_delete(); }

    std::string file(const std::string& name) const { return sandbox_.path() + "/" + name; }
    // The header's count of groups in use.
    static int groups() {
        int size = 0;
        EXPECT_EQ(shmrm_dump(nullptr, &size), SHMRM_OK);
        std::vector<char> region(static_cast<std::size_t>(size));
        EXPECT_EQ(shmrm_dump(region.data(), &size), SHMRM_OK);
        rmhead head{};
        std::memcpy(&head, region.data(), sizeof head);
        return head.grpcnt;
    }

    vextest::Sandbox sandbox_;
};

// What an operator reads and what a script tests, for each kind of failure.
TEST_F(ShmrmctlCli, FailuresSayWhatWentWrongAndExitWithTheirOwnCode) {
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string says;  // on standard error
        bool hint = true;  // a "hint:" line follows
    };
    const std::string lock = ipc_namespace() + ".oru_vexshmrm_lock";
    const Case cases[] = {
        {{"get", "group", "nosuch", "stat"}, 4, "shmrmctl: no group 'nosuch'\n"},
        {{"get", "resource", "web", "ip", "web-vip", "stat"},
         4,
         "no resource 'ip/web-vip' in group 'web'"},
        {{"set", "resource", "db", "ip", "vip", "stat", "1"}, 4, "no group 'db'"},
        {{"remove", "monitor", "*", "gone"}, 4, "no monitor '*/gone'"},
        {{"set", "header", "acstat", "0"}, 6, "setting acstat of the header"},
        {{"set", "group", "web", "stat", "x"},
         6,
         "stat of group 'web': 'x' is not a number",
         false},
        {{"add", "resource", "web", "ip", "b"}, 0, ""},
        {{"add", "resource", "web", "ip", "c"}, 8, "adding resource 'ip/c' in group 'web'"},
        {{"set", "group", "web", "colour", "1"}, 2, "a group has no attribute 'colour'", false},
        {{"get", "thing", "x"}, 2, "'thing' is no kind of record"},
        {{"nosuch"}, 2, "unknown command 'nosuch'"},
        {{}, 2, "no command given"},
        {{"help", "nosuch"}, 2, "unknown command 'nosuch'"},
        {{"watch", "--interval", "abc"}, 2, "--interval: 'abc' is not a number"},
        {{"watch", "--interval", "0.01"}, 2, "'0.01' is outside 0.05 to 3600 seconds"},
        {{"--timeout", "-1", "status"}, 2, "--timeout: '-1' is outside"},
        {{"status", "--bogus"}, 2, "--bogus"},
    };
    for (const Case& c : cases) {
        const Result r = shmrmctl(c.args);
        EXPECT_EQ(r.status, c.status) << joined(c.args) << "\n" << r.err;
        EXPECT_TRUE(contains(r.err, c.says)) << joined(c.args) << "\n" << r.err;
        EXPECT_EQ(contains(r.err, "shmrmctl: hint: "), c.hint && c.status != 0)
            << joined(c.args) << "\n"
            << r.err;
        // Neither the export's name nor the library's code, nor CLI11's own wording.
        for (const char* never : {"shmrm_", "SHMRM_", "not in range", "A subcommand is required"})
            EXPECT_FALSE(contains(r.err, never)) << joined(c.args) << "\n" << r.err;
    }

    // The write lock held here: a writer gives up after its timeout, naming the lock.
    ASSERT_EQ(shmrm_rwlock(1000), SHMRM_OK);
    const Result timed_out = shmrmctl({"--timeout", "50", "set", "group", "web", "stat", "1"});
    ASSERT_EQ(shmrm_rwunlock(), SHMRM_OK);
    EXPECT_EQ(timed_out.status, 5) << timed_out.err;
    EXPECT_TRUE(contains(timed_out.err, "the region lock '" + lock + "' was not free"))
        << timed_out.err;
}

TEST(ShmrmctlCliAlone, NoRegionHelpAndVersion) {
    vextest::Sandbox sandbox;
    const Result none = shmrmctl({"get", "header", "acstat"});
    EXPECT_EQ(none.status, 3);
    EXPECT_TRUE(contains(none.err, "no region '" + ipc_namespace() + ".oru_vexshmrm_map'"))
        << none.err;

    const Result version = shmrmctl({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, std::string("shmrmctl ") + SHMRMCTL_VERSION + "\n");

    // Every help names the program as an operator calls it, never the path it was built at.
    for (const auto& args :
         {std::vector<std::string>{"--help"}, {"help"}, {"help", "set"}, {"set", "--help"}}) {
        const Result r = shmrmctl(args);
        EXPECT_EQ(r.status, 0) << joined(args) << r.err;
        EXPECT_TRUE(contains(r.out, "Usage: shmrmctl")) << joined(args) << r.out;
        EXPECT_FALSE(contains(r.out, SHMRMCTL_EXE)) << joined(args) << r.out;
    }
    const Result help = shmrmctl({"help"});
    for (const char* listed : {"Exit status:", "7  bad configuration", "status", "dump"})
        EXPECT_TRUE(contains(help.out, listed)) << listed;
    EXPECT_TRUE(contains(shmrmctl({"help", "set"}).out, "scriptcnt"));
}

// Decimal and 0x hex only, within the range of the type the attribute's setter takes.
TEST_F(ShmrmctlCli, NumbersAreDecimalOrHexAndFitTheirField) {
    struct Case {
        const char* attribute;  // of group web, or monitor ping/gw for the shorts
        const char* text;
        int stored;  // -999: refused with exit status 6, the value left as it was
    };
    constexpr int kRefused = -999;
    const Case cases[] = {
        {"stat", "010", 10},
        {"stat", "08", 8},
        {"stat", "0x10", 16},
        {"stat", "0X1f", 31},
        {"stat", "-0x10", -16},
        {"stat", "2147483647", 2147483647},
        {"stat", "-2147483648", -2147483647 - 1},
        {"stat", "4294967295", kRefused},
        {"stat", "0xffffffff", kRefused},
        {"stat", "2147483648", kRefused},
        {"stat", "99999999999999999999", kRefused},
        {"stat", "1e3", kRefused},
        {"stat", "0x", kRefused},
        {"stat", "1-", kRefused},
        {"stat", "0x-1", kRefused},
        {"stat", " 5", kRefused},
        {"stat", "", kRefused},
        {"flag", "65535", 65535},
        {"flag", "65536", kRefused},
        {"flag", "-1", kRefused},
        {"scriptcnt", "-32768", -32768},
        {"scriptcnt", "32767", 32767},
        {"scriptcnt", "32768", kRefused},
        {"scriptcnt", "65535", kRefused},
    };
    for (const Case& c : cases) {
        const std::string attribute = c.attribute;
        const bool monitor = attribute == "scriptcnt";
        auto read = [&] {
            int v = 0;
            unsigned short flag = 0;
            if (monitor) {
                EXPECT_EQ(shmrm_getmonscriptcnt("ping", "gw", &v), SHMRM_OK);
            } else if (attribute == "flag") {
                EXPECT_EQ(shmrm_getgrpflag("web", &flag), SHMRM_OK);
                v = flag;
            } else {
                EXPECT_EQ(shmrm_getgrpstat("web", &v), SHMRM_OK);
            }
            return v;
        };
        const int before = read();
        std::vector<std::string> args =
            monitor ? std::vector<std::string>{"set", "monitor", "ping", "gw"}
                    : std::vector<std::string>{"set", "group", "web"};
        args.insert(args.end(), {attribute, c.text});
        const Result r = shmrmctl(args);
        EXPECT_EQ(r.status, c.stored == kRefused ? 6 : 0) << joined(args) << r.err;
        EXPECT_EQ(read(), c.stored == kRefused ? before : c.stored) << joined(args);
    }
}

// Too long is refused; --truncate cuts, and never inside a character.
TEST_F(ShmrmctlCli, LongNamesAndTextsAreRefusedOrCutAtACharacterBoundary) {
    const std::string e_acute = "\xc3\xa9", euro = "\xe2\x82\xac";
    struct Case {
        std::string what;
        std::string value;
        bool truncate;
        int status;
        std::string stored;  // the group's name, or web's sv
    };
    const std::string a31(31, 'a'), a255(255, 's');
    const Case cases[] = {
        {"name", a31, false, 0, a31},
        {"name", std::string(29, 'b') + e_acute, false, 0, std::string(29, 'b') + e_acute},
        {"name", std::string(32, 'c'), false, 6, ""},
        {"name", std::string(32, 'd'), true, 0, std::string(31, 'd')},
        {"name", std::string(30, 'e') + e_acute, true, 0, std::string(30, 'e')},
        {"name", std::string(29, 'f') + euro, true, 0, std::string(29, 'f')},
        {"name", std::string(28, 'g') + euro + "h", true, 0, std::string(28, 'g') + euro},
        {"sv", a255, false, 0, a255},
        {"sv", std::string(256, 't'), false, 6, a255},  // unchanged
        {"sv", std::string(254, 'u') + e_acute, true, 0, std::string(254, 'u')},
        {"sv", std::string(253, 'v') + euro, true, 0, std::string(253, 'v')},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args;
        if (c.truncate) args.push_back("--truncate");
        if (c.what == "name") {
            args.insert(args.end(), {"add", "group", c.value});
        } else {
            args.insert(args.end(), {"set", "group", "web", "sv", c.value});
        }
        const Result r = shmrmctl(args);
        EXPECT_EQ(r.status, c.status) << c.value << "\n" << r.err;
        EXPECT_EQ(contains(r.err, "--truncate"), c.status == 6) << r.err;
        EXPECT_EQ(contains(r.err, "warning: "), c.truncate) << r.err;
        if (c.what == "name") {
            int stat = 0;
            if (c.status == 0) {
                EXPECT_EQ(shmrm_getgrpstat(c.stored.c_str(), &stat), SHMRM_OK) << c.value;
                EXPECT_EQ(shmrm_rmgrp(c.stored.c_str()), SHMRM_OK) << c.value;
            }
            EXPECT_EQ(groups(), 1) << c.value;
        } else {
            char sv[SHMRM_TEXT_LEN + 1] = {};
            ASSERT_EQ(shmrm_getgrpsv("web", sv), SHMRM_OK);
            EXPECT_EQ(std::string(sv), c.stored) << c.value.size();
        }
    }
    // A description is a text as well.
    const std::string long_text = std::string(254, 'w') + e_acute;
    EXPECT_EQ(shmrmctl({"set", "monitor", "ping", "gw", "descript", long_text + "x"}).status, 6);
    EXPECT_EQ(
        shmrmctl({"--truncate", "set", "monitor", "ping", "gw", "descript", long_text}).status, 0);
    char text[SHMRM_TEXT_LEN + 1] = {};
    int len = SHMRM_TEXT_LEN;
    ASSERT_EQ(shmrm_getdescript(nullptr, "ping", "gw", text, &len), SHMRM_OK);
    EXPECT_EQ(std::string(text), std::string(254, 'w'));
}

// The library takes an empty name and a second record of the same name; the tool says so, and
// under --strict refuses.
TEST_F(ShmrmctlCli, DoubtfulRecordsAreWarnedAboutAndRefusedWhenStrict) {
    struct Case {
        std::vector<std::string> args;
        int status;
        int groups_after;
        const char* warning;  // on standard error; empty: none
    };
    const Case cases[] = {
        {{"--strict", "add", "group", "web"}, 6, 1, "group 'web' exists already"},
        {{"--strict", "add", "group", ""}, 6, 1, "with an empty group name"},
        {{"--strict", "add", "resource", "web", "ip", "vip"}, 6, 1, "exists already"},
        {{"--strict", "add", "monitor", "ping", ""}, 6, 1, "with an empty name"},
        {{"--strict", "add", "group", "db"}, 0, 2, ""},
        {{"add", "group", "db"}, 8, 2, "group 'db' exists already"},  // warned, then full
        {{"remove", "group", "db"}, 0, 1, ""},
        {{"add", "group", "web"}, 0, 2, "warning: group 'web' exists already"},
        {{"remove", "group", "web"}, 0, 1, ""},
        {{"add", "group", ""}, 0, 2, "warning: adding group '' with an empty group name"},
    };
    for (const Case& c : cases) {
        const Result r = shmrmctl(c.args);
        EXPECT_EQ(r.status, c.status) << joined(c.args) << r.err;
        EXPECT_EQ(groups(), c.groups_after) << joined(c.args);
        if (*c.warning == '\0') {
            EXPECT_EQ(r.err, "") << joined(c.args);
        } else {
            EXPECT_TRUE(contains(r.err, c.warning)) << joined(c.args) << r.err;
        }
    }
}

TEST_F(ShmrmctlCli, DumpWritesStandardOutputOnDashAndKeepsExistingFiles) {
    const Result to_stdout = shmrmctl({"dump", "-"});
    ASSERT_EQ(to_stdout.status, 0) << to_stdout.err;
    EXPECT_FALSE(std::filesystem::exists("-"));
    std::ofstream(file("piped.dump"), std::ios::binary) << to_stdout.out;
    const Result decoded = shmrmctl({"decode", file("piped.dump"), "--json"});
    EXPECT_EQ(decoded.status, 0) << decoded.err;
    EXPECT_TRUE(contains(decoded.out, "\"vip\"")) << decoded.out;

    std::ofstream(file("precious")) << "keep me";
    const Result refused = shmrmctl({"dump", file("precious")});
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(contains(refused.err, "--force")) << refused.err;
    EXPECT_EQ(vextest::Sandbox::read_file(file("precious")), "keep me");
    EXPECT_EQ(shmrmctl({"dump", "--force", file("precious")}).status, 0);
    EXPECT_EQ(shmrmctl({"decode", file("precious")}).status, 0);
}

// Before the library reads the configuration, the tool names the path and what is wrong.
TEST(ShmrmctlCliAlone, ConfigurationProblemsNameThePathAndTheReason) {
    vextest::Sandbox sandbox;
    const std::string dir = sandbox.path();
    const std::string xml = (std::filesystem::path(dir) / "etc" / "vex.xml").string();
    struct Case {
        std::string name;
        std::string install;  // VEX_INSTALL_PATH
        const char* content;  // written to etc/vex.xml first; null: the file is removed
        std::string says;
    };
    const Case cases[] = {
        {"missing", dir + "/nosuch", "<root/>",
         "install directory " + dir + "/nosuch: does not exist"},
        {"a file", xml, "<root/>", "install directory " + xml + ": not a directory"},
        {"no vex.xml", dir, nullptr, "configuration " + xml + ": does not exist"},
        {"empty", dir, "", "configuration " + xml + ": no root element"},
        {"malformed", dir, "<root>\n  <all>\n    <num></nmu>\n", xml + ", line 3: "},
        {"capacity", dir, "<root><all><num>\n<group>lots</group>\n</num></all></root>",
         xml + ", line 2: all/num/group is 'lots', not a number"},
        {"zero", dir, "<root><all><num><monitor>0</monitor></num></all></root>",
         "all/num/monitor is '0', not a number of 1 or more"},
        {"log level", dir, "<root><shmrm><log><level>4x</level></log></shmrm></root>",
         "shmrm/log/level is '4x', not a whole number"},
    };
    for (const Case& c : cases) {
        std::filesystem::remove(xml);
        if (c.content != nullptr) sandbox.write_config(c.content);
        for (const auto& args : {std::vector<std::string>{"add", "group", "g"}, {"hold"}}) {
            const Result r = shmrmctl(args, {"VEX_INSTALL_PATH=" + c.install});
            EXPECT_EQ(r.status, 7) << c.name << " " << args[0] << "\n" << r.err;
            EXPECT_TRUE(contains(r.err, c.says)) << c.name << "\n" << r.err;
        }
    }
}

TEST_F(ShmrmctlCli, ASecondHoldIsRefusedAndLeavesTheRegion) {
    const Result r = shmrmctl({"hold"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(contains(r.err, "'" + ipc_namespace() + ".oru_vexshmrm_map' exists already"))
        << r.err;
    EXPECT_EQ(r.out, "");
    int stat = 0;
    EXPECT_EQ(shmrm_getgrpstat("web", &stat), SHMRM_OK);  // still attached, still there
    EXPECT_EQ(shmrmctl({"get", "group", "web", "stat"}).status, 0);
}

#if !defined(_WIN32)
// A region lock that cannot be opened is named with its namespace and the system's reason, by the
// library when it loads and by the tool.
TEST(ShmrmctlCliAlone, AnUnobtainableLockIsNamedWithItsReason) {
    vextest::Sandbox sandbox;
    const std::string other = ipc_namespace() + "x";  // this process holds its own lock
    const std::string lock = other + ".oru_vexshmrm_lock";
    const std::filesystem::path in_shm = "/dev/shm/" + lock;
    std::filesystem::create_directory(in_shm);  // where the lock's object belongs
    const Result r = shmrmctl({"status"}, {"VEX_IPC_NAMESPACE=" + other});
    std::filesystem::remove(in_shm);
    // The guard of a name that something else held stays with that name: it goes with it here.
    std::filesystem::remove(in_shm.string() + ".guard");
    EXPECT_EQ(r.status, 3) << r.err;
    // The system's reason in words, whatever the object layer makes of a directory there.
    const std::string reason = std::strerror(EINVAL);
    EXPECT_TRUE(contains(r.err, "vexshmrm: the region lock \"" + lock +
                                    "\" cannot be obtained: " + reason + " (error 22)"))
        << r.err;
    EXPECT_TRUE(contains(r.err, "the region lock '" + lock + "' cannot be obtained: " + reason))
        << r.err;
}

// Output that cannot be written fails the command.
TEST_F(ShmrmctlCli, AFullDeviceFailsTheCommand) {
    for (const char* command : {"status", "status --json", "--help", "dump -"}) {
        const Result r =
            vextest::run({"/bin/sh", "-c", std::string("exec \"$0\" ") + command + " > /dev/full",
                          SHMRMCTL_EXE});
        EXPECT_EQ(r.status, 1) << command;
        EXPECT_TRUE(contains(r.err, "writing standard output: No space left on device"))
            << command << "\n"
            << r.err;
    }
}
#endif

}  // namespace
