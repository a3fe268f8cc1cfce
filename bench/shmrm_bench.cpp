// Latency of the library's calls, each beside its floor: the same lookup on the same mapped
// bytes written as the tightest inline loop there is (each name prepared from the caller's string
// as any lookup must, fixed 32-byte name compares, no argument checks, no tracing, no call
// boundary). Every library row reports `ratio`, its time over the
// median time of its floor, `over_ns`, the difference, and `allocs`, heap allocations per call.
//
// The process runs in an IPC namespace of its own and a temporary install directory (etc/vex.xml,
// log/) that it removes on exit, so it never meets a node or a test run on the same host.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "alloc_count.h"
#include "region_layout.h"
#include "tables.h"
#include "vexshmrm.h"

namespace {

namespace fs = std::filesystem;

// ---- The temporary install directory ----------------------------------------------------

class InstallDir {
  public:
    InstallDir() {
        std::string pattern = (fs::temp_directory_path() / "vexshmrm-bench-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            std::perror("mkdtemp");
            std::exit(1);
        }
        path_ = pattern;
        fs::create_directories(path_ + "/etc");
        setenv("VEX_INSTALL_PATH", path_.c_str(), 1);
    }
    ~InstallDir() {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    InstallDir(const InstallDir&) = delete;
    InstallDir& operator=(const InstallDir&) = delete;

    void configure(int groups, int resources, int monitors, int level) const {
        std::ofstream(path_ + "/etc/vex.xml", std::ios::trunc)
            << "<root>\n  <all><num><group>" << groups << "</group><resource>" << resources
            << "</resource><monitor>" << monitors << "</monitor></num></all>\n"
            << "  <shmrm><log><level>" << level << "</level><size>1000000</size></log></shmrm>\n"
            << "</root>\n";
    }

    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

InstallDir* g_dir = nullptr;

// ---- Names --------------------------------------------------------------------------------

constexpr int kMaxGroups = 4096;
constexpr int kMaxSlots = 64;
constexpr const char* kRscType = "service";
constexpr const char* kMonType = "probe";
// 40 characters: never stored, so never found.
constexpr const char* kLongName = "a-name-of-forty-characters-that-is-long!";
// 31 characters, the longest name that can be stored; no record carries it.
constexpr const char* kMissingName = "no-record-carries-this-name-31c";

const char* gname(int i) {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> v;
        for (int k = 0; k < kMaxGroups; ++k)
            v.push_back("group-" + std::to_string(1000 + k));
        return v;
    }();
    return names[static_cast<std::size_t>(i)].c_str();
}

const char* rname(int i, int j) {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> v;
        for (int k = 0; k < 128 * kMaxSlots; ++k)
            v.push_back("resource-" + std::to_string(1000 + k / kMaxSlots) + "-" +
                        std::to_string(10 + k % kMaxSlots));
        return v;
    }();
    return names[static_cast<std::size_t>(i * kMaxSlots + j)].c_str();
}

const char* mname(int k) {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> v;
        for (int n = 0; n < kMaxGroups; ++n)
            v.push_back("monitor-" + std::to_string(1000 + n));
        return v;
    }();
    return names[static_cast<std::size_t>(k)].c_str();
}

// A caller's name, as the floor gets it: a C string. Each floor lookup prepares its key from it
// on every call, as any lookup must, with the library's own key (its length, and the 8 bytes
// that end with its NUL, compared first).
struct Name {
    const char* s;
    explicit Name(const char* str) : s(str) {}
    shmrm::Key key() const {
        const char* str = s;
        benchmark::DoNotOptimize(str);  // never hoisted out of the timed loop
        return shmrm::Key(str);
    }
};

// ---- The region under test ------------------------------------------------------------------

struct Shape {
    int groups = 0;
    int resources = 0;
    int monitors = 0;
    int level = 0;
    bool operator==(const Shape&) const = default;
};

enum class Fill { kNone, kFull, kGroups, kRotated, kOneGroup };

constexpr Shape kDefault{128, 16, 128, SHMRM_LOG_INFO};

Shape g_shape;
Fill g_fill = Fill::kNone;
bool g_mapped = false;

unsigned char* base() {
    return shmrm::state._prmhead.load(std::memory_order_acquire);
}
rmhead* hd() {
    return reinterpret_cast<rmhead*>(base());
}

void fail(const char* what, int rc) {
    std::fprintf(stderr, "shmrm_bench: %s returned %d\n", what, rc);
    std::exit(1);
}

void close_region() {
    if (g_mapped) shmrm_delete();
    g_mapped = false;
    g_fill = Fill::kNone;
}

void open_region(const Shape& s) {
    if (g_mapped && g_shape == s) return;
    close_region();
    g_dir->configure(s.groups, s.resources, s.monitors, s.level);
    if (int rc = shmrm_create(); rc != SHMRM_OK) fail("shmrm_create", rc);
    g_mapped = true;
    g_shape = s;
    g_fill = Fill::kNone;
}

// Every group and monitor in use, every resource slot in use.
void use_full(int level = SHMRM_LOG_INFO) {
    Shape s = kDefault;
    s.level = level;
    if (g_mapped && g_shape == s && g_fill == Fill::kFull) return;
    close_region();
    open_region(s);
    for (int i = 0; i < s.groups; ++i) {
        if (int rc = shmrm_addgrp(gname(i)); rc != SHMRM_OK) fail("shmrm_addgrp", rc);
        for (int j = 0; j < s.resources; ++j)
            if (int rc = shmrm_addrsc(gname(i), kRscType, rname(i, j)); rc != SHMRM_OK)
                fail("shmrm_addrsc", rc);
    }
    for (int k = 0; k < s.monitors; ++k)
        if (int rc = shmrm_addmon(kMonType, mname(k)); rc != SHMRM_OK) fail("shmrm_addmon", rc);
    g_fill = Fill::kFull;
}

// n groups without resources in a table of 4096. With `rotated_ok` the groups may stand in
// any order (a front removal leaves them rotated).
void use_groups(int n, bool rotated_ok) {
    const Shape s{kMaxGroups, 16, 128, SHMRM_LOG_INFO};
    const bool ready = g_mapped && g_shape == s &&
                       (g_fill == Fill::kGroups || (rotated_ok && g_fill == Fill::kRotated));
    if (!ready) {
        close_region();
        open_region(s);
        g_fill = Fill::kGroups;
    }
    if (rotated_ok) g_fill = Fill::kRotated;
    int count = hd()->grpcnt;
    while (count < n)
        shmrm_addgrp(gname(count++));
    while (count > n) {
        char last[SHMRM_NAME_LEN];
        std::memcpy(last, base() + shmrm::geometry({count, 16, 0})->group_at(count - 1),
                    sizeof last);
        shmrm_rmgrp(last);
        --count;
    }
}

// One group with n of its 64 slots in use.
void use_one_group(int n) {
    const Shape s{128, kMaxSlots, 128, SHMRM_LOG_INFO};
    if (!(g_mapped && g_shape == s && g_fill == Fill::kOneGroup)) {
        close_region();
        open_region(s);
        shmrm_addgrp(gname(0));
        g_fill = Fill::kOneGroup;
    }
    auto* grp = reinterpret_cast<rmgrp*>(base() + SHMRM_HEAD_SIZE);
    int count = grp->rsccnt;
    while (count < n)
        shmrm_addrsc(gname(0), kRscType, rname(0, count++));
    while (count > n)
        shmrm_rmrsc(gname(0), kRscType, rname(0, --count));
}

// ---- The floor: the same layout, read directly ------------------------------------------

inline std::size_t stride_of(const rmhead* h) {
    return static_cast<std::size_t>(shmrm::group_stride(h->rscmax));
}

// Group record i and the resource slots of a group, as the layout places them.
inline rmgrp* floor_group_at(unsigned char* b, int i) {
    return reinterpret_cast<rmgrp*>(b + SHMRM_HEAD_SIZE +
                                    static_cast<std::size_t>(i) *
                                        stride_of(reinterpret_cast<const rmhead*>(b)));
}
inline rmrsc* floor_slots(rmgrp* grp) {
    return reinterpret_cast<rmrsc*>(reinterpret_cast<unsigned char*>(grp) + SHMRM_GRP_HEAD_SIZE);
}

inline rmgrp* floor_group(unsigned char* b, Name given) {
    const shmrm::Key name = given.key();
    const auto* h = reinterpret_cast<const rmhead*>(b);
    const int n = h->grpcnt;
    const std::size_t stride = stride_of(h);
    unsigned char* p = b + SHMRM_HEAD_SIZE;
    for (int i = 0; i < n; ++i, p += stride)
        if (name.matches(reinterpret_cast<const char*>(p))) return reinterpret_cast<rmgrp*>(p);
    return nullptr;
}

inline rmrsc* floor_resource(unsigned char* b, Name group, Name given_type, Name given_name) {
    rmgrp* grp = floor_group(b, group);
    if (grp == nullptr) return nullptr;
    auto* slot = floor_slots(grp);
    const shmrm::Key name = given_name.key(), type = given_type.key();
    const int n = grp->rsccnt;
    for (int j = 0; j < n; ++j)
        if (name.matches(slot[j].name) && type.matches(slot[j].type)) return &slot[j];
    return nullptr;
}

inline rmmon* floor_monitors(unsigned char* b) {
    const auto* h = reinterpret_cast<const rmhead*>(b);
    return reinterpret_cast<rmmon*>(b + SHMRM_HEAD_SIZE +
                                    static_cast<std::size_t>(h->grpmax) * stride_of(h));
}

inline rmmon* floor_monitor(unsigned char* b, Name given_type, Name given_name) {
    const shmrm::Key name = given_name.key(), type = given_type.key();
    const int n = reinterpret_cast<const rmhead*>(b)->moncnt;
    rmmon* mon = floor_monitors(b);
    for (int k = 0; k < n; ++k)
        if (name.matches(mon[k].name) && type.matches(mon[k].type)) return &mon[k];
    return nullptr;
}

// A name list as the enumerations write it.
inline int floor_list_add(char* buf, int used, const char* field) {
    const std::size_t len = strnlen(field, SHMRM_NAME_LEN);
    std::memcpy(buf + used, field, len);
    buf[static_cast<std::size_t>(used) + len] = '\0';
    return used + static_cast<int>(len) + 1;
}

// Lists the names of a group's resources after `used` bytes of the list.
inline int floor_list_group(char* buf, int used, rmgrp* grp) {
    rmrsc* slot = floor_slots(grp);
    for (int j = 0; j < grp->rsccnt; ++j)
        used = floor_list_add(buf, used, slot[j].name);
    return used;
}

// ---- Measuring ------------------------------------------------------------------------------

struct FloorRecord {
    benchmark::IterationCount iterations = 0;
    std::vector<double> ns;
};
std::map<std::string, FloorRecord> g_floors;

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const std::size_t n = v.size();
    return n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// Runs the timed loop. A floor keeps the times of its final runs (the longest ones); a library
// row reports its ratio to the median of them.
template <typename Body>
void measure(benchmark::State& st, const std::string& key, bool is_floor, Body& body) {
    body();  // once untimed: the pages it touches are mapped in before the clock starts
    const long allocs = allocations();
    const auto t0 = std::chrono::steady_clock::now();
    for (auto _ : st)
        body();
    const auto t1 = std::chrono::steady_clock::now();
    const auto iterations = static_cast<double>(st.iterations());
    const double ns = std::chrono::duration<double, std::nano>(t1 - t0).count() / iterations;
    st.counters["allocs"] = static_cast<double>(allocations() - allocs) / iterations;
    FloorRecord& floor = g_floors[key];
    if (is_floor) {
        if (st.iterations() > floor.iterations) {
            floor.iterations = st.iterations();
            floor.ns.clear();
        }
        if (st.iterations() == floor.iterations) floor.ns.push_back(ns);
    } else if (!floor.ns.empty()) {
        const double f = median(floor.ns);
        st.counters["floor_ns"] = f;
        st.counters["ratio"] = ns / f;
        st.counters["over_ns"] = ns - f;
    }
}

// Registers a floor row and its library row. `prep` readies the region; `make_floor` and
// `make_lib` then build the loop bodies, which may capture positions in the region.
template <typename Prep, typename MakeFloor, typename MakeLib>
void pair(const std::string& row, Prep prep, MakeFloor make_floor, MakeLib make_lib) {
    benchmark::RegisterBenchmark(("floor/" + row).c_str(), [=](benchmark::State& st) {
        prep();
        auto body = make_floor();
        measure(st, row, true, body);
    });
    benchmark::RegisterBenchmark(row.c_str(), [=](benchmark::State& st) {
        prep();
        auto body = make_lib();
        measure(st, row, false, body);
    });
}

// The same, for a row of a scaling series: the key carries the argument.
template <typename Prep, typename MakeFloor, typename MakeLib>
void scaled_pair(const std::string& row, std::int64_t lo, std::int64_t hi, int mult, Prep prep,
                 MakeFloor make_floor, MakeLib make_lib) {
    auto key = [row](const benchmark::State& st) {
        return row + "/" + std::to_string(st.range(0));
    };
    benchmark::RegisterBenchmark(("floor/" + row).c_str(),
                                 [=](benchmark::State& st) {
                                     const int n = static_cast<int>(st.range(0));
                                     prep(n);
                                     auto body = make_floor(n);
                                     measure(st, key(st), true, body);
                                     st.SetComplexityN(n);
                                 })
        ->RangeMultiplier(mult)
        ->Range(lo, hi)
        ->Complexity(benchmark::oN);
    benchmark::RegisterBenchmark(row.c_str(),
                                 [=](benchmark::State& st) {
                                     const int n = static_cast<int>(st.range(0));
                                     prep(n);
                                     auto body = make_lib(n);
                                     measure(st, key(st), false, body);
                                     st.SetComplexityN(n);
                                 })
        ->RangeMultiplier(mult)
        ->Range(lo, hi)
        ->Complexity(benchmark::oN);
}

// ---- Rows at the default capacities, tables full, log at the default level --------------------

struct Where {
    const char* label;
    int group;
    int slot;
};

void register_words(int level, const std::string& prefix) {
    auto prep = [level] { use_full(level); };
    const Where rsc_at[] = {{"first", 0, 0}, {"middle", 64, 8}, {"last", 127, 15}};
    for (const Where& w : rsc_at) {
        const char* g = gname(w.group);
        const char* n = rname(w.group, w.slot);
        const Name G(g), T(kRscType), N(n);
        pair(
            prefix + "rsc_get/" + w.label, prep,
            [=] {
                unsigned char* b = base();
                return [=] { benchmark::DoNotOptimize(floor_resource(b, G, T, N)->stat); };
            },
            [=] {
                return [=] {
                    int v;
                    benchmark::DoNotOptimize(shmrm_getrscstat(g, kRscType, n, &v));
                    benchmark::DoNotOptimize(v);
                };
            });
        pair(
            prefix + "rsc_set/" + w.label, prep,
            [=] {
                unsigned char* b = base();
                return [=, v = 0]() mutable {
                    floor_resource(b, G, T, N)->stat = ++v;
                    benchmark::ClobberMemory();
                };
            },
            [=] {
                return [=, v = 0]() mutable {
                    benchmark::DoNotOptimize(shmrm_setrscstat(g, kRscType, n, ++v));
                };
            });
    }
    const Where mon_at[] = {{"middle", 64, 0}, {"end", 127, 0}};
    for (const Where& w : mon_at) {
        const char* n = mname(w.group);
        const Name T(kMonType), N(n);
        pair(
            prefix + "mon_get/" + w.label, prep,
            [=] {
                unsigned char* b = base();
                return [=] { benchmark::DoNotOptimize(floor_monitor(b, T, N)->stat); };
            },
            [=] {
                return [=] {
                    int v;
                    benchmark::DoNotOptimize(shmrm_getmonstat(kMonType, n, &v));
                    benchmark::DoNotOptimize(v);
                };
            });
        pair(
            prefix + "mon_set/" + w.label, prep,
            [=] {
                unsigned char* b = base();
                return [=, v = 0]() mutable {
                    floor_monitor(b, T, N)->stat = ++v;
                    benchmark::ClobberMemory();
                };
            },
            [=] {
                return [=, v = 0]() mutable {
                    benchmark::DoNotOptimize(shmrm_setmonstat(kMonType, n, ++v));
                };
            });
    }
}

// A buffer that the loop bodies share; big enough for every list.
char g_buf[128 * 16 * 33 + 16];

constexpr const char* kText = "running on node-7 since boot, last check passed";

void register_copies() {
    auto prep = [] { use_full(); };
    const char* g = gname(64);
    const char* n = rname(64, 8);
    const char* m = mname(64);
    const Name G(g), T(kRscType), N(n), MT(kMonType), M(m);
    pair(
        "rsc_sv_get/middle", prep,
        [=] {
            unsigned char* b = base();
            return [=] {
                rmrsc* r = floor_resource(b, G, T, N);
                const std::size_t len = strnlen(r->sv, SHMRM_TEXT_LEN);
                std::memcpy(g_buf, r->sv, len < SHMRM_TEXT_LEN ? len + 1 : len);
                benchmark::ClobberMemory();
            };
        },
        [=] { return [=] { benchmark::DoNotOptimize(shmrm_getrscsv(g, kRscType, n, g_buf)); }; });
    pair(
        "rsc_sv_set/middle", prep,
        [=] {
            unsigned char* b = base();
            return [=] {
                rmrsc* r = floor_resource(b, G, T, N);
                const std::size_t len = strnlen(kText, SHMRM_TEXT_LEN);
                std::memcpy(r->sv, kText, len);
                std::memset(r->sv + len, 0, SHMRM_TEXT_LEN - len);
                benchmark::ClobberMemory();
            };
        },
        [=] { return [=] { benchmark::DoNotOptimize(shmrm_setrscsv(g, kRscType, n, kText)); }; });
    pair(
        "rsc_free_get/middle", prep,
        [=] {
            unsigned char* b = base();
            return [=] {
                std::memcpy(g_buf, floor_resource(b, G, T, N)->free, 256);
                benchmark::ClobberMemory();
            };
        },
        [=] {
            return [=] {
                int len = 256;
                benchmark::DoNotOptimize(shmrm_getrscfree(g, kRscType, n, g_buf, &len));
            };
        });
    pair(
        "rsc_free_set/middle", prep,
        [=] {
            unsigned char* b = base();
            return [=] {
                std::memcpy(floor_resource(b, G, T, N)->free, g_buf + 1024, 256);
                benchmark::ClobberMemory();
            };
        },
        [=] {
            return [=] {
                benchmark::DoNotOptimize(shmrm_setrscfree(g, kRscType, n, g_buf + 1024, 256));
            };
        });
    pair(
        "rsc_descript_get/middle", prep,
        [=] {
            unsigned char* b = base();
            return [=] {
                rmrsc* r = floor_resource(b, G, T, N);
                const std::size_t len = strnlen(r->descript, SHMRM_TEXT_LEN);
                std::memcpy(g_buf, r->descript, len);
                std::memset(g_buf + len, 0, SHMRM_TEXT_LEN - len);
                g_buf[SHMRM_TEXT_LEN - 1] = '\0';
                benchmark::ClobberMemory();
            };
        },
        [=] {
            return [=] {
                const int len = SHMRM_TEXT_LEN;
                benchmark::DoNotOptimize(shmrm_getdescript(g, kRscType, n, g_buf, &len));
            };
        });
    pair(
        "rsc_descript_set/middle", prep,
        [=] {
            unsigned char* b = base();
            return [=] {
                rmrsc* r = floor_resource(b, G, T, N);
                const std::size_t len = strnlen(kText, SHMRM_TEXT_LEN);
                std::memcpy(r->descript, kText, len);
                std::memset(r->descript + len, 0, SHMRM_TEXT_LEN - len);
                benchmark::ClobberMemory();
            };
        },
        [=] {
            return [=] {
                benchmark::DoNotOptimize(shmrm_setdescript(g, kRscType, n, kText, SHMRM_TEXT_LEN));
            };
        });
    pair(
        "mon_descript_get/middle", prep,
        [=] {
            unsigned char* b = base();
            return [=] {
                std::memcpy(g_buf, floor_monitor(b, MT, M)->descript, SHMRM_TEXT_LEN);
                benchmark::ClobberMemory();
            };
        },
        [=] {
            return [=] {
                const int len = SHMRM_TEXT_LEN;
                benchmark::DoNotOptimize(shmrm_getdescript(nullptr, kMonType, m, g_buf, &len));
            };
        });
    pair(
        "mon_descript_set/middle", prep,
        [=] {
            unsigned char* b = base();
            return [=] {
                std::memcpy(floor_monitor(b, MT, M)->descript, g_buf + 2048, SHMRM_TEXT_LEN);
                benchmark::ClobberMemory();
            };
        },
        [=] {
            return [=] {
                benchmark::DoNotOptimize(
                    shmrm_setdescript(nullptr, kMonType, m, g_buf + 2048, SHMRM_TEXT_LEN));
            };
        });
}

void register_lists() {
    auto prep = [] { use_full(); };
    const char* g = gname(64);
    const Name G(g);
    pair(
        "enum_grp", prep,
        [=] {
            unsigned char* b = base();
            return [=] {
                const int n = reinterpret_cast<const rmhead*>(b)->grpcnt;
                int used = 0;
                for (int i = 0; i < n; ++i)
                    used = floor_list_add(g_buf, used, floor_group_at(b, i)->name);
                g_buf[used] = '\0';
                benchmark::ClobberMemory();
            };
        },
        [=] {
            return [=] {
                int size = sizeof g_buf;
                benchmark::DoNotOptimize(shmrm_enumgrp(g_buf, &size));
            };
        });
    pair(
        "enum_rsc/middle", prep,
        [=] {
            unsigned char* b = base();
            return [=] {
                const int used = floor_list_group(g_buf, 0, floor_group(b, G));
                g_buf[used] = '\0';
                benchmark::ClobberMemory();
            };
        },
        [=] {
            return [=] {
                int size = sizeof g_buf;
                benchmark::DoNotOptimize(shmrm_enumrsc(g, g_buf, &size));
            };
        });
    pair(
        "enum_rsc/all", prep,
        [=] {
            unsigned char* b = base();
            return [=] {
                const int n = reinterpret_cast<const rmhead*>(b)->grpcnt;
                int used = 0;
                for (int i = 0; i < n; ++i)
                    used = floor_list_group(g_buf, used, floor_group_at(b, i));
                g_buf[used] = '\0';
                benchmark::ClobberMemory();
            };
        },
        [=] {
            return [=] {
                int size = sizeof g_buf;
                benchmark::DoNotOptimize(shmrm_enumrsc(nullptr, g_buf, &size));
            };
        });
    pair(
        "enum_mon", prep,
        [=] {
            unsigned char* b = base();
            return [=] {
                const int n = reinterpret_cast<const rmhead*>(b)->moncnt;
                rmmon* mon = floor_monitors(b);
                int used = 0;
                for (int k = 0; k < n; ++k)
                    used = floor_list_add(g_buf, used, mon[k].name);
                g_buf[used] = '\0';
                benchmark::ClobberMemory();
            };
        },
        [=] {
            return [=] {
                int size = sizeof g_buf;
                benchmark::DoNotOptimize(shmrm_enummon(g_buf, &size));
            };
        });
}

// An add and then a remove of the same record, on a table with one free position: the last
// record of the full table is removed first, and the region is filled afresh by the next row.
void register_add_remove() {
    pair(
        "add_rm/grp", [] {},
        [] {
            use_full();
            shmrm_rmgrp(gname(127));
            g_fill = Fill::kNone;
            unsigned char* b = base();
            const Name N(gname(127));
            return [=] {
                auto* h = reinterpret_cast<rmhead*>(b);
                const std::size_t stride = stride_of(h);
                unsigned char* first = b + SHMRM_HEAD_SIZE;
                shmrm::bounded_copy(
                    reinterpret_cast<char*>(first + std::size_t(h->grpcnt) * stride), N.s,
                    SHMRM_NAME_LEN);
                ++h->grpcnt;
                rmgrp* grp = floor_group(b, N);
                std::memset(grp, 0, stride);
                --h->grpcnt;
                benchmark::ClobberMemory();
            };
        },
        [] {
            use_full();
            shmrm_rmgrp(gname(127));
            g_fill = Fill::kNone;
            return [] {
                benchmark::DoNotOptimize(shmrm_addgrp(gname(127)));
                benchmark::DoNotOptimize(shmrm_rmgrp(gname(127)));
            };
        });
    pair(
        "add_rm/rsc", [] {},
        [] {
            use_full();
            shmrm_rmrsc(gname(64), kRscType, rname(64, 15));
            g_fill = Fill::kNone;
            unsigned char* b = base();
            const Name G(gname(64)), T(kRscType), N(rname(64, 15));
            return [=] {
                rmgrp* grp = floor_group(b, G);
                auto* slot = floor_slots(grp);
                shmrm::bounded_copy(slot[grp->rsccnt].type, T.s, SHMRM_NAME_LEN);
                shmrm::bounded_copy(slot[grp->rsccnt].name, N.s, SHMRM_NAME_LEN);
                ++grp->rsccnt;
                std::memset(floor_resource(b, G, T, N), 0, SHMRM_RSC_SIZE);
                --grp->rsccnt;
                benchmark::ClobberMemory();
            };
        },
        [] {
            use_full();
            shmrm_rmrsc(gname(64), kRscType, rname(64, 15));
            g_fill = Fill::kNone;
            return [] {
                benchmark::DoNotOptimize(shmrm_addrsc(gname(64), kRscType, rname(64, 15)));
                benchmark::DoNotOptimize(shmrm_rmrsc(gname(64), kRscType, rname(64, 15)));
            };
        });
    pair(
        "add_rm/mon", [] {},
        [] {
            use_full();
            shmrm_rmmon(kMonType, mname(127));
            g_fill = Fill::kNone;
            unsigned char* b = base();
            const Name T(kMonType), N(mname(127));
            return [=] {
                auto* h = reinterpret_cast<rmhead*>(b);
                rmmon* mon = floor_monitors(b);
                shmrm::bounded_copy(mon[h->moncnt].type, T.s, SHMRM_NAME_LEN);
                shmrm::bounded_copy(mon[h->moncnt].name, N.s, SHMRM_NAME_LEN);
                ++h->moncnt;
                std::memset(floor_monitor(b, T, N), 0, SHMRM_MON_SIZE);
                --h->moncnt;
                benchmark::ClobberMemory();
            };
        },
        [] {
            use_full();
            shmrm_rmmon(kMonType, mname(127));
            g_fill = Fill::kNone;
            return [] {
                benchmark::DoNotOptimize(shmrm_addmon(kMonType, mname(127)));
                benchmark::DoNotOptimize(shmrm_rmmon(kMonType, mname(127)));
            };
        });
}

// The region lock beside a process-shared, robust, recursive mutex taken directly.
void register_lock() {
    static pthread_mutex_t mutex;
    static bool made = [] {
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
        pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&mutex, &attr);
        pthread_mutexattr_destroy(&attr);
        return true;
    }();
    (void)made;
    pair(
        "lock_unlock", [] { use_full(); },
        [] {
            return [] {
                benchmark::DoNotOptimize(pthread_mutex_lock(&mutex));
                benchmark::DoNotOptimize(pthread_mutex_unlock(&mutex));
            };
        },
        [] {
            return [] {
                benchmark::DoNotOptimize(shmrm_rwlock(SHMRM_INFINITE));
                benchmark::DoNotOptimize(shmrm_rwunlock());
            };
        });
}

// Lookups that find nothing. The log level is 0 here, so that the not-found line (an error,
// written at every level from 1 up) does not hide the lookup; the "/logged" row shows it.
void register_misses() {
    auto quiet = [] { use_full(0); };
    pair(
        "miss_long/grp_get", quiet,
        [] {
            const char* volatile name = kLongName;
            return [=] { benchmark::DoNotOptimize(strnlen(name, SHMRM_NAME_LEN)); };
        },
        [] {
            return [] {
                int v;
                benchmark::DoNotOptimize(shmrm_getgrpstat(kLongName, &v));
            };
        });
    pair(
        "miss_long/rsc_get", quiet,
        [] {
            const char* volatile name = kLongName;
            return [=] { benchmark::DoNotOptimize(strnlen(name, SHMRM_NAME_LEN)); };
        },
        [] {
            return [] {
                int v;
                benchmark::DoNotOptimize(shmrm_getrscstat(gname(64), kRscType, kLongName, &v));
            };
        });
    pair(
        "miss_long/mon_get", quiet,
        [] {
            const char* volatile name = kLongName;
            return [=] { benchmark::DoNotOptimize(strnlen(name, SHMRM_NAME_LEN)); };
        },
        [] {
            return [] {
                int v;
                benchmark::DoNotOptimize(shmrm_getmonstat(kMonType, kLongName, &v));
            };
        });
    const Name M(kMissingName), T(kRscType), MT(kMonType);
    pair(
        "miss_scan/grp_get", quiet,
        [=] {
            unsigned char* b = base();
            return [=] { benchmark::DoNotOptimize(floor_group(b, M)); };
        },
        [] {
            return [] {
                int v;
                benchmark::DoNotOptimize(shmrm_getgrpstat(kMissingName, &v));
            };
        });
    pair(
        "miss_scan/mon_get", quiet,
        [=] {
            unsigned char* b = base();
            return [=] { benchmark::DoNotOptimize(floor_monitor(b, MT, M)); };
        },
        [] {
            return [] {
                int v;
                benchmark::DoNotOptimize(shmrm_getmonstat(kMonType, kMissingName, &v));
            };
        });
    pair(
        "miss_long/grp_get/logged", [] { use_full(); },
        [] {
            const char* volatile name = kLongName;
            return [=] { benchmark::DoNotOptimize(strnlen(name, SHMRM_NAME_LEN)); };
        },
        [] {
            return [] {
                int v;
                benchmark::DoNotOptimize(shmrm_getgrpstat(kLongName, &v));
            };
        });
}

// What a trace line costs: dropped at the default level, written at level 16.
void register_tracing() {
    pair(
        "trace/dropped_line", [] { use_full(); },
        [] { return [i = 0]() mutable { benchmark::DoNotOptimize(++i); }; },
        [] {
            return [i = 0]() mutable {
                ++i;
                SHMRM_TRACE(SHMRM_LOG_FUNC, "_bench", "value:{}", i);
                benchmark::DoNotOptimize(i);
            };
        });
    pair(
        "trace/dropped_enter_exit", [] { use_full(); },
        [] { return [i = 0]() mutable { benchmark::DoNotOptimize(++i); }; },
        [] {
            return [i = 0]() mutable {
                shmrm::TracedCall call("_bench");
                benchmark::DoNotOptimize(call.exit(++i));
            };
        });
    // A line written to the module log, and the ENTER and EXIT lines of a call at level 16, each
    // beside one bare append write of a line as long to a file in the same folder, cut back at
    // the log's size as the log is rotated.
    auto bare_write = [] {
        const std::string path = g_dir->path() + "/log/floor.log";
        const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0660);
        if (fd < 0) fail("open", fd);
        return [fd, written = std::size_t{0}]() mutable {
            static const std::string line =
                "2026-11-23 08:15:02.123 123456 123456 ERROR _bench shmrm_bench.cpp:900 value:1\n";
            benchmark::DoNotOptimize(::write(fd, line.data(), line.size()));
            if ((written += line.size()) > 1000000) {
                benchmark::DoNotOptimize(::ftruncate(fd, 0));
                written = 0;
            }
        };
    };
    pair(
        "trace/written_line", [] { use_full(); }, bare_write,
        [] {
            return [i = 0]() mutable {
                ++i;
                SHMRM_TRACE(SHMRM_LOG_ERROR, "_bench", "value:{}", i % 10);
                benchmark::DoNotOptimize(i);
            };
        });
    pair(
        "trace16/written_enter_exit", [] { use_full(SHMRM_LOG_FUNC); }, bare_write,
        [] {
            return [i = 0]() mutable {
                shmrm::TracedCall call("_bench");
                benchmark::DoNotOptimize(call.exit(++i % 10));
            };
        });
    register_words(SHMRM_LOG_FUNC, "trace16/");
}

// ---- Scaling ------------------------------------------------------------------------------

void register_scaling() {
    scaled_pair(
        "scale/grp_get_last", 1, kMaxGroups, 4, [](int n) { use_groups(n, false); },
        [](int n) {
            unsigned char* b = base();
            const Name N(gname(n - 1));
            return [=] { benchmark::DoNotOptimize(floor_group(b, N)->stat); };
        },
        [](int n) {
            const char* name = gname(n - 1);
            return [=] {
                int v;
                benchmark::DoNotOptimize(shmrm_getgrpstat(name, &v));
            };
        });
    scaled_pair(
        "scale/rsc_get_last", 1, kMaxSlots, 2, [](int n) { use_one_group(n); },
        [](int n) {
            unsigned char* b = base();
            const Name G(gname(0)), T(kRscType), N(rname(0, n - 1));
            return [=] { benchmark::DoNotOptimize(floor_resource(b, G, T, N)->stat); };
        },
        [](int n) {
            const char* g = gname(0);
            const char* name = rname(0, n - 1);
            return [=] {
                int v;
                benchmark::DoNotOptimize(shmrm_getrscstat(g, kRscType, name, &v));
            };
        });
    // The first group removed from a full table (every later group moves), then added again
    // at the end.
    scaled_pair(
        "scale/rmgrp_front", 1, kMaxGroups, 4, [](int n) { use_groups(n, true); },
        [](int) {
            unsigned char* b = base();
            return [=] {
                auto* h = reinterpret_cast<rmhead*>(b);
                const std::size_t stride = stride_of(h);
                const auto count = static_cast<std::size_t>(h->grpcnt);
                unsigned char* first = b + SHMRM_HEAD_SIZE;
                char name[SHMRM_NAME_LEN];
                std::memcpy(name, first, sizeof name);
                std::memmove(first, first + stride, (count - 1) * stride);
                std::memset(first + (count - 1) * stride, 0, stride);
                std::memcpy(first + (count - 1) * stride, name, sizeof name);
                benchmark::ClobberMemory();
            };
        },
        [](int) {
            unsigned char* b = base();
            return [=] {
                char name[SHMRM_NAME_LEN];
                std::memcpy(name, b + SHMRM_HEAD_SIZE, sizeof name);
                benchmark::DoNotOptimize(shmrm_rmgrp(name));
                benchmark::DoNotOptimize(shmrm_addgrp(name));
            };
        });
}

// ---- Region size --------------------------------------------------------------------------

struct Memory {
    double resident_kb = 0;
    double shared_kb = 0;
};

Memory memory() {
    long pages = 0, resident = 0, shared = 0;
    if (std::FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%ld %ld %ld", &pages, &resident, &shared) != 3) resident = shared = 0;
        std::fclose(f);
    }
    const double kb = static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024.0;
    return {static_cast<double>(resident) * kb, static_cast<double>(shared) * kb};
}

// shmrm_create on a region that does not exist yet, then shmrm_delete (not timed). Resident
// memory is read after the create and again after 128 groups have been written.
void register_create() {
    struct Size {
        const char* label;
        int groups;
    };
    // 128 x 16 x 128 is 1907384 bytes; 18520 groups make 268370680; 148000 make 2144276920,
    // 3.2 MB below 2 GiB.
    const Size sizes[] = {{"2MB", 128}, {"256MB", 18520}, {"2GB", 148000}};
    for (const Size& s : sizes) {
        const int groups = s.groups;
        benchmark::RegisterBenchmark(
            (std::string("create/") + s.label).c_str(),
            [groups](benchmark::State& st) {
                close_region();
                g_dir->configure(groups, 16, 128, SHMRM_LOG_INFO);
                Memory before, created, written;
                for (auto _ : st) {
                    before = memory();
                    const auto t0 = std::chrono::steady_clock::now();
                    const int rc = shmrm_create();
                    const auto t1 = std::chrono::steady_clock::now();
                    if (rc != SHMRM_OK) fail("shmrm_create", rc);
                    st.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
                    created = memory();
                    for (int i = 0; i < 128; ++i)
                        shmrm_addgrp(gname(i));
                    written = memory();
                    shmrm_delete();
                }
                st.counters["region_MB"] =
                    static_cast<double>(shmrm::geometry({groups, 16, 128})->size) / 1e6;
                st.counters["shared_kb_created"] = created.shared_kb - before.shared_kb;
                st.counters["rss_kb_created"] = created.resident_kb - before.resident_kb;
                st.counters["shared_kb_128grp"] = written.shared_kb - before.shared_kb;
            })
            ->UseManualTime()
            ->Unit(benchmark::kMicrosecond);
    }
}

void register_all() {
    register_words(SHMRM_LOG_INFO, "");
    register_copies();
    register_lists();
    register_add_remove();
    register_lock();
    register_misses();
    register_tracing();
    register_scaling();
    register_create();
}

}  // namespace

int main(int argc, char** argv) {
    // The library read the namespace when it was loaded: load it again in one of our own.
    if (std::getenv("VEX_IPC_NAMESPACE") == nullptr) {
        setenv("VEX_IPC_NAMESPACE", ("vexbench" + std::to_string(getpid())).c_str(), 1);
        shmrm::unload();
        if (!shmrm::load()) {
            std::fprintf(stderr, "shmrm_bench: the region lock cannot be obtained\n");
            return 1;
        }
    }
    InstallDir dir;
    g_dir = &dir;
    register_all();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    close_region();
    benchmark::Shutdown();
    g_dir = nullptr;
    return 0;
}
