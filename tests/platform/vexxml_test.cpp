#include "vexxml.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>

#include "support/sandbox.h"

namespace {

using vextest::Sandbox;

constexpr std::int32_t kUntouched = 0x5A5A5A5A;

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
    static int get(const char* key, std::int32_t* value, int len = 4) {
        *value = kUntouched;
        return vex::xmllib_get_value(key, vex::kXmlTypeInt32, value, &len);
    }

    Sandbox sandbox_;
};

// ---- The configuration file -------------------------------------------------------------

struct ConfigCase {
    const char* name;
    const char* xml;  // nullptr: no file at all
    int expected;
};

class XmlConfigTest : public XmlTest, public testing::WithParamInterface<ConfigCase> {};

TEST_P(XmlConfigTest, LoadReportsTheStateOfTheFile) {
    const ConfigCase& c = GetParam();
    const std::string file = sandbox_.path() + "/etc/vex.xml";
    if (c.xml == nullptr) {
        std::filesystem::remove(file);
    } else {
        sandbox_.write_config(c.xml);
    }
    ASSERT_EQ(vex::xmllib_init("shmrm"), 0);
    EXPECT_EQ(vex::xmllib_load_config(0), c.expected);
    if (c.expected != 0) {
        // Nothing was loaded: policies cannot be loaded either.
        EXPECT_EQ(vex::xmllib_load_policy("shmrm"), vex::kXmlNotStarted);
        EXPECT_EQ(vex::xmllib_unload_config(), vex::kXmlNotStarted);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Files, XmlConfigTest,
    testing::Values(ConfigCase{"Missing", nullptr, vex::kXmlNoFile},
                    ConfigCase{"Empty", "", vex::kXmlMalformed},
                    ConfigCase{"PlainText", "level 4", vex::kXmlMalformed},
                    ConfigCase{"Unclosed", "<root><shmrm><log></shmrm></root>", vex::kXmlMalformed},
                    ConfigCase{"TwoRoots", "<root/><root/>", vex::kXmlMalformed},
                    ConfigCase{"TextBesideRoot", "<root/>junk", vex::kXmlMalformed},
                    ConfigCase{"CdataBesideRoot", "<![CDATA[x]]><root/>", vex::kXmlMalformed},
                    ConfigCase{"Truncated", "<root><all><num><group>1", vex::kXmlMalformed},
                    ConfigCase{"WellFormed", "<root><shmrm/></root>", 0},
                    ConfigCase{"WithDeclaration", "<?xml version=\"1.0\"?>\n<root/>", 0},
                    ConfigCase{"WithComments", "<!-- node -->\n<root/>\n<!-- end -->\n", 0}),
    [](const auto& p) { return std::string(p.param.name); });

TEST_F(XmlTest, ConfigThatIsADirectoryIsUnreadable) {
    const std::string file = sandbox_.path() + "/etc/vex.xml";
    std::filesystem::remove(file);
    std::filesystem::create_directory(file);
    ASSERT_EQ(vex::xmllib_init("shmrm"), 0);
    EXPECT_EQ(vex::xmllib_load_config(0), vex::kXmlNoFile);
}

TEST_F(XmlTest, MissingInstallPathFailsTheLoad) {
    vextest::set_env("VEX_INSTALL_PATH", sandbox_.path() + "/nowhere");
    ASSERT_EQ(vex::xmllib_init("shmrm"), 0);
    EXPECT_EQ(vex::xmllib_load_config(0), vex::kXmlNoInstallPath);
}

// ---- Policies ---------------------------------------------------------------------------

struct PolicyCase {
    const char* name;
    const char* xml;
    const char* policy;
    int expected;
};

class XmlPolicyTest : public XmlTest, public testing::WithParamInterface<PolicyCase> {};

TEST_P(XmlPolicyTest, LoadFindsOnlyChildrenOfRoot) {
    const PolicyCase& c = GetParam();
    sandbox_.write_config(c.xml);
    ASSERT_EQ(vex::xmllib_init("shmrm"), 0);
    ASSERT_EQ(vex::xmllib_load_config(0), 0);
    EXPECT_EQ(vex::xmllib_load_policy(c.policy), c.expected);
}

constexpr const char* kPolicies = "<root><all><num/></all><shmrm/><x.y/></root>";

INSTANTIATE_TEST_SUITE_P(
    Names, XmlPolicyTest,
    testing::Values(PolicyCase{"Present", kPolicies, "all", 0},
                    PolicyCase{"EmptyElement", kPolicies, "shmrm", 0},
                    PolicyCase{"Dotted", kPolicies, "x.y", 0},
                    PolicyCase{"Absent", kPolicies, "other", vex::kXmlNoPolicy},
                    PolicyCase{"Grandchild", kPolicies, "num", vex::kXmlNoPolicy},
                    PolicyCase{"Path", kPolicies, "all/num", vex::kXmlNoPolicy},
                    PolicyCase{"Empty", kPolicies, "", vex::kXmlNoPolicy},
                    PolicyCase{"CaseDiffers", kPolicies, "ALL", vex::kXmlNoPolicy},
                    PolicyCase{"RootNotNamedRoot", "<top><all/></top>", "all", vex::kXmlNoPolicy}),
    [](const auto& p) { return std::string(p.param.name); });

// ---- Values -----------------------------------------------------------------------------

struct ValueCase {
    const char* name;
    const char* text;  // the content of /root/shmrm/v
    int expected;
    std::int32_t value;
};

class XmlValueTest : public XmlTest, public testing::WithParamInterface<ValueCase> {};

TEST_P(XmlValueTest, TextMustBeAWholeInt32) {
    const ValueCase& c = GetParam();
    sandbox_.write_config(std::string("<root><shmrm><v>") + c.text + "</v></shmrm></root>");
    ASSERT_EQ(start("shmrm"), 0);
    std::int32_t value = 0;
    EXPECT_EQ(get("/root/shmrm/v", &value), c.expected);
    EXPECT_EQ(value, c.expected == 0 ? c.value : kUntouched);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, XmlValueTest,
    testing::Values(ValueCase{"Plain", "4", 0, 4}, ValueCase{"Zero", "0", 0, 0},
                    ValueCase{"LeadingZeros", "0010", 0, 10}, ValueCase{"Plus", "+7", 0, 7},
                    ValueCase{"Minus", "-12", 0, -12}, ValueCase{"Max", "2147483647", 0, INT32_MAX},
                    ValueCase{"Min", "-2147483648", 0, INT32_MIN},
                    ValueCase{"SurroundingWhitespace", " \n\t 1000000 \r\n ", 0, 1000000},
                    ValueCase{"Cdata", "<![CDATA[ 42 ]]>", 0, 42},
                    ValueCase{"AboveMax", "2147483648", vex::kXmlBadValue, 0},
                    ValueCase{"BelowMin", "-2147483649", vex::kXmlBadValue, 0},
                    ValueCase{"Huge", "99999999999999999999", vex::kXmlBadValue, 0},
                    ValueCase{"Empty", "", vex::kXmlBadValue, 0},
                    ValueCase{"OnlyWhitespace", "  \n ", vex::kXmlBadValue, 0},
                    ValueCase{"Word", "four", vex::kXmlBadValue, 0},
                    ValueCase{"TrailingGarbage", "4x", vex::kXmlBadValue, 0},
                    ValueCase{"TwoNumbers", "4 5", vex::kXmlBadValue, 0},
                    ValueCase{"Hex", "0x10", vex::kXmlBadValue, 0},
                    ValueCase{"Fraction", "1.5", vex::kXmlBadValue, 0},
                    ValueCase{"Exponent", "1e3", vex::kXmlBadValue, 0},
                    ValueCase{"SignOnly", "-", vex::kXmlBadValue, 0},
                    ValueCase{"PlusMinus", "+-1", vex::kXmlBadValue, 0},
                    ValueCase{"MinusMinus", "--1", vex::kXmlBadValue, 0},
                    ValueCase{"MinusPlus", "-+1", vex::kXmlBadValue, 0},
                    ValueCase{"SpaceAfterSign", "- 1", vex::kXmlBadValue, 0},
                    ValueCase{"ChildElementsOnly", "<w>4</w>", vex::kXmlBadValue, 0}),
    [](const auto& p) { return std::string(p.param.name); });

// ---- Keys -------------------------------------------------------------------------------

struct KeyCase {
    const char* name;
    const char* key;
    int expected;
    std::int32_t value;
};

class XmlKeyTest : public XmlTest, public testing::WithParamInterface<KeyCase> {};

TEST_P(XmlKeyTest, KeyResolvesOnlyInsideALoadedPolicy) {
    const KeyCase& c = GetParam();
    sandbox_.write_config(
        "<root><all><num><group>7</group></num></all>"
        "<shmrm><log><level>16</level><size> 500 </size></log></shmrm></root>");
    ASSERT_EQ(start("shmrm"), 0);
    std::int32_t value = 0;
    EXPECT_EQ(get(c.key, &value), c.expected);
    EXPECT_EQ(value, c.expected == 0 ? c.value : kUntouched);
}

INSTANTIATE_TEST_SUITE_P(
    Paths, XmlKeyTest,
    testing::Values(KeyCase{"Level", "/root/shmrm/log/level", 0, 16},
                    KeyCase{"Size", "/root/shmrm/log/size", 0, 500},
                    KeyCase{"MissingLeaf", "/root/shmrm/log/nosuch", vex::kXmlNoKey, 0},
                    KeyCase{"MissingBranch", "/root/shmrm/nosuch/level", vex::kXmlNoKey, 0},
                    KeyCase{"TooDeep", "/root/shmrm/log/level/x", vex::kXmlNoKey, 0},
                    KeyCase{"PolicyNotLoaded", "/root/all/num/group", vex::kXmlNoPolicy, 0},
                    KeyCase{"NoSuchPolicy", "/root/other/log/level", vex::kXmlNoPolicy, 0},
                    KeyCase{"EscapesPolicy", "/root/shmrm/../all/num/group", vex::kXmlNoKey, 0},
                    KeyCase{"Relative", "root/shmrm/log/level", vex::kXmlNoKey, 0},
                    KeyCase{"OtherRoot", "/top/shmrm/log/level", vex::kXmlNoKey, 0},
                    KeyCase{"RootOnly", "/root", vex::kXmlNoKey, 0},
                    KeyCase{"TrailingSlash", "/root/shmrm/log/level/", vex::kXmlNoKey, 0},
                    KeyCase{"DoubleSlash", "/root/shmrm//log/level", vex::kXmlNoKey, 0},
                    KeyCase{"Empty", "", vex::kXmlNoKey, 0},
                    KeyCase{"NotANumber", "/root/shmrm/log", vex::kXmlBadValue, 0}),
    [](const auto& p) { return std::string(p.param.name); });

// ---- Arguments --------------------------------------------------------------------------

TEST_F(XmlTest, BadArgumentsWriteNothing) {
    ASSERT_EQ(start("shmrm"), 0);
    const char* key = "/root/shmrm/log/level";
    struct Case {
        const char* name;
        const char* key;
        int type;
        bool null_value;
        bool null_len;
        int len;
    };
    const Case cases[] = {
        {"LengthThree", key, vex::kXmlTypeInt32, false, false, 3},
        {"LengthZero", key, vex::kXmlTypeInt32, false, false, 0},
        {"LengthNegative", key, vex::kXmlTypeInt32, false, false, -4},
        {"TypeZero", key, 0, false, false, 4},
        {"TypeTwo", key, 2, false, false, 4},
        {"NullKey", nullptr, vex::kXmlTypeInt32, false, false, 4},
        {"NullValue", key, vex::kXmlTypeInt32, true, false, 4},
        {"NullLength", key, vex::kXmlTypeInt32, false, true, 4},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::int32_t value = kUntouched;
        int len = c.len;
        EXPECT_EQ(vex::xmllib_get_value(c.key, c.type, c.null_value ? nullptr : &value,
                                        c.null_len ? nullptr : &len),
                  vex::kXmlBadArgument);
        EXPECT_EQ(value, kUntouched);
        EXPECT_EQ(len, c.len);
    }
    EXPECT_EQ(vex::xmllib_init(nullptr), vex::kXmlBadArgument);
    EXPECT_EQ(vex::xmllib_load_policy(nullptr), vex::kXmlBadArgument);
    EXPECT_EQ(vex::xmllib_unload_policy(nullptr), vex::kXmlBadArgument);
}

TEST_F(XmlTest, LargerBufferGetsFourBytes) {
    sandbox_.configure({}, -3);
    ASSERT_EQ(start("shmrm"), 0);
    unsigned char buf[8];
    std::memset(buf, 0xEE, sizeof(buf));
    int len = sizeof(buf);
    ASSERT_EQ(vex::xmllib_get_value("/root/shmrm/log/level", vex::kXmlTypeInt32, buf, &len), 0);
    EXPECT_EQ(len, 4);
    std::int32_t value = 0;
    std::memcpy(&value, buf, sizeof(value));
    EXPECT_EQ(value, -3);
    for (int i = 4; i < 8; ++i)
        EXPECT_EQ(buf[i], 0xEE) << i;
}

// ---- Order of calls ---------------------------------------------------------------------

TEST_F(XmlTest, NothingWorksBeforeInit) {
    std::int32_t value = 0;
    EXPECT_EQ(vex::xmllib_load_config(0), vex::kXmlNotStarted);
    EXPECT_EQ(vex::xmllib_load_policy("shmrm"), vex::kXmlNotStarted);
    EXPECT_EQ(get("/root/shmrm/log/level", &value), vex::kXmlNotStarted);
    EXPECT_EQ(vex::xmllib_unload_policy("shmrm"), vex::kXmlNotStarted);
    EXPECT_EQ(vex::xmllib_unload_config(), vex::kXmlNotStarted);
    EXPECT_EQ(vex::xmllib_term(), vex::kXmlNotStarted);
}

TEST_F(XmlTest, PolicyNeedsTheConfiguration) {
    ASSERT_EQ(vex::xmllib_init("shmrm"), 0);
    std::int32_t value = 0;
    EXPECT_EQ(vex::xmllib_load_policy("shmrm"), vex::kXmlNotStarted);
    EXPECT_EQ(get("/root/shmrm/log/level", &value), vex::kXmlNotStarted);
    EXPECT_EQ(value, kUntouched);
}

TEST_F(XmlTest, ValuesNeedTheirPolicyLoaded) {
    ASSERT_EQ(vex::xmllib_init("shmrm"), 0);
    ASSERT_EQ(vex::xmllib_load_config(0), 0);
    std::int32_t value = 0;
    EXPECT_EQ(get("/root/shmrm/log/level", &value), vex::kXmlNoPolicy);
    EXPECT_EQ(vex::xmllib_unload_policy("shmrm"), vex::kXmlNoPolicy);

    ASSERT_EQ(vex::xmllib_load_policy("shmrm"), 0);
    EXPECT_EQ(vex::xmllib_load_policy("shmrm"), 0);  // loading it again is harmless
    EXPECT_EQ(get("/root/shmrm/log/level", &value), 0);
    EXPECT_EQ(value, 4);

    ASSERT_EQ(vex::xmllib_unload_policy("shmrm"), 0);
    EXPECT_EQ(get("/root/shmrm/log/level", &value), vex::kXmlNoPolicy);
    EXPECT_EQ(vex::xmllib_unload_policy("shmrm"), vex::kXmlNoPolicy);
}

TEST_F(XmlTest, SeveralPoliciesAtOnce) {
    sandbox_.configure({64, 8, 32}, 16, 2000);
    ASSERT_EQ(start("all"), 0);
    ASSERT_EQ(vex::xmllib_load_policy("shmrm"), 0);
    std::int32_t value = 0;
    EXPECT_EQ(get("/root/all/num/resource", &value), 0);
    EXPECT_EQ(value, 8);
    EXPECT_EQ(get("/root/shmrm/log/size", &value), 0);
    EXPECT_EQ(value, 2000);

    ASSERT_EQ(vex::xmllib_unload_policy("all"), 0);
    EXPECT_EQ(get("/root/all/num/resource", &value), vex::kXmlNoPolicy);
    EXPECT_EQ(get("/root/shmrm/log/level", &value), 0);
    EXPECT_EQ(value, 16);
}

TEST_F(XmlTest, UnloadConfigDropsEveryPolicy) {
    ASSERT_EQ(start("all"), 0);
    ASSERT_EQ(vex::xmllib_load_policy("shmrm"), 0);
    ASSERT_EQ(vex::xmllib_unload_config(), 0);
    std::int32_t value = 0;
    EXPECT_EQ(get("/root/shmrm/log/level", &value), vex::kXmlNotStarted);
    EXPECT_EQ(vex::xmllib_unload_policy("all"), vex::kXmlNotStarted);
    EXPECT_EQ(vex::xmllib_unload_config(), vex::kXmlNotStarted);

    // Loading again starts with no policy loaded.
    ASSERT_EQ(vex::xmllib_load_config(0), 0);
    EXPECT_EQ(get("/root/shmrm/log/level", &value), vex::kXmlNoPolicy);
}

TEST_F(XmlTest, TermStopsUntilInitAgain) {
    ASSERT_EQ(start("shmrm"), 0);
    ASSERT_EQ(vex::xmllib_term(), 0);
    std::int32_t value = 0;
    EXPECT_EQ(get("/root/shmrm/log/level", &value), vex::kXmlNotStarted);
    EXPECT_EQ(vex::xmllib_load_config(0), vex::kXmlNotStarted);
    EXPECT_EQ(vex::xmllib_term(), vex::kXmlNotStarted);

    // A new start sees the file as it is now, with nothing carried over.
    sandbox_.configure({}, 32);
    ASSERT_EQ(vex::xmllib_init("shmrm"), 0);
    ASSERT_EQ(vex::xmllib_load_config(0), 0);
    EXPECT_EQ(get("/root/shmrm/log/level", &value), vex::kXmlNoPolicy);
    ASSERT_EQ(vex::xmllib_load_policy("shmrm"), 0);
    EXPECT_EQ(get("/root/shmrm/log/level", &value), 0);
    EXPECT_EQ(value, 32);
}

TEST_F(XmlTest, TermAfterFailedLoadSucceeds) {
    sandbox_.write_config("<root>");
    ASSERT_EQ(vex::xmllib_init("shmrm"), 0);
    ASSERT_EQ(vex::xmllib_load_config(0), vex::kXmlMalformed);
    EXPECT_EQ(vex::xmllib_term(), 0);
}

}  // namespace
