// Long random sequences of table operations run against the library and against a small
// reference model of the library's contract: every result, every out-value and, after every
// step, the whole region (rendered by the model from the record layout) must agree.
// CI runs fixed seeds; by hand: VEX_MODEL_SEEDS=N (seeds 1..N) or a-b, VEX_MODEL_STEPS=n.
#include <climits>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "table_fixture.h"

namespace {

using namespace vextest;

// ---- The reference model ----

using Text = std::array<unsigned char, 256>;
enum Kind { kGrp, kRsc, kMon };
const char* const kKindNames[] = {"grp", "rsc", "mon"};

// A group, a resource or a monitor: each uses the members its record has.
struct Rec {
    std::string name, type, sv;
    Text descript{}, free{};
    int word[12] = {};  // the integer attributes, in the order of kWords for the kind
    int progress = 0;
    unsigned tick3 = 0, tick4 = 0;
    std::vector<Rec> rscs;
};

struct Keys {
    const char *g = nullptr, *t = nullptr, *n = nullptr;
};

// An integer attribute: its record, its place in Rec::word, its offset in the record and its
// width (0: 32 bits; 1: unsigned 16 bits, read back as 2 bytes; 2: signed 16 bits).
struct Word {
    Kind kind;
    int index, offset, narrow;
    int (*set)(Keys, int);
    int (*get)(Keys, int*);
};

#define GRP(f, i, o)                                                          \
    {                                                                         \
        kGrp, i, o, 0, [](Keys k, int v) { return shmrm_setgrp##f(k.n, v); }, \
            [](Keys k, int* p) { return shmrm_getgrp##f(k.n, p); }            \
    }
#define RSC(f, i, o)                                                                    \
    {                                                                                   \
        kRsc, i, o, 0, [](Keys k, int v) { return shmrm_setrsc##f(k.g, k.t, k.n, v); }, \
            [](Keys k, int* p) { return shmrm_getrsc##f(k.g, k.t, k.n, p); }            \
    }
#define MON(s, g, i, o, w)                                             \
    {                                                                  \
        kMon, i, o, w, [](Keys k, int v) { return set_mon(s, k, v); }, \
            [](Keys k, int* p) { return g(k.t, k.n, p); }              \
    }

template <typename T>
int set_mon(int (*set)(const char*, const char*, T), Keys k, int v) {
    return set(k.t, k.n, static_cast<T>(v));
}

const Word kWords[] = {
    GRP(stat, 0, 288),
    GRP(env, 1, 292),
    GRP(retrycnt, 3, 304),
    GRP(focnt, 4, 308),
    {kGrp, 2, 300, 1,
     [](Keys k, int v) { return shmrm_setgrpflag(k.n, static_cast<unsigned short>(v)); },
     [](Keys k, int* p) { return shmrm_getgrpflag(k.n, reinterpret_cast<unsigned short*>(p)); }},
    RSC(stat, 0, 832),
    RSC(focnt, 1, 836),
    RSC(strtret, 2, 840),
    RSC(stopret, 3, 844),
    MON(shmrm_setmonstat, shmrm_getmonstat, 0, 320, 0),
    MON(shmrm_setmonfo, shmrm_getmonfo, 1, 324, 0),
    MON(shmrm_setmonproc, shmrm_getmonproc, 2, 328, 0),
    MON(shmrm_setmoninst, shmrm_getmoninst, 3, 332, 0),
    MON(shmrm_setmoninstdata, shmrm_getmoninstdata, 4, 336, 0),
    MON(shmrm_setmonscriptcnt, shmrm_getmonscriptcnt, 5, 340, 2),
    MON(shmrm_setmonrestartcnt, shmrm_getmonrestartcnt, 6, 342, 2),
    MON(shmrm_setmonfinactcnt, shmrm_getmonfinactcnt, 7, 344, 2),
    MON(shmrm_setmonsimuflag, shmrm_getmonsimuflag, 8, 348, 0),
    MON(shmrm_settargetpid, shmrm_gettargetpid, 9, 352, 0),
    MON(shmrm_setmonret, shmrm_getmonret, 10, 356, 0),
    MON(shmrm_setparentpid, shmrm_getparentpid, 11, 364, 0),
};

// A caller's string as a field of `width` bytes keeps it: at most width - 1 characters.
std::string cut(const char* s, std::size_t width) {
    return std::string(s, strnlen(s, width - 1));
}

struct Model {
    int max[3] = {kGroups, kSlots, kMonitors};
    std::vector<Rec> grps, mons;

    // The first match in table order; a null group or type matches every one.
    Rec* find(Kind kind, Keys k, Rec** owner = nullptr) {
        if (kind == kMon || kind == kGrp) {
            for (Rec& r : kind == kMon ? mons : grps)
                if ((kind == kGrp || !k.t || r.type == k.t) && r.name == k.n) return &r;
            return nullptr;
        }
        for (Rec& g : grps) {
            if (k.g && g.name != k.g) continue;
            for (Rec& r : g.rscs) {
                if ((!k.t || r.type == k.t) && r.name == k.n) {
                    if (owner) *owner = &g;
                    return &r;
                }
            }
        }
        return nullptr;
    }

    Bytes render() const {
        Bytes b(static_cast<std::size_t>(kRegionSize), 0);
        auto put = [&b](int at, const void* p, std::size_t n) { std::memcpy(b.data() + at, p, n); };
        auto text = [&put](int at, const std::string& s) { put(at, s.data(), s.size()); };
        auto words = [&put](Kind kind, int at, const Rec& r) {
            for (const Word& w : kWords)
                if (w.kind == kind) put(at + w.offset, &r.word[w.index], w.narrow ? 2 : 4);
        };
        const int head[5] = {max[0], max[1], max[2], static_cast<int>(grps.size()),
                             static_cast<int>(mons.size())};
        put(36, head, sizeof head);
        // Name, type or sv, description, free text and sv of a resource, at their offsets.
        auto record = [&](Kind kind, int at, const Rec& r) {
            text(at, r.name);
            text(at + 32, kind == kGrp ? r.sv : r.type);
            if (kind != kGrp) put(at + 64, r.descript.data(), 256);
            if (kind == kRsc) put(at + 320, r.free.data(), 256);
            if (kind == kRsc) text(at + 576, r.sv);
            words(kind, at, r);
        };
        for (int g = 0; g < static_cast<int>(grps.size()); ++g) {
            const Rec& grp = grps[static_cast<std::size_t>(g)];
            record(kGrp, grp_at(g), grp);
            const int count = static_cast<int>(grp.rscs.size());
            put(grp_at(g) + 296, &count, 4);
            for (int r = 0; r < count; ++r)
                record(kRsc, rsc_at(g, r), grp.rscs[static_cast<std::size_t>(r)]);
        }
        for (int m = 0; m < static_cast<int>(mons.size()); ++m) {
            const Rec& mon = mons[static_cast<std::size_t>(m)];
            record(kMon, mon_at(m), mon);
            const unsigned ticks[2] = {mon.tick3, mon.tick4};
            put(mon_at(m) + 360, &mon.progress, 4);
            put(mon_at(m) + 368, ticks, sizeof ticks);
        }
        return b;
    }
};

// The name list as the contract defines it, written into `buf` (null: the size query).
int model_list(const std::vector<std::string>& names, unsigned char* buf, int* size) {
    int sum = 0;
    for (const std::string& n : names)
        sum += static_cast<int>(n.size()) + 1;
    if (buf == nullptr) {
        *size = (sum == 0 ? 1 : sum) + 1;
        return SHMRM_OK;
    }
    if (*size < 2) return SHMRM_ERR_BUFFER;
    int used = 0;
    for (const std::string& n : names) {
        if (*size < used + static_cast<int>(n.size()) + 2) return SHMRM_ERR_BUFFER;
        std::memcpy(buf + used, n.c_str(), n.size() + 1);
        used += static_cast<int>(n.size()) + 1;
    }
    if (used == 0) buf[used++] = 0;
    buf[used] = 0;
    *size = used + 1;
    return SHMRM_OK;
}

int expect(bool args_ok, const void* found) {
    return !args_ok ? SHMRM_ERR_PARAM : found ? SHMRM_OK : SHMRM_ERR_NOTFOUND;
}

// ---- The random run ----

const std::string s31(31, 'k'), s32(32, 'k'), s40(40, 'k');
const char* const kKeys[] = {"a", "b", "", s31.c_str(), s32.c_str(), s40.c_str()};
const std::string t255(255, 'w'), t256(256, 'x'), t300(300, 'y');
const char* const kTexts[] = {"", "abc", t255.c_str(), t256.c_str(), t300.c_str(), nullptr};
const int kLengths[] = {-1, 0, 1, 2, 4, 10, 255, 256, 257, 300};
constexpr unsigned char kFill = 0xEE;
constexpr int kSentinel = 0x5A5A5A5A;

class ModelRun {
  public:
    ModelRun(unsigned seed, FakeImports& fake) : rng_(seed), seed_(seed), fake_(fake) {}

    bool steps(int count) {
        for (step_ = 0; step_ < count && ok_; ++step_) {
            fake_.lines.clear();
            one_step();
            same_bytes(dump_region(), m_.render(), "region");
        }
        return ok_;
    }

  private:
    int pick(int n) { return static_cast<int>(rng_() % static_cast<unsigned>(n)); }
    bool present() { return pick(15) != 0; }
    int length() { return kLengths[pick(10)]; }
    int value() {
        const int values[] = {0, -1, 3, 40000, 70000, INT_MIN, INT_MAX};
        return pick(3) == 0 ? static_cast<int>(rng_()) : values[pick(7)];
    }
    Bytes raw(std::size_t n) {  // letters, now and then a NUL
        Bytes out(n);
        for (unsigned char& c : out)
            c = pick(30) == 0 ? 0 : static_cast<unsigned char>('a' + pick(26));
        return out;
    }
    // Keys of a record of `kind`: half the time those of a record in use, else from the pool.
    // Group and type turn null (a wildcard) when `wild`; any key may turn null now and then.
    Keys keys(Kind kind, bool wild) {
        std::vector<Keys> in_use;
        for (const Rec& g : m_.grps) {
            if (kind == kGrp) in_use.push_back({nullptr, nullptr, g.name.c_str()});
            if (kind == kRsc)
                for (const Rec& r : g.rscs)
                    in_use.push_back({g.name.c_str(), r.type.c_str(), r.name.c_str()});
        }
        if (kind == kMon)
            for (const Rec& m : m_.mons)
                in_use.push_back({nullptr, m.type.c_str(), m.name.c_str()});
        Keys k = {kKeys[pick(6)], kKeys[pick(6)], kKeys[pick(6)]};
        if (!in_use.empty() && pick(2) == 0)
            k = in_use[static_cast<std::size_t>(pick(static_cast<int>(in_use.size())))];
        const char** slots[] = {&k.g, &k.t, &k.n};
        for (int i = 0; i < 3; ++i) {  // copies that outlive changes of the model
            const bool unused = (kind == kGrp && i < 2) || (kind == kMon && i == 0);
            held_[i] = *slots[i] ? *slots[i] : "";
            const bool drop = unused || !*slots[i] || pick(wild && i < 2 ? 3 : 25) == 0;
            *slots[i] = drop ? nullptr : held_[i].c_str();
        }
        return k;
    }

    static std::string show(const char* s) {
        if (s == nullptr) return "null";
        const std::size_t n = std::strlen(s);
        return n > 40 ? "<text " + std::to_string(n) + ">" : "\"" + std::string(s) + "\"";
    }
    void note(const std::string& name, Keys k, const std::string& rest = "") {
        call_ = name + "(" + show(k.g) + ", " + show(k.t) + ", " + show(k.n) + rest + ")";
    }
    template <typename T>
    void same(const T& got, const T& want, const std::string& what) {
        if (!ok_ || got == want) return;
        ok_ = false;
        ADD_FAILURE() << "seed " << seed_ << ", step " << step_ << ": " << call_ << ": " << what
                      << " is " << testing::PrintToString(got) << ", expected "
                      << testing::PrintToString(want) << " (rerun: VEX_MODEL_SEEDS=" << seed_ << "-"
                      << seed_ << " VEX_MODEL_STEPS=" << step_ + 1 << ")";
    }
    void same_bytes(const Bytes& got, const Bytes& want, const std::string& what) {
        std::size_t i = 0;
        while (i < got.size() && i < want.size() && got[i] == want[i])
            ++i;
        same(i, want.size(), what + ": bytes equal up to");
    }
    static char* chars(Bytes& b) { return reinterpret_cast<char*>(b.data()); }

    void one_step();
    void add_remove_list(Kind kind);
    void word();
    void text_and_free(Kind kind);
    void searches();
    void progress();
    void description();
    void header();

    std::mt19937 rng_;
    unsigned seed_;
    FakeImports& fake_;
    Model m_;
    std::string held_[3];
    std::string call_;
    int step_ = 0;
    bool ok_ = true;
};

void ModelRun::one_step() {
    const int op = pick(100);
    if (op < 45) return add_remove_list(static_cast<Kind>(op % 3));
    if (op < 62) return word();
    if (op < 72) return text_and_free(op % 2 ? kGrp : kRsc);
    if (op < 78) return searches();
    if (op < 84) return progress();
    if (op < 96) return description();
    header();
}

void ModelRun::add_remove_list(Kind kind) {
    const int what = pick(6);  // 0..2 add, 3 and 4 remove, 5 list
    const Keys k = keys(kind, what >= 3);
    if (what == 5) {
        std::vector<std::string> names;
        const Rec* only = kind == kRsc && k.g ? m_.find(kGrp, {nullptr, nullptr, k.g}) : nullptr;
        for (const Rec& g : kind == kMon ? m_.mons : m_.grps) {
            if (kind != kRsc) names.push_back(g.name);
            if (kind == kRsc && (!k.g || &g == only))
                for (const Rec& r : g.rscs)
                    names.push_back(r.name);
        }
        int need = 0;
        model_list(names, nullptr, &need);
        const int sizes[] = {need, need - 1, need + 1, 0, 1, 2, -1, pick(need + 2)};
        const int mode = pick(10);  // 0: the size query, 1: no size
        int size = sizes[pick(8)], want_size = size;
        note("enum" + std::string(kKindNames[kind]), k,
             ", " + std::to_string(mode) + ", " + std::to_string(size));
        Bytes buf(static_cast<std::size_t>(std::max(size, 0) + 16), kFill), want = buf;
        char* b = mode == 0 ? nullptr : chars(buf);
        int* s = mode == 1 ? nullptr : &size;
        const int rc = kind == kGrp   ? shmrm_enumgrp(b, s)
                       : kind == kRsc ? shmrm_enumrsc(k.g, b, s)
                                      : shmrm_enummon(b, s);
        same(rc,
             mode == 1 ? SHMRM_ERR_PARAM : model_list(names, b ? want.data() : nullptr, &want_size),
             "result");
        same(size, want_size, "size");
        return same_bytes(buf, want, "buffer");
    }
    if (what >= 3) {
        note("rm" + std::string(kKindNames[kind]), k);
        Rec* owner = nullptr;
        Rec* r = k.n ? m_.find(kind, k, &owner) : nullptr;
        const int want = expect(k.n, r);
        if (r) {
            std::vector<Rec>& table = kind == kGrp ? m_.grps : kind == kMon ? m_.mons : owner->rscs;
            table.erase(table.begin() + (r - table.data()));
        }
        const int rc = kind == kGrp   ? shmrm_rmgrp(k.n)
                       : kind == kRsc ? shmrm_rmrsc(k.g, k.t, k.n)
                                      : shmrm_rmmon(k.t, k.n);
        return same(rc, want, "result");
    }
    note("add" + std::string(kKindNames[kind]), k);
    int want = SHMRM_ERR_PARAM;
    std::vector<Rec>* table = kind == kGrp ? &m_.grps : kind == kMon ? &m_.mons : nullptr;
    if (k.n && (kind == kGrp || k.t) && (kind != kRsc || k.g)) {
        Rec* g = kind == kRsc ? m_.find(kGrp, {nullptr, nullptr, k.g}) : nullptr;
        if (g) table = &g->rscs;
        const int over[] = {SHMRM_ERR_GRPOVER, SHMRM_ERR_RSCOVER, SHMRM_ERR_MONOVER};
        want = !table                                            ? SHMRM_ERR_NOTFOUND
               : static_cast<int>(table->size()) >= m_.max[kind] ? over[kind]
                                                                 : SHMRM_OK;
    }
    if (want == SHMRM_OK) {
        table->push_back(
            Rec{cut(k.n, 32), kind == kGrp ? "" : cut(k.t, 32), "", {}, {}, {}, 0, 0, 0, {}});
    }
    const int rc = kind == kGrp   ? shmrm_addgrp(k.n)
                   : kind == kRsc ? shmrm_addrsc(k.g, k.t, k.n)
                                  : shmrm_addmon(k.t, k.n);
    same(rc, want, "result");
}

void ModelRun::word() {
    const Word& w = kWords[pick(static_cast<int>(std::size(kWords)))];
    const Keys k = keys(w.kind, true);
    Rec* r = k.n ? m_.find(w.kind, k) : nullptr;
    if (pick(2) == 0) {
        const int v = value();
        note("set word " + std::to_string(w.offset), k, ", " + std::to_string(v));
        if (r)
            r->word[w.index] = w.narrow == 1   ? v & 0xFFFF
                               : w.narrow == 2 ? static_cast<short>(v)
                                               : v;
        return same(w.set(k, v), expect(k.n, r), "result");
    }
    const bool out = present();
    note("get word " + std::to_string(w.offset), k, out ? ", &v" : ", null");
    int got = kSentinel, want = kSentinel;
    if (r && out)
        want = w.narrow == 1 ? (kSentinel & ~0xFFFF) | r->word[w.index] : r->word[w.index];
    same(w.get(k, out ? &got : nullptr), expect(k.n && out, r), "result");
    same(got, want, "value");
}

void ModelRun::text_and_free(Kind kind) {
    const Keys k = keys(kind, true);
    Rec* r = k.n ? m_.find(kind, k) : nullptr;
    const int what = kind == kGrp ? pick(2) : pick(4);
    const bool given = present();
    Bytes buf(316, kFill), want = buf;
    if (what == 0) {  // sv, written: cut to 255 characters
        const char* t = kTexts[pick(6)];
        note("setsv", k, ", " + show(t));
        if (r && t) r->sv = cut(t, 256);
        return same(kind == kGrp ? shmrm_setgrpsv(k.n, t) : shmrm_setrscsv(k.g, k.t, k.n, t),
                    expect(k.n && t, r), "result");
    }
    if (what == 1) {  // sv, read with its NUL
        note("getsv", k, given ? ", buf" : ", null");
        if (r && given) std::memcpy(want.data(), r->sv.c_str(), r->sv.size() + 1);
        char* b = given ? chars(buf) : nullptr;
        same(kind == kGrp ? shmrm_getgrpsv(k.n, b) : shmrm_getrscsv(k.g, k.t, k.n, b),
             expect(k.n && given, r), "result");
        return same_bytes(buf, want, "buffer");
    }
    int len = length();
    if (what == 2) {  // free, written: min(len, 256) raw bytes
        const Bytes data = raw(300);
        note("setrscfree", k, (given ? ", data, " : ", null, ") + std::to_string(len));
        if (r && given && len > 0)
            std::memcpy(r->free.data(), data.data(), static_cast<std::size_t>(std::min(len, 256)));
        return same(shmrm_setrscfree(k.g, k.t, k.n, given ? data.data() : nullptr, len),
                    expect(k.n && given && len > 0, r), "result");
    }
    // free, read: a null buffer asks for the size, without the lookup
    const bool count_given = present();
    note("getrscfree", k,
         (given ? ", buf, " : ", null, ") + (count_given ? std::to_string(len) : "null"));
    const bool args = k.n && count_given && len > 0;
    int want_rc = expect(args, given ? static_cast<const void*>(r) : &len), want_len = len;
    if (args && !given) want_len = 256;
    if (args && given && r) {
        want_len = std::min(len, 256);
        std::memcpy(want.data(), r->free.data(), static_cast<std::size_t>(want_len));
    }
    same(
        shmrm_getrscfree(k.g, k.t, k.n, given ? buf.data() : nullptr, count_given ? &len : nullptr),
        want_rc, "result");
    same(len, want_len, "count");
    same_bytes(buf, want, "buffer");
}

// The searches by name: the group (and type) of a resource, the type of a monitor.
void ModelRun::searches() {
    const int what = pick(3);
    const Keys k = keys(what == 2 ? kMon : kRsc, true);
    const bool out1 = present(), out2 = present();
    Bytes b1(40, kFill), b2(40, kFill), w1 = b1, w2 = b2;
    Rec* owner = nullptr;
    const bool args = k.n && (what == 0 ? out1 : *k.n != 0);
    Rec* r =
        args ? m_.find(what == 2 ? kMon : kRsc, {nullptr, what == 0 ? k.t : nullptr, k.n}, &owner)
             : nullptr;
    auto copy = [](Bytes& to, const std::string& s) {
        std::memcpy(to.data(), s.c_str(), s.size() + 1);
    };
    if (r && out1) copy(w1, what == 2 ? r->type : owner->name);
    if (r && out2 && what == 1) copy(w2, r->type);
    note("search " + std::to_string(what), k, out1 ? ", buf" : ", null");
    char* p1 = out1 ? chars(b1) : nullptr;
    const int rc = what == 0   ? shmrm_getrscgrp(p1, k.t, k.n)
                   : what == 1 ? shmrm_getrscinfo(p1, out2 ? chars(b2) : nullptr, k.n)
                               : shmrm_getmoninfo(p1, k.n);
    same(rc, expect(args, r), "result");
    same_bytes(b1, w1, "first buffer");
    same_bytes(b2, w2, "second buffer");
}

void ModelRun::progress() {
    const Keys k = keys(kMon, true);
    Rec* m = k.n ? m_.find(kMon, k) : nullptr;
    if (pick(2) == 0) {
        const int steps[] = {0, 3, 4, 5, -1};
        const int v = pick(4) == 0 ? value() : steps[pick(5)];
        const unsigned tick = static_cast<unsigned>(rng_());
        fake_.has_tick_ = true;
        fake_.tick(tick);
        note("setmonprogress", k, ", " + std::to_string(v));
        if (m) {
            if (v == 3 || v == 0) m->tick3 = v ? tick : 0;
            if (v == 4 || v == 0) m->tick4 = v ? tick : 0;
            m->progress = v;
        }
        return same(shmrm_setmonprogress(k.t, k.n, v), expect(k.n, m), "result");
    }
    const bool out = present(), o3 = pick(2) == 0, o4 = pick(2) == 0;
    note("getmonprogress", k,
         std::string(out ? ", &v" : ", null") + (o3 ? ", &t3" : ", null") +
             (o4 ? ", &t4" : ", null"));
    int v = kSentinel;
    unsigned t[2] = {1, 1};
    same(shmrm_getmonprogress(k.t, k.n, out ? &v : nullptr, o3 ? &t[0] : nullptr,
                              o4 ? &t[1] : nullptr),
         expect(k.n && out, m), "result");
    const bool ok = m && out;
    same(v, ok ? m->progress : kSentinel, "progress");
    same(t[0], ok && o3 ? m->tick3 : 1u, "tick3");
    same(t[1], ok && o4 ? m->tick4 : 1u, "tick4");
}

// Descriptions: a null group addresses a monitor (raw bytes), a group a resource (text whose
// byte n - 1 is NUL); n is the length, capped at 256.
void ModelRun::description() {
    const Keys k = keys(pick(2) == 0 ? kMon : kRsc, false);
    const bool monitor = k.g == nullptr;
    const int len = length();
    const bool given = present(), len_given = pick(15) != 0, set = pick(2) == 0;
    const bool args = k.t && k.n && given && (set || len_given);
    Rec* r = args && len > 0 ? m_.find(monitor ? kMon : kRsc, k) : nullptr;
    const std::size_t n = static_cast<std::size_t>(std::clamp(len, 1, 256));
    auto copy = [&](unsigned char* to, const unsigned char* from) {
        if (monitor) return static_cast<void>(std::memcpy(to, from, n));
        const std::size_t l = strnlen(reinterpret_cast<const char*>(from), n);
        std::memcpy(to, from, l);
        std::memset(to + l, 0, n - l);
        to[n - 1] = 0;
    };
    if (set) {
        Bytes value = raw(300);
        note("setdescript", k, (given ? ", value, " : ", null, ") + std::to_string(len));
        if (r) copy(r->descript.data(), value.data());
        return same(shmrm_setdescript(k.g, k.t, k.n, given ? chars(value) : nullptr, len),
                    expect(args && len > 0, r), "result");
    }
    note("getdescript", k,
         (given ? ", buf, " : ", null, ") + (len_given ? std::to_string(len) : "null"));
    Bytes buf(1008, kFill), want = buf;
    if (r) copy(want.data(), r->descript.data());
    int size = len;
    same(
        shmrm_getdescript(k.g, k.t, k.n, given ? chars(buf) : nullptr, len_given ? &size : nullptr),
        expect(args && len > 0, r), "result");
    same(size, len, "size");
    same_bytes(buf, want, "buffer");
}

// Capacities (only those the region was sized for are accepted) and the clear.
void ModelRun::header() {
    const int op = pick(25);
    if (op == 0) {
        call_ = "clear()";
        m_ = Model{};
        m_.max[0] = m_.max[1] = m_.max[2] = 0;
        return same(shmrm_clear(), SHMRM_OK, "result");
    }
    if (op < 12) {
        const int options[][3] = {{kGroups, kSlots, kMonitors},
                                  {1 + pick(kGroups), kSlots, 1 + pick(kMonitors)},
                                  {0, kSlots, 1},
                                  {kGroups + 1, kSlots, 1},
                                  {1, kSlots + 1, 1},
                                  {1, kSlots, -1}};
        const int* c = options[pick(3) == 0 ? pick(6) : pick(2)];
        call_ = "setmaxvalue(" + std::to_string(c[0]) + ", " + std::to_string(c[1]) + ", " +
                std::to_string(c[2]) + ")";
        const bool ok =
            c[0] >= 1 && c[0] <= kGroups && c[1] == kSlots && c[2] >= 1 && c[2] <= kMonitors;
        if (ok) std::copy(c, c + 3, m_.max);
        return same(shmrm_setmaxvalue(c[0], c[1], c[2]), ok ? SHMRM_OK : SHMRM_ERR_PARAM, "result");
    }
    const int missing = pick(6);  // 0..2: that address is missing
    call_ = "getmaxvalue(missing " + std::to_string(missing) + ")";
    std::vector<int> v(3, -7), want = v;
    int* out[3] = {&v[0], &v[1], &v[2]};
    if (missing < 3) out[missing] = nullptr;
    if (missing >= 3) want.assign(m_.max, m_.max + 3);
    same(shmrm_getmaxvalue(out[0], out[1], out[2]), missing < 3 ? SHMRM_ERR_PARAM : SHMRM_OK,
         "result");
    same(v, want, "capacities");
}

class ModelTest : public TableTest {};

TEST_F(ModelTest, RandomSequencesAgreeWithTheModel) {
    unsigned first = 1, last = 4;
    if (const char* seeds = std::getenv("VEX_MODEL_SEEDS")) {
        const char* dash = std::strchr(seeds, '-');
        first = dash ? static_cast<unsigned>(std::atoi(seeds)) : 1;
        last = static_cast<unsigned>(std::atoi(dash ? dash + 1 : seeds));
    }
    const char* steps = std::getenv("VEX_MODEL_STEPS");
    for (unsigned seed = first; seed <= last; ++seed) {
        // Empty tables at the configured capacities; odd seeds trace everything, so that the
        // searches that trace every slot they visit run as well.
        ASSERT_EQ(shmrm_clear(), SHMRM_OK);
        ASSERT_EQ(shmrm_setmaxvalue(kGroups, kSlots, kMonitors), SHMRM_OK);
        shmrm::g.log_level.store(seed % 2 ? SHMRM_LOG_PARAM : SHMRM_LOG_ERROR);
        ModelRun run(seed, fake_);
        if (!run.steps(steps ? std::atoi(steps) : 3000)) break;
    }
    fake_.lines.clear();
}

}  // namespace
