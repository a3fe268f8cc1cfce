// The result codes have one table, SHMRM_RESULT_MAP: it agrees with the #define of every code,
// and the tools name every code from it.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "results.h"
#include "vexshmrm.h"

namespace {

// Each row's name is the constant of its value.
#define VEXTEST_SAME_VALUE(name, value, meaning) static_assert(name == (value), #name);
SHMRM_RESULT_MAP(VEXTEST_SAME_VALUE)
#undef VEXTEST_SAME_VALUE

struct Row {
    std::string name;
    int value;
    std::string meaning;
};

const std::vector<Row>& rows() {
    static const std::vector<Row> all = {
#define VEXTEST_ROW(name, value, meaning) {#name, value, meaning},
        SHMRM_RESULT_MAP(VEXTEST_ROW)
#undef VEXTEST_ROW
    };
    return all;
}

// The codes the public header defines, read from its text: `#define SHMRM_OK 0` and so on.
std::map<std::string, int> defined_codes() {
    std::ifstream in(VEX_PUBLIC_HEADER);
    std::map<std::string, int> out;
    const std::regex define(R"(^#define\s+(SHMRM_(?:OK|ERR_\w+))\s+(-?\d+)\s*(?:/\*.*\*/\s*)?$)");
    std::string line;
    std::smatch m;
    while (std::getline(in, line)) {
        if (std::regex_match(line, m, define)) out[m[1]] = std::stoi(m[2]);
    }
    return out;
}

// A code defined in the header but left out of the map (or the other way round) fails here.
TEST(Results, TheMapHoldsEveryDefinedCodeOnceInAscendingOrder) {
    const auto defined = defined_codes();
    ASSERT_EQ(defined.size(), 16u) << "the header was not read";
    std::map<std::string, int> mapped;
    std::set<int> values;
    int previous = -1;
    for (const Row& row : rows()) {
        mapped[row.name] = row.value;
        EXPECT_TRUE(values.insert(row.value).second) << row.name << " repeats " << row.value;
        EXPECT_GT(row.value, previous) << row.name;
        previous = row.value;
        EXPECT_FALSE(row.meaning.empty()) << row.name;
        EXPECT_EQ(row.meaning.find('\n'), std::string::npos) << row.name;
    }
    EXPECT_EQ(mapped, defined);
    EXPECT_EQ(values.count(15), 0u) << "15 is not a result code";
}

TEST(Results, ToolsNameEveryMappedCodeAndShowAnyOtherAsItsNumber) {
    for (const Row& row : rows())
        EXPECT_EQ(shmrmctl::result_name(row.value), row.name);
    for (int other : {15, -1, 17, 1 << 30}) {
        EXPECT_EQ(shmrmctl::result_name(other), "result " + std::to_string(other));
    }
}

}  // namespace
