// The region lifecycle through the import seam: every failure of create and attach, the
// configuration they read, the attach count, release and clear.
#include <cstring>
#include <memory>
#include <ostream>
#include <tuple>

#include "table_fixture.h"

namespace {

using namespace vextest;
using Strings = std::vector<std::string>;

constexpr int kDefaultSize = 1907384;  // 128 groups of 16 resources, 128 monitors

std::vector<int> maxvalues() {
    std::vector<int> caps(3, -7);
    EXPECT_EQ(shmrm_getmaxvalue(&caps[0], &caps[1], &caps[2]), SHMRM_OK);
    return caps;
}

bool mapped() {
    int size = 0;
    return shmrm_dump(nullptr, &size) == SHMRM_OK;
}

// The mapping as another process of the node would hold it.
using Held = std::unique_ptr<void, bool (*)(void*)>;
Held hold_region() {
    return Held(shmrm::kSystemImports.VexutilCreateNamedFileMapping(-1, 4, 0, kDefaultSize,
                                                                    shmrm::kMapName),
                shmrm::kSystemImports.close_handle);
}

class LifecycleTest : public testing::Test {
  protected:
    void SetUp() override { sandbox_.configure(vextest::kDefaultCapacities, 32); }
    void TearDown() override {
        while (shmrm::region() != nullptr)
            (shmrm::state.create_handle ? shmrm_delete : shmrm_detach)();
        shmrm::state.attach_count = 0;
        shmrm::log_close();
        vex::xmllib_term();
    }
    Strings errors() const { return fake_.texts(SHMRM_LOG_ERROR); }

    Sandbox sandbox_;
    FakeImports fake_;
};

struct Export {
    const char* name;
    int (*fn)();
    const char* tag;
};
constexpr Export kCreate{"Create", shmrm_create, "_create"};
constexpr Export kAttach{"Attach", shmrm_attach, "_attach"};

const Strings bad_caps = {"shmrm_loadinfo() failed(ret:2)"};

struct FailureRow {
    std::string name;
    Export op;
    const char* failing;  // the import that fails, if any
    Capacities caps;
    int result;
    Strings errors;  // the level-1 lines, in order
    int level = 32;  // of the log
};

void PrintTo(const FailureRow& row, std::ostream* out) {
    *out << row.name << row.op.name;
}

std::vector<FailureRow> failure_rows() {
    const Capacities ok = vextest::kDefaultCapacities;
    const char* create_failed = "VexutilCreateNamedFileMapping failed(errno:5)";
    std::vector<FailureRow> rows;
    for (const Export& op : {kCreate, kAttach}) {
        // clang-format off
        rows.insert(rows.end(), {
            {"XmlInit", op, "xmllib_init", ok, SHMRM_ERR_XMLINIT, {}},
            {"XmlConfig", op, "xmllib_load_config", ok, SHMRM_ERR_XMLCONFIG, {}},
            {"InstallPath", op, "VexutilGetInstallPath", ok, SHMRM_ERR_LOADINFO,
             {"VexutilGetInstallPath() failed.", "shmrm_loadinfo() failed(ret:16)"}},
            {"ZeroGroups", op, nullptr, {0, 16, 128}, SHMRM_ERR_LOADINFO, bad_caps},
            {"NegativeResources", op, nullptr, {128, -1, 128}, SHMRM_ERR_LOADINFO, bad_caps},
            {"ZeroMonitors", op, nullptr, {128, 16, 0}, SHMRM_ERR_LOADINFO, bad_caps},
            {"RegionOf2GiB", op, nullptr, {1, 1, 5212336}, SHMRM_ERR_LOADINFO, bad_caps},
            {"RegionPast32Bits", op, nullptr, {1 << 30, 16, 1}, SHMRM_ERR_LOADINFO, bad_caps},
        });
    }
    rows.insert(rows.end(), {
        {"CreateMapping", kCreate, "VexutilCreateNamedFileMapping", ok, SHMRM_ERR_CREATEMAP,
         Strings(6, create_failed)},
        {"MapView", kCreate, "map_view", ok, SHMRM_ERR_MAPVIEW, {"MapViewOfFile failed(errno:5)"}},
        {"MapView", kAttach, "map_view", ok, SHMRM_ERR_MAPVIEW, {"MapViewOfFile() failed(errno:5)"}},
        {"NoRegion", kAttach, nullptr, ok, SHMRM_ERR_OPENMAP,
         {"VexutilOpenNamedFileMapping() failed(errno:2)"}},
    });
    // clang-format on
    // Each again with the log at level 0: nothing is traced, and the unwinding is the same.
    const std::size_t traced = rows.size();
    for (std::size_t i = 0; i < traced; ++i) {
        FailureRow quiet = rows[i];
        quiet.name += "Quiet";
        quiet.errors.clear();
        quiet.level = 0;
        rows.push_back(quiet);
    }
    return rows;
}

class LifecycleFailure : public LifecycleTest, public testing::WithParamInterface<FailureRow> {};

TEST_P(LifecycleFailure, LeavesTheProcessUnmapped) {
    const FailureRow& row = GetParam();
    Held other = row.result == SHMRM_ERR_OPENMAP ? Held(nullptr, nullptr) : hold_region();
    sandbox_.configure(row.caps, row.level);
    if (row.failing != nullptr) fake_.fail(row.failing, -1, 5);
    shmrm::state.attach_count = 3;

    EXPECT_EQ(row.op.fn(), row.result);
    Strings errors = fake_.texts(SHMRM_LOG_ERROR);
    if (row.errors == bad_caps && !errors.empty()) errors.erase(errors.begin());  // its reason
    EXPECT_EQ(errors, row.errors);
    EXPECT_EQ(fake_.pauses, std::vector<unsigned>(row.result == SHMRM_ERR_CREATEMAP ? 5 : 0, 1000));
    EXPECT_LE(std::ranges::count(fake_.calls, "VexutilOpenNamedFileMapping(oru_vexshmrm_map)"), 1);
    EXPECT_FALSE(mapped());
    EXPECT_EQ(shmrm::state.attach_count, 3);
    EXPECT_EQ(shmrm::state.log.load(), nullptr);
    EXPECT_EQ(fake_.open_handles(), 0);
    const Strings xml = fake_.xml_calls();
    if (row.result == SHMRM_ERR_XMLINIT || row.result == SHMRM_ERR_XMLCONFIG) {
        EXPECT_EQ(fake_.log_opens, 0);
        EXPECT_TRUE(fake_.lines.empty());
        Strings expected = {"xmllib_init(shmrm)", "xmllib_load_config", "xmllib_term"};
        if (row.result == SHMRM_ERR_XMLINIT) expected.resize(1);
        EXPECT_EQ(xml, expected);
        return;
    }
    EXPECT_EQ(fake_.log_closes, 1);
    ASSERT_GE(xml.size(), 2u);  // the XML library is always released
    EXPECT_EQ(Strings(xml.end() - 2, xml.end()), (Strings{"xmllib_unload_config", "xmllib_term"}));
    if (row.level == 0) {
        EXPECT_TRUE(fake_.lines.empty());
    } else {
        ASSERT_FALSE(fake_.lines.empty());
        EXPECT_EQ(fake_.lines.back(),
                  (TraceLine{SHMRM_LOG_FUNC, row.op.tag, exit_line(row.result)}));
    }
    if (row.result == SHMRM_ERR_CREATEMAP) {  // the size stays computed
        EXPECT_EQ(shmrm::state.region_size.load(), kDefaultSize);
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, LifecycleFailure, testing::ValuesIn(failure_rows()),
                         [](const testing::TestParamInfo<FailureRow>& row) {
                             return row.param.name + row.param.op.name;
                         });

TEST_F(LifecycleTest, CreateReadsTheConfigurationThenMaps) {
    ASSERT_EQ(shmrm_create(), SHMRM_OK);
    std::string xml;
    for (const std::string& call : fake_.xml_calls())
        xml += call.substr(7) + " ";  // without "xmllib_"
    EXPECT_EQ(xml,
              "init(shmrm) load_config load_policy(shmrm) get_value(/root/shmrm/log/level) "
              "get_value(/root/shmrm/log/size) unload_policy(shmrm) load_policy(all) "
              "get_value(/root/all/num/group) get_value(/root/all/num/resource) "
              "get_value(/root/all/num/monitor) unload_policy(all) load_policy(shmrm) "
              "unload_policy(shmrm) unload_config term ");
    auto mapping = std::find(fake_.calls.begin(), fake_.calls.end(),
                             "VexutilCreateNamedFileMapping(oru_vexshmrm_map)");
    ASSERT_NE(mapping, fake_.calls.end());
    EXPECT_EQ(std::find(mapping, fake_.calls.end(), "xmllib_term"), fake_.calls.end());
    ASSERT_GE(fake_.lines.size(), 2u);
    EXPECT_EQ(fake_.lines[0], (TraceLine{SHMRM_LOG_FUNC, "_create", "<<< ENTER >>>"}));
    EXPECT_EQ(fake_.lines[1], (TraceLine{SHMRM_LOG_FUNC, "_loadinfo", "<<< ENTER >>>"}));
    EXPECT_EQ(fake_.texts(SHMRM_LOG_INFO),
              (Strings{"VexutilCreateNamedFileMapping(new)", "SIZE:1907384"}));
    EXPECT_TRUE(errors().empty());
}

// A configuration that cannot be read in part still maps the region.
TEST_F(LifecycleTest, XmlTroubleIsTracedAndTheCallSucceeds) {
    const std::string no_policy = std::to_string(vex::kXmlNoPolicy);
    const std::string no_key = std::to_string(vex::kXmlNoKey);
    struct Row {
        const char* all;  // the policy "all" in the file, or the sandbox's {4, 2, 8}
        const char* call;
        int nth;
        Strings messages;
        std::vector<int> caps;
        int size;
    } rows[] = {
        // clang-format off
        {"", nullptr, 0, {"xmllib_load_policy(all) failed(ret:" + no_policy + ")"},
         {128, 16, 128}, kDefaultSize},
        {"<all><num><group>128</group><resource>16</resource></num></all>", nullptr, 0,
         {"xmllib_get_value(/root/all/num/monitor) failed(ret:" + no_key + ")"},
         {128, 16, 16}, 1861240},
        {nullptr, "xmllib_get_value", 3, {"xmllib_get_value(/root/all/num/group) failed(ret:99)"},
         {128, 2, 8}, 273816},
        {nullptr, "xmllib_unload_policy", 2, {"xmllib_unload_policy(all) failed(ret:99)"},
         {4, 2, 8}, 11928},
        // The policy that did not load cannot be unloaded either.
        {nullptr, "xmllib_load_policy", 3, {"xmllib_load_policy(shmrm) failed(ret:99)",
         "xmllib_unload_policy(shmrm) failed(ret:" + no_policy + ")"}, {4, 2, 8}, 11928},
        {nullptr, "xmllib_unload_config", 1, {"xmllib_unload_config() failed(ret:99)"},
         {4, 2, 8}, 11928},
        {nullptr, "xmllib_term", 1, {"xmllib_term() failed(ret:99)"}, {4, 2, 8}, 11928},
        // clang-format on
    };
    for (int level : {32, 0})
        for (const Row& row : rows) {
            SCOPED_TRACE(row.messages[0] + " at level " + std::to_string(level));
            if (row.all != nullptr) {
                sandbox_.write_config(std::string("<root>") + row.all + "<shmrm><log><level>" +
                                      std::to_string(level) + "</level></log></shmrm></root>");
            } else {
                sandbox_.configure({4, 2, 8}, level);
            }
            FakeImports fake;
            if (row.call != nullptr) fake.fail(row.call, 99, 5, row.nth);
            ASSERT_EQ(shmrm_create(), SHMRM_OK);
            EXPECT_EQ(fake.texts(SHMRM_LOG_ERROR), level == 0 ? Strings{} : row.messages);
            EXPECT_EQ(maxvalues(), row.caps);
            EXPECT_EQ(shmrm::state.region_size.load(), row.size);
            EXPECT_EQ(shmrm_delete(), SHMRM_OK);
            vex::xmllib_term();
        }
}

TEST_F(LifecycleTest, CreateRetriesTheMappingAfterAPause) {
    fake_.fail_first("VexutilCreateNamedFileMapping", 2, -1, 5);
    fake_.report_existing(true);
    EXPECT_EQ(shmrm_create(), SHMRM_OK);
    EXPECT_EQ(fake_.pauses, (std::vector<unsigned>{1000, 1000}));
    EXPECT_EQ(errors(), Strings(2, "VexutilCreateNamedFileMapping failed(errno:5)"));
    EXPECT_EQ(fake_.texts(SHMRM_LOG_INFO),
              (Strings{"VexutilCreateNamedFileMapping(use)", "SIZE:1907384"}));
    EXPECT_TRUE(mapped());
}

TEST_F(LifecycleTest, MappingAgainOnlyWarns) {
    ASSERT_EQ(shmrm_create(), SHMRM_OK);
    for (const Export& op : {kCreate, kAttach}) {
        SCOPED_TRACE(op.name);
        fake_.calls.clear();
        fake_.lines.clear();
        const int count = shmrm::state.attach_count;
        EXPECT_EQ(op.fn(), SHMRM_OK);
        EXPECT_TRUE(fake_.xml_calls().empty());
        EXPECT_EQ(fake_.lines, (std::vector<TraceLine>{{SHMRM_LOG_FUNC, op.tag, "<<< ENTER >>>"},
                                                       {SHMRM_LOG_WARNING, op.tag, "already init"},
                                                       {SHMRM_LOG_FUNC, op.tag, exit_line(0)}}));
        EXPECT_EQ(shmrm::state.attach_count, count + (op.fn == shmrm_attach ? 1 : 0));
    }
}

TEST_F(LifecycleTest, WithoutTheLogTheRegionStillMaps) {
    fake_.fail("loglib_open");
    EXPECT_EQ(shmrm_create(), SHMRM_OK);
    EXPECT_TRUE(mapped());
    EXPECT_EQ(shmrm_delete(), SHMRM_OK);
    Held other = hold_region();
    EXPECT_EQ(shmrm_attach(), SHMRM_OK);
    EXPECT_EQ(shmrm_detach(), SHMRM_OK);
    EXPECT_FALSE(mapped());
    EXPECT_EQ(fake_.log_opens, 2);
    EXPECT_EQ(fake_.log_closes, 0);
    EXPECT_TRUE(fake_.lines.empty());
    EXPECT_EQ(fake_.open_handles(), 0);
}

TEST_F(LifecycleTest, TheLastDetachUnmaps) {
    Held other = hold_region();
    ASSERT_EQ(shmrm_attach(), SHMRM_OK);
    ASSERT_EQ(shmrm_attach(), SHMRM_OK);
    EXPECT_EQ(shmrm::state.attach_count, 2);
    EXPECT_EQ(shmrm_detach(), SHMRM_OK);
    EXPECT_TRUE(mapped());
    EXPECT_NE(shmrm::state.log.load(), nullptr);
    EXPECT_EQ(shmrm_detach(), SHMRM_OK);
    EXPECT_FALSE(mapped());
    EXPECT_EQ(shmrm::state.attach_count, 0);
    EXPECT_EQ(shmrm::state.log.load(), nullptr);
    EXPECT_EQ(fake_.open_handles(), 0);
    EXPECT_EQ(shmrm_detach(), SHMRM_ERR_NOTINIT);
}

TEST_F(LifecycleTest, ReleasingWhatIsNotMappedFails) {
    const std::tuple<int (*)(), const char*, bool> rows[] = {{shmrm_delete, "_delete", true},
                                                             {shmrm_detach, "_detach", false},
                                                             {shmrm_clear, "shmrm_clear", false}};
    for (const auto& [release, tag, closes_log] : rows) {
        SCOPED_TRACE(tag);
        shmrm::log_open();  // without the XML library: level 4
        fake_.lines.clear();
        EXPECT_EQ(release(), SHMRM_ERR_NOTINIT);
        EXPECT_EQ(fake_.lines, (std::vector<TraceLine>{{SHMRM_LOG_ERROR, tag, "not init"}}));
        EXPECT_EQ(shmrm::state.log.load() == nullptr, closes_log);
        shmrm::log_close();
    }
}

TEST_F(LifecycleTest, ClearZeroesTheWholeRegion) {
    ASSERT_EQ(shmrm_create(), SHMRM_OK);
    ASSERT_EQ(shmrm_setacstat(5), SHMRM_OK);
    fake_.lines.clear();
    EXPECT_EQ(shmrm_clear(), SHMRM_OK);
    EXPECT_EQ(fake_.lines, (std::vector<TraceLine>{{SHMRM_LOG_INFO, "shmrm_clear", "shmrm clear."},
                                                   {SHMRM_LOG_FUNC, "shmrm_clear", exit_line(0)}}));
    std::vector<char> copy(kDefaultSize, 'x');
    int size = kDefaultSize;
    ASSERT_EQ(shmrm_dump(copy.data(), &size), SHMRM_OK);
    EXPECT_TRUE(std::all_of(copy.begin(), copy.end(), [](char c) { return c == 0; }));
    // Only setmaxvalue gives the region its capacities back.
    EXPECT_EQ(shmrm_setmaxvalue(128, 16, 128), SHMRM_OK);
    EXPECT_EQ(maxvalues(), (std::vector{128, 16, 128}));
}

TEST_F(LifecycleTest, ClearStopsAtTheSizeOfThisProcess) {
    Held other = hold_region();  // larger than this process's capacities make it
    sandbox_.configure({4, 2, 8}, 32);
    ASSERT_EQ(shmrm_attach(), SHMRM_OK);
    unsigned char* base = shmrm::region();
    std::memset(base, 0x5A, kDefaultSize);
    EXPECT_EQ(shmrm_clear(), SHMRM_OK);
    EXPECT_EQ(std::count(base, base + kDefaultSize, 0), 11928);
    EXPECT_EQ(base[11927], 0);
}

}  // namespace
