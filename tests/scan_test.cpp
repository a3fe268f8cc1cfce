// The pieces of a table scan on their own, where every length and position can be tried: a key
// against a field, the four-at-a-time scan, the measure of a stored name and its copy. The
// exports built on them are judged by the model (model_test.cpp) and the fuzzer.
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "tables.h"

namespace {

using shmrm::Key;

// A 32-byte name field: the name, its NUL when it fits, then bytes that must not count (chosen
// to trip a zero-byte test that looked past the NUL).
std::array<char, SHMRM_NAME_LEN> field_of(const std::string& name, char after = '\x80') {
    std::array<char, SHMRM_NAME_LEN> f;
    f.fill(after);
    for (std::size_t i = 0; i < name.size() && i < f.size(); ++i)
        f[i] = name[i];
    if (name.size() < f.size()) f[name.size()] = '\0';
    return f;
}

std::string name_of_length(std::size_t n) {
    std::string s;
    for (std::size_t i = 0; i < n; ++i)
        s += static_cast<char>('a' + i % 26);
    return s;
}

TEST(KeyTest, MatchesExactlyTheNameAtEveryLength) {
    for (std::size_t len = 0; len < SHMRM_NAME_LEN; ++len) {
        SCOPED_TRACE(len);
        // The key in a block of its own size, so that a read past its NUL is caught by ASan.
        const std::string name = name_of_length(len);
        const std::vector<char> held(name.c_str(), name.c_str() + len + 1);
        const Key key(held.data());
        EXPECT_TRUE(key.matches(field_of(name).data()));
        EXPECT_TRUE(key.matches(field_of(name, '\x01').data()));
        EXPECT_FALSE(key.matches(field_of(name + "x").data())) << "a longer name";
        if (len > 0) {
            EXPECT_FALSE(key.matches(field_of(name.substr(0, len - 1)).data()));
        }
        for (std::size_t at = 0; at < len; ++at) {
            std::string other = name;
            other[at] = 'Z';
            EXPECT_FALSE(key.matches(field_of(other).data())) << "differs at " << at;
        }
    }
    const std::string full = name_of_length(SHMRM_NAME_LEN);
    EXPECT_TRUE(Key(full.c_str()).impossible());
    EXPECT_FALSE(Key(full.c_str()).matches(field_of(full).data())) << "no NUL: never a name";
    EXPECT_TRUE(Key(nullptr).matches(field_of("anything").data()));
}

// Records of the group stride's size whose names lead: decoys share the key's first word (its
// end) but not its head, so the scan has to confirm and go on.
TEST(ScanTest, FindsTheFirstMatchFromAnyStartAmongDecoys) {
    constexpr std::size_t stride = 40;
    const std::string key_name = "group-0123456789", decoy = "GROUP-0123456789";
    const Key key(key_name.c_str());
    for (int used = 0; used <= 9; ++used) {
        for (int match = -1; match < used; ++match) {
            std::vector<unsigned char> table(stride * 9, 0);
            for (int i = 0; i < used; ++i) {
                const auto f = field_of(i == match ? key_name : (i % 2 ? decoy : "other"));
                std::copy(f.begin(), f.end(), table.begin() + i * static_cast<long>(stride));
            }
            auto confirm = [&key](const char* rec) { return key.rest_matches(rec); };
            for (int from = 0; from <= used; ++from) {
                SCOPED_TRACE(testing::Message()
                             << used << " used, match " << match << ", from " << from);
                const int want = match >= from ? match : -1;
                EXPECT_EQ(shmrm::scan(table.data(), stride, from, used, 0, key.first(), confirm),
                          want);
            }
        }
    }
}

TEST(NameListTest, StoredNamesAreMeasuredAndCopiedByteForByte) {
    for (std::size_t len = 0; len <= SHMRM_NAME_LEN; ++len) {
        SCOPED_TRACE(len);
        const std::string name = name_of_length(len);
        for (char after : {'\x80', '\x01', '\xff'}) {
            EXPECT_EQ(shmrm::name_length(field_of(name, after).data()), len);
        }
        std::array<char, SHMRM_NAME_LEN + 8> out;
        out.fill('#');
        shmrm::copy_name(out.data(), name.data(), len);
        EXPECT_EQ(std::string(out.data(), len), name);
        EXPECT_EQ(std::string(out.data() + len, out.size() - len),
                  std::string(out.size() - len, '#'))
            << "nothing written past the copy";
    }
}

}  // namespace
