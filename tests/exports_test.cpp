// The shared library exports exactly the functions of vexshmrm.def (the DLL also by their
// ordinals), and the export list itself is well formed.
#include <gtest/gtest.h>

#if defined(_WIN32)
#include <windows.h>
#endif

#include <cstdio>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "vexshmrm_schema.h"

namespace {

std::map<std::string, int> def_exports() {
    std::ifstream in(VEX_DEF_FILE);
    std::map<std::string, int> out;
    std::regex entry(R"(^\s+(\w+)\s+@(\d+)\s*$)");
    std::string line;
    std::smatch m;
    while (std::getline(in, line)) {
        if (std::regex_match(line, m, entry)) out[m[1]] = std::stoi(m[2]);
    }
    return out;
}

#if !defined(_WIN32)
std::set<std::string> dynamic_symbols() {
    std::string cmd = std::string("nm -D --defined-only ") + VEX_LIBRARY_FILE;
    std::set<std::string> out;
    FILE* p = popen(cmd.c_str(), "r");
    if (p == nullptr) return out;
    char line[512];
    while (std::fgets(line, sizeof line, p) != nullptr) {
        std::string s(line);
        auto end = s.find_last_not_of("\r\n");
        s = s.substr(0, end + 1);
        auto sp = s.rfind(' ');
        if (sp != std::string::npos) out.insert(s.substr(sp + 1));
    }
    pclose(p);
    return out;
}
#endif

// The getter and setter names of every row of the schema.
std::vector<std::string> schema_exports() {
    std::vector<std::string> named;
#define VEXTEST_ROW(name, shape, ft, gt, st, getter, setter, ...) \
    named.push_back("shmrm_" #getter);                            \
    named.push_back("shmrm_" #setter);
    SHMRM_HEADER_ATTRIBUTES(VEXTEST_ROW)
    SHMRM_GROUP_ATTRIBUTES(VEXTEST_ROW)
    SHMRM_RESOURCE_ATTRIBUTES(VEXTEST_ROW)
    SHMRM_MONITOR_ATTRIBUTES(VEXTEST_ROW)
#undef VEXTEST_ROW
    return named;
}

// The exports that are no attribute's: create, attach, detach, delete, the two locks and their
// unlocks, add, remove and list for each of the three tables, the three searches, dump and clear.
constexpr std::size_t kOtherExports = 22;

// Each function once, numbered 1 to N without a gap; the 82 of the first release keep their
// ordinals, and every further one is an attribute's (a schema row's two exports).
TEST(Exports, DefListsEveryFunctionOnceWithOrdinalsOneToN) {
    auto exports = def_exports();
    std::set<std::string> attributes;
    for (const auto& name : schema_exports())
        attributes.insert(name);
    // The two descriptions' rows share one getter and one setter.
    EXPECT_EQ(exports.size(), kOtherExports + attributes.size());
    std::set<int> ordinals;
    for (const auto& [name, ordinal] : exports) {
        EXPECT_EQ(name.rfind("shmrm_", 0), 0u) << name;
        ordinals.insert(ordinal);
        if (ordinal > 82) {
            EXPECT_TRUE(attributes.count(name)) << name << " @" << ordinal;
        }
    }
    EXPECT_EQ(ordinals.size(), exports.size());
    EXPECT_EQ(*ordinals.begin(), 1);
    EXPECT_EQ(*ordinals.rbegin(), static_cast<int>(exports.size()));
    EXPECT_GE(exports.size(), 82u);
    EXPECT_EQ(exports["shmrm_create"], 1);
    EXPECT_EQ(exports["shmrm_rolock"], 43);
    EXPECT_EQ(exports["shmrm_clear"], 82);
}

// Every attribute of the schema is read and written by exports of the list: a row added to the
// schema without its two lines in the .def (or with a misspelt export) fails here.
TEST(Exports, EverySchemaRowHasItsGetterAndSetterInTheDef) {
    const auto exports = def_exports();
    for (const std::string& name : schema_exports())
        EXPECT_TRUE(exports.count(name)) << name;
}

#if defined(_WIN32)
// Read from the export directory of the loaded DLL: every name of the .def, at its ordinal, and
// nothing else.
TEST(Exports, DllExportsExactlyTheFunctionsOfTheDefByNameAndOrdinal) {
    auto exports = def_exports();
    std::string path = VEX_LIBRARY_FILE;
    for (char& c : path)
        if (c == '/') c = '\\';
    HMODULE dll = LoadLibraryA(path.c_str());
    ASSERT_NE(dll, nullptr) << "LoadLibrary failed: " << GetLastError();
    const auto* base = reinterpret_cast<const unsigned char*>(dll);
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& entry =
        nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
    const auto* table =
        reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(base + entry.VirtualAddress);
    EXPECT_EQ(table->NumberOfFunctions, exports.size());
    EXPECT_EQ(table->NumberOfNames, exports.size());
    const auto* names = reinterpret_cast<const DWORD*>(base + table->AddressOfNames);
    for (DWORD i = 0; i < table->NumberOfNames; ++i) {
        const std::string name = reinterpret_cast<const char*>(base + names[i]);
        EXPECT_TRUE(exports.count(name)) << "exported but not in the def: " << name;
    }
    for (const auto& [name, ordinal] : exports) {
        const FARPROC by_name = GetProcAddress(dll, name.c_str());
        const FARPROC by_ordinal =
            GetProcAddress(dll, MAKEINTRESOURCEA(static_cast<WORD>(ordinal)));
        EXPECT_NE(by_name, nullptr) << "not exported: " << name;
        EXPECT_EQ(by_name, by_ordinal) << name << " is not at ordinal " << ordinal;
    }
    FreeLibrary(dll);
}
#else
TEST(Exports, LibraryExportsExactlyTheFunctionsOfTheDef) {
    auto exports = def_exports();
    auto symbols = dynamic_symbols();
    ASSERT_FALSE(symbols.empty()) << "no dynamic symbols read from " << VEX_LIBRARY_FILE;
    for (const auto& s : symbols)
        EXPECT_TRUE(exports.count(s)) << "exported but not in the def: " << s;
    for (const auto& [name, ordinal] : exports) {
        EXPECT_EQ(symbols.count(name), 1u) << "not exported: " << name;
    }
}
#endif

}  // namespace
