#include "vexxml.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>

#include "support/sandbox.h"

namespace {

constexpr std::int32_t kUntouched = 0x5A5A5A5A;
constexpr const char* kLevel = "/root/shmrm/log/level";

class XmlTest : public testing::Test {
  protected:
    void TearDown() override { vex::xmllib_term(); }

    // init, load_config, load_policy: the first failure, or 0.
    static int start(const char* policy) {
        if (int r = vex::xmllib_init("shmrm"); r != 0) return r;
        if (int r = vex::xmllib_load_config(0); r != 0) return r;
        return vex::xmllib_load_policy(policy);
    }

    // Reads key; *value keeps kUntouched unless the read succeeds.
    static int get(const char* key, std::int32_t* value) {
        int len = 4;
        *value = kUntouched;
        return vex::xmllib_get_value(key, vex::kXmlTypeInt32, value, &len);
    }

    // Each row reads its key; a value is written only on success.
    struct Read {
        const char* name;
        const char* key;
        int expected;
        std::int32_t value;
    };
    static void expect_reads(std::initializer_list<Read> rows) {
        for (const Read& r : rows) {
            SCOPED_TRACE(r.name);
            std::int32_t value = 0;
            EXPECT_EQ(get(r.key, &value), r.expected);
            EXPECT_EQ(value, r.expected == 0 ? r.value : kUntouched);
        }
    }

    vextest::Sandbox sandbox_;
};

TEST_F(XmlTest, LoadConfigReportsTheStateOfTheFile) {
    const std::string file = sandbox_.path() + "/etc/vex.xml";
    struct Case {
        const char* name;
        const char* xml;  // nullptr: no file; "/": a directory in its place
        int expected;
    };
    const Case cases[] = {
        {"Missing", nullptr, vex::kXmlNoFile},
        {"Directory", "/", vex::kXmlNoFile},
        {"Empty", "", vex::kXmlMalformed},
        {"PlainText", "level 4", vex::kXmlMalformed},
        {"Unclosed", "<root><shmrm><log></shmrm></root>", vex::kXmlMalformed},
        {"TwoRoots", "<root/><root/>", vex::kXmlMalformed},
        {"TextBesideRoot", "<root/>junk", vex::kXmlMalformed},
        {"CdataBesideRoot", "<![CDATA[x]]><root/>", vex::kXmlMalformed},
        {"Truncated", "<root><all><num><group>1", vex::kXmlMalformed},
        {"DeclarationAndComments", "<?xml version=\"1.0\"?>\n<!-- a -->\n<root/>\n<!-- b -->\n", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove(file);
        if (c.xml != nullptr && std::strcmp(c.xml, "/") == 0) {
            std::filesystem::create_directory(file);
        } else if (c.xml != nullptr) {
            sandbox_.write_config(c.xml);
        }
        ASSERT_EQ(vex::xmllib_init("shmrm"), 0);
        EXPECT_EQ(vex::xmllib_load_config(0), c.expected);
        if (c.expected != 0) {  // nothing was loaded, yet term succeeds
            EXPECT_EQ(vex::xmllib_load_policy("shmrm"), vex::kXmlNotStarted);
            EXPECT_EQ(vex::xmllib_unload_config(), vex::kXmlNotStarted);
        }
        EXPECT_EQ(vex::xmllib_term(), 0);
    }
    vextest::set_env("VEX_INSTALL_PATH", sandbox_.path() + "/nowhere");
    ASSERT_EQ(vex::xmllib_init("shmrm"), 0);
    EXPECT_EQ(vex::xmllib_load_config(0), vex::kXmlNoInstallPath);
}

TEST_F(XmlTest, PoliciesAreOnlyChildrenOfRoot) {
    const char* kPolicies = "<root><all><num/></all><shmrm/><x.y/></root>";
    const struct {
        const char* xml;
        const char* policy;
        int expected;
    } cases[] = {
        {kPolicies, "all", 0},
        {kPolicies, "shmrm", 0},
        {kPolicies, "x.y", 0},
        {kPolicies, "other", vex::kXmlNoPolicy},
        {kPolicies, "num", vex::kXmlNoPolicy},
        {kPolicies, "all/num", vex::kXmlNoPolicy},
        {kPolicies, "", vex::kXmlNoPolicy},
        {kPolicies, "ALL", vex::kXmlNoPolicy},
        {"<top><all/></top>", "all", vex::kXmlNoPolicy},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.policy);
        sandbox_.write_config(c.xml);
        EXPECT_EQ(start(c.policy), c.expected);
        vex::xmllib_term();
    }
}

TEST_F(XmlTest, ValueTextMustBeAWholeInt32) {
    const struct {
        const char* text;
        int expected;
        std::int32_t value;
    } cases[] = {
        {"2147483647", 0, INT32_MAX},
        {"-2147483648", 0, INT32_MIN},
        {" \n\t +0010 \r\n ", 0, 10},
        {"<![CDATA[ 42 ]]>", 0, 42},
        {"&#13;7&#13;", 0, 7},  // a carriage return that line-end handling leaves in place
        {"2147483648", vex::kXmlBadValue, 0},
        {"-2147483649", vex::kXmlBadValue, 0},
        {"99999999999999999999", vex::kXmlBadValue, 0},
        {"", vex::kXmlBadValue, 0},
        {"  \n ", vex::kXmlBadValue, 0},
        {"4x", vex::kXmlBadValue, 0},
        {"seven", vex::kXmlBadValue, 0},
        {"4 5", vex::kXmlBadValue, 0},
        {"0x10", vex::kXmlBadValue, 0},
        {"-", vex::kXmlBadValue, 0},
        {"+-1", vex::kXmlBadValue, 0},
        {"- 1", vex::kXmlBadValue, 0},
        {"<w>4</w>", vex::kXmlBadValue, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        sandbox_.write_config(std::string("<root><shmrm><v>") + c.text + "</v></shmrm></root>");
        ASSERT_EQ(start("shmrm"), 0);
        expect_reads({{"v", "/root/shmrm/v", c.expected, c.value}});
        vex::xmllib_term();
    }
}

TEST_F(XmlTest, KeyResolvesOnlyInsideALoadedPolicy) {
    sandbox_.write_config(
        "<root><all><num><group>7</group></num></all>"
        "<shmrm><log><level>16</level></log></shmrm></root>");
    ASSERT_EQ(start("shmrm"), 0);
    expect_reads({
        {"Level", kLevel, 0, 16},
        {"MissingLeaf", "/root/shmrm/log/nosuch", vex::kXmlNoKey, 0},
        {"TooDeep", "/root/shmrm/log/level/x", vex::kXmlNoKey, 0},
        {"PolicyNotLoaded", "/root/all/num/group", vex::kXmlNoPolicy, 0},
        {"NoSuchPolicy", "/root/other/log/level", vex::kXmlNoPolicy, 0},
        {"EscapesPolicy", "/root/shmrm/../all/num/group", vex::kXmlNoKey, 0},
        {"Relative", "root/shmrm/log/level", vex::kXmlNoKey, 0},
        {"OtherRoot", "/top/shmrm/log/level", vex::kXmlNoKey, 0},
        {"TrailingSlash", "/root/shmrm/log/level/", vex::kXmlNoKey, 0},
        {"DoubleSlash", "/root/shmrm//log/level", vex::kXmlNoKey, 0},
        {"NotANumber", "/root/shmrm/log", vex::kXmlBadValue, 0},
    });
}

TEST_F(XmlTest, BadArgumentsWriteNothing) {
    ASSERT_EQ(start("shmrm"), 0);
    const struct {
        const char* key;
        int type, len;
        bool null_value, null_len;
    } cases[] = {
        {kLevel, vex::kXmlTypeInt32, 3, false, false},
        {kLevel, vex::kXmlTypeInt32, 0, false, false},
        {kLevel, vex::kXmlTypeInt32, -4, false, false},
        {kLevel, 0, 4, false, false},
        {kLevel, 2, 4, false, false},
        {nullptr, vex::kXmlTypeInt32, 4, false, false},
        {kLevel, vex::kXmlTypeInt32, 4, true, false},
        {kLevel, vex::kXmlTypeInt32, 4, false, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "row " << (&c - cases));
        std::int32_t value = kUntouched;
        int len = c.len;
        EXPECT_EQ(vex::xmllib_get_value(c.key, c.type, c.null_value ? nullptr : &value,
                                        c.null_len ? nullptr : &len),
                  vex::kXmlBadArgument);
        EXPECT_EQ(value, kUntouched);
        EXPECT_EQ(len, c.len);
    }
    EXPECT_EQ(vex::xmllib_init(nullptr), vex::kXmlBadArgument);
    EXPECT_EQ(vex::xmllib_load_config(1), vex::kXmlBadArgument);
    EXPECT_EQ(vex::xmllib_load_policy(nullptr), vex::kXmlBadArgument);
    EXPECT_EQ(vex::xmllib_unload_policy(nullptr), vex::kXmlBadArgument);

    // A larger buffer gets four bytes and no more.
    unsigned char buf[8];
    std::memset(buf, 0xEE, sizeof(buf));
    int len = sizeof(buf);
    ASSERT_EQ(vex::xmllib_get_value(kLevel, vex::kXmlTypeInt32, buf, &len), 0);
    EXPECT_EQ(len, 4);
    std::int32_t value = 0;
    std::memcpy(&value, buf, sizeof(value));
    EXPECT_EQ(value, 4);
    for (int i = 4; i < 8; ++i)
        EXPECT_EQ(buf[i], 0xEE) << i;
}

TEST_F(XmlTest, EachStepNeedsThePreviousOne) {
    EXPECT_EQ(vex::xmllib_load_config(0), vex::kXmlNotStarted);
    EXPECT_EQ(vex::xmllib_load_policy("shmrm"), vex::kXmlNotStarted);
    EXPECT_EQ(vex::xmllib_unload_policy("shmrm"), vex::kXmlNotStarted);
    EXPECT_EQ(vex::xmllib_unload_config(), vex::kXmlNotStarted);
    EXPECT_EQ(vex::xmllib_term(), vex::kXmlNotStarted);
    expect_reads({{"BeforeInit", kLevel, vex::kXmlNotStarted, 0}});

    ASSERT_EQ(vex::xmllib_init("shmrm"), 0);
    EXPECT_EQ(vex::xmllib_load_policy("shmrm"), vex::kXmlNotStarted);
    expect_reads({{"BeforeConfig", kLevel, vex::kXmlNotStarted, 0}});

    ASSERT_EQ(vex::xmllib_load_config(0), 0);
    EXPECT_EQ(vex::xmllib_unload_policy("shmrm"), vex::kXmlNoPolicy);
    expect_reads({{"BeforePolicy", kLevel, vex::kXmlNoPolicy, 0}});
    ASSERT_EQ(vex::xmllib_load_policy("shmrm"), 0);
    EXPECT_EQ(vex::xmllib_load_policy("shmrm"), 0);  // loading it again is harmless
    expect_reads({{"Loaded", kLevel, 0, 4}});
    ASSERT_EQ(vex::xmllib_unload_policy("shmrm"), 0);
    EXPECT_EQ(vex::xmllib_unload_policy("shmrm"), vex::kXmlNoPolicy);
    expect_reads({{"Unloaded", kLevel, vex::kXmlNoPolicy, 0}});
}

TEST_F(XmlTest, PoliciesUnloadOneByOneOrAllWithTheConfig) {
    sandbox_.configure({64, 8, 32}, 16, 2000);
    ASSERT_EQ(start("all"), 0);
    ASSERT_EQ(vex::xmllib_load_policy("shmrm"), 0);
    expect_reads(
        {{"All", "/root/all/num/resource", 0, 8}, {"Shmrm", "/root/shmrm/log/size", 0, 2000}});
    ASSERT_EQ(vex::xmllib_unload_policy("all"), 0);
    expect_reads({{"AllGone", "/root/all/num/resource", vex::kXmlNoPolicy, 0},
                  {"ShmrmKept", kLevel, 0, 16}});

    ASSERT_EQ(vex::xmllib_load_policy("all"), 0);
    ASSERT_EQ(vex::xmllib_unload_config(), 0);
    EXPECT_EQ(vex::xmllib_unload_policy("all"), vex::kXmlNotStarted);
    EXPECT_EQ(vex::xmllib_unload_config(), vex::kXmlNotStarted);
    expect_reads({{"NoConfig", kLevel, vex::kXmlNotStarted, 0}});
    // Loading again starts with no policy loaded.
    ASSERT_EQ(vex::xmllib_load_config(0), 0);
    expect_reads({{"Reloaded", kLevel, vex::kXmlNoPolicy, 0}});
}

TEST_F(XmlTest, TermStopsUntilInitAgain) {
    ASSERT_EQ(start("shmrm"), 0);
    ASSERT_EQ(vex::xmllib_term(), 0);
    EXPECT_EQ(vex::xmllib_load_config(0), vex::kXmlNotStarted);
    EXPECT_EQ(vex::xmllib_term(), vex::kXmlNotStarted);
    expect_reads({{"AfterTerm", kLevel, vex::kXmlNotStarted, 0}});

    // A new start sees the file as it is now, with nothing carried over.
    sandbox_.configure({}, 32);
    ASSERT_EQ(vex::xmllib_init("shmrm"), 0);
    ASSERT_EQ(vex::xmllib_load_config(0), 0);
    expect_reads({{"NoPolicyYet", kLevel, vex::kXmlNoPolicy, 0}});
    ASSERT_EQ(vex::xmllib_load_policy("shmrm"), 0);
    expect_reads({{"NewFile", kLevel, 0, 32}});
}

}  // namespace
