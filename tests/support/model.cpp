#include "support/model.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <tuple>
#include <type_traits>

#include "vexshmrm_schema.h"

namespace vextest {

unsigned Choices::take(int bytes, unsigned below) {
    unsigned v = 0;
    for (int i = 0; input_ && i < bytes && left_ > 0; ++i, --left_)
        v |= static_cast<unsigned>(*data_++) << (8 * i);
    if (!input_) v = static_cast<unsigned>(rng_());
    if (below) v %= below;
    for (int i = 0; record_ && i < bytes; ++i)
        record_->push_back(static_cast<unsigned char>(v >> (8 * i)));
    return v;
}

namespace {

using Text = std::array<unsigned char, 256>;
enum Kind { kGrp, kRsc, kMon };
const char* const kKindNames[] = {"grp", "rsc", "mon"};

// A group, a resource or a monitor: each uses the members its record has.
struct Rec {
    std::string name, type, sv;
    Text descript{}, free{};
    int word[16] = {};  // the integer attributes, in the order of kWords for the kind
    int progress = 0;
    unsigned tick3 = 0, tick4 = 0;
    std::vector<Rec> rscs;
};

struct Keys {
    const char *g = nullptr, *t = nullptr, *n = nullptr;
};

// A setter or getter of an integer attribute, called with the keys its record uses (name; type
// and name; group, type and name) and the value or address converted to its type.
template <typename... A>
std::tuple<A...> parameters(int (*)(A...));
template <auto F>
int call(Keys k, auto x) {
    using P = decltype(parameters(F));
    using T = std::tuple_element_t<std::tuple_size_v<P> - 1, P>;
    T v;
    if constexpr (std::is_pointer_v<T>)
        v = reinterpret_cast<T>(x);
    else
        v = static_cast<T>(x);
    if constexpr (std::tuple_size_v<P> == 2)
        return F(k.n, v);
    else if constexpr (std::tuple_size_v<P> == 3)
        return F(k.t, k.n, v);
    else
        return F(k.g, k.t, k.n, v);
}

// An integer attribute: its record, its place in Rec::word, its offset in the record and its
// width (0: 32 bits; 1: unsigned 16 bits, read back as 2 bytes; 2: signed 16 bits).
struct Word {
    Kind kind;
    int index, offset, narrow;
    int (*set)(Keys, int);
    int (*get)(Keys, int*);
};

template <typename T>
constexpr int kNarrow = sizeof(T) == 4          ? 0
                        : std::is_unsigned_v<T> ? 1
                                                : 2;

// One entry per word row of the schema, in row order; `index` counts within the record.
#define VEXTEST_WORD(kind, record, name, shape, ft, gt, st, getter, setter, ...)   \
    SHMRM_IF_WORD(shape,                                                           \
                  {kind, 0, static_cast<int>(offsetof(record, name)), kNarrow<ft>, \
                   call<shmrm_##setter>, call<shmrm_##getter>}, )
#define VEXTEST_GRP(...) VEXTEST_WORD(kGrp, rmgrp, __VA_ARGS__)
#define VEXTEST_RSC(...) VEXTEST_WORD(kRsc, rmrsc, __VA_ARGS__)
#define VEXTEST_MON(...) VEXTEST_WORD(kMon, rmmon, __VA_ARGS__)
constexpr Word kRows[] = {SHMRM_GROUP_ATTRIBUTES(VEXTEST_GRP) SHMRM_RESOURCE_ATTRIBUTES(VEXTEST_RSC)
                              SHMRM_MONITOR_ATTRIBUTES(VEXTEST_MON)};
#undef VEXTEST_WORD
#undef VEXTEST_GRP
#undef VEXTEST_RSC
#undef VEXTEST_MON

constexpr auto kWords = [] {
    std::array<Word, std::size(kRows)> out{};
    int count[3] = {};
    for (std::size_t i = 0; i < out.size(); ++i) {
        out[i] = kRows[i];
        out[i].index = count[out[i].kind]++;
    }
    return out;
}();
static_assert(std::ranges::all_of(kWords, [](const Word& w) { return w.index < 16; }),
              "Rec::word holds every word of a record");

// A node-wide word of the header: its offset, its setter and its getter.
struct HeaderWord {
    int offset;
    int (*set)(int);
    int (*get)(int*);
};
#define VEXTEST_HEAD(name, shape, ft, gt, st, getter, setter, ...) \
    SHMRM_IF_WORD(shape,                                           \
                  {static_cast<int>(offsetof(rmhead, name)), shmrm_##setter, shmrm_##getter}, )
constexpr HeaderWord kHeaderWords[] = {SHMRM_HEADER_ATTRIBUTES(VEXTEST_HEAD)};
#undef VEXTEST_HEAD
constexpr int kHeaderCount = static_cast<int>(std::size(kHeaderWords));

// A caller's string as a field of `width` bytes keeps it: at most width - 1 characters.
std::string cut(const char* s, std::size_t width) {
    return std::string(s, strnlen(s, width - 1));
}

struct Model {
    int max[3] = {kGroups, kSlots, kMonitors};
    int values[kHeaderCount] = {};  // the header's words, in the order of kHeaderWords
    std::vector<Rec> grps, mons;

    // The first match in table order; a null group or type matches every one.
    Rec* find(Kind kind, Keys k, Rec** owner = nullptr) {
        for (Rec& g : kind == kMon ? mons : grps) {
            if (kind != kRsc && (kind == kGrp || !k.t || g.type == k.t) && g.name == k.n) return &g;
            if (kind != kRsc || (k.g && g.name != k.g)) continue;
            for (Rec& r : g.rscs) {
                if ((!k.t || r.type == k.t) && r.name == k.n) {
                    if (owner) *owner = &g;
                    return &r;
                }
            }
        }
        return nullptr;
    }

    // The region's bytes, into `b` (whose memory is reused: runs make millions of these).
    const Bytes& render(Bytes& b) const {
        b.assign(static_cast<std::size_t>(kRegionSize), 0);
        auto put = [&b](int at, const void* p, std::size_t n) { std::memcpy(b.data() + at, p, n); };
        auto text = [&put](int at, const std::string& s) { put(at, s.data(), s.size()); };
        const int head[5] = {max[0], max[1], max[2], static_cast<int>(grps.size()),
                             static_cast<int>(mons.size())};
        put(36, head, sizeof head);
        for (int i = 0; i < kHeaderCount; ++i)
            put(kHeaderWords[i].offset, &values[i], 4);
        // Name, type or sv, description, free text, sv of a resource and the integers.
        auto record = [&](Kind kind, int at, const Rec& r) {
            text(at, r.name);
            text(at + 32, kind == kGrp ? r.sv : r.type);
            if (kind != kGrp) put(at + 64, r.descript.data(), 256);
            if (kind == kRsc) put(at + 320, r.free.data(), 256);
            if (kind == kRsc) text(at + 576, r.sv);
            for (const Word& w : kWords)
                if (w.kind == kind) put(at + w.offset, &r.word[w.index], w.narrow ? 2 : 4);
        };
        for (int g = 0; const Rec& grp : grps) {
            const int count = static_cast<int>(grp.rscs.size());
            record(kGrp, grp_at(g), grp);
            put(grp_at(g) + 296, &count, 4);
            for (int r = 0; const Rec& rsc : grp.rscs)
                record(kRsc, rsc_at(g, r++), rsc);
            ++g;
        }
        for (int m = 0; const Rec& mon : mons) {
            const unsigned ticks[2] = {mon.tick3, mon.tick4};
            record(kMon, mon_at(m), mon);
            put(mon_at(m) + 360, &mon.progress, 4);
            put(mon_at(m++) + 368, ticks, sizeof ticks);
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

// Keys and texts at the lengths where fields cut, and a key that is a format string.
const std::string s31(31, 'k'), s32(32, 'k'), s33(33, 'k'), s40(40, 'k');
const char* const kKeys[] = {"a",         "b",         "",          "%s%n%x",
                             s31.c_str(), s32.c_str(), s33.c_str(), s40.c_str()};
const std::string t255(255, 'w'), t256(256, 'x'), t300(300, 'y');
const char* const kTexts[] = {"", "abc", t255.c_str(), t256.c_str(), t300.c_str(), nullptr};
const int kLengths[] = {-1, 0, 1, 2, 4, 10, 255, 256, 257, 300, INT_MIN, INT_MAX};
// Capacities for shmrm_setmaxvalue, three at a time: the region's own, then refused ones.
const int kCapacities[] = {kGroups,     kSlots,     kMonitors, 0,       kSlots,     1,
                           kGroups + 1, kSlots,     1,         kGroups, kSlots,     kMonitors + 1,
                           1,           kSlots + 1, 1,         1,       kSlots - 1, 1,
                           1,           -kSlots,    1,         1,       kSlots,     -1,
                           INT_MAX,     kSlots,     INT_MIN};
constexpr unsigned char kFill = 0xEE;
constexpr int kSentinel = 0x5A5A5A5A;

class Run {
  public:
    Run(Choices& choices, FakeImports& fake) : c_(choices), fake_(fake) {}

    std::optional<Disagreement> steps(int count) {
        same(shmrm_clear(), SHMRM_OK, "clear");
        same(shmrm_setmaxvalue(kGroups, kSlots, kMonitors), SHMRM_OK, "setmaxvalue");
        for (step_ = 0; step_ < count && !failure_ && !c_.used_up(); ++step_) {
            fake_.lines.clear();
            one_step();
            int size = kRegionSize;
            same(shmrm_dump(dumped_.data(), &size), SHMRM_OK, "dump");
            same_bytes(dumped_, m_.render(rendered_), "region");
        }
        return failure_;
    }

  private:
    int pick(int n) { return c_.pick(n); }
    template <typename T, std::size_t N>
    const T& any(const T (&pool)[N]) {
        return pool[pick(static_cast<int>(N))];
    }
    bool present() { return pick(15) != 0; }
    int value() {
        const int values[] = {0, -1, 1, 3, 40000, 70000, INT_MIN, INT_MAX};
        return pick(3) == 0 ? static_cast<int>(c_.bits()) : any(values);
    }
    Bytes raw(std::size_t n) {  // letters, now and then a NUL
        Bytes out(n);
        for (unsigned char& ch : out) {
            const int v = pick(28);
            ch = static_cast<unsigned char>(v < 2 ? 0 : 'a' + v - 2);
        }
        return out;
    }
    // Keys of a record of `kind`: half the time those of a record in use, else from the pool.
    // Group and type turn null (a wildcard) when `wild`; any key may turn null now and then.
    Keys keys(Kind kind, bool wild) {
        std::vector<Keys> in_use;
        for (const Rec& g : kind == kMon ? m_.mons : m_.grps) {
            if (kind != kRsc) in_use.push_back({nullptr, g.type.c_str(), g.name.c_str()});
            for (const Rec& r : g.rscs)
                if (kind == kRsc)
                    in_use.push_back({g.name.c_str(), r.type.c_str(), r.name.c_str()});
        }
        Keys k = {any(kKeys), any(kKeys), any(kKeys)};
        if (!in_use.empty() && pick(2) == 0)
            k = in_use[static_cast<std::size_t>(pick(static_cast<int>(in_use.size())))];
        const char** slots[] = {&k.g, &k.t, &k.n};
        for (int i = 0; i < 3; ++i) {  // copies that outlive changes of the model
            const bool unused = (kind == kGrp && i < 2) || (kind == kMon && i == 0);
            const char* key = *slots[i] ? *slots[i] : "";
            held_[i] = std::vector<char>(key, key + std::strlen(key) + 1);
            const bool drop = unused || !*slots[i] || pick(wild && i < 2 ? 3 : 25) == 0;
            *slots[i] = drop ? nullptr : held_[i].data();
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
    void same(long long got, long long want, const std::string& what) {
        if (failure_ || got == want) return;
        failure_ = Disagreement{step_, call_ + ": " + what + " is " + std::to_string(got) +
                                           ", expected " + std::to_string(want)};
    }
    void same_bytes(const Bytes& got, const Bytes& want, const std::string& what) {
        if (failure_ || std::ranges::equal(got, want)) return;  // one memcmp
        const auto diff = std::mismatch(got.begin(), got.end(), want.begin(), want.end());
        same(diff.second - want.begin(), std::ssize(want), what + ": bytes equal up to");
    }
    static char* chars(Bytes& b) { return reinterpret_cast<char*>(b.data()); }

    void one_step() {
        const int op = pick(100);
        if (op < 45) return add_remove_list(static_cast<Kind>(op % 3));
        if (op < 62) return word();
        if (op < 72) return text_and_free(op % 2 ? kGrp : kRsc);
        if (op < 78) return searches();
        if (op < 84) return progress();
        if (op < 94) return description();
        header();
    }

    void add_remove_list(Kind kind) {
        const int what = pick(6);  // 0..2 add, 3 and 4 remove, 5 list
        const Keys k = keys(kind, what >= 3);
        const std::string name = kKindNames[kind];
        if (what == 5) {
            std::vector<std::string> names;
            const Rec* only =
                kind == kRsc && k.g ? m_.find(kGrp, {nullptr, nullptr, k.g}) : nullptr;
            for (const Rec& g : kind == kMon ? m_.mons : m_.grps) {
                if (kind != kRsc) names.push_back(g.name);
                for (const Rec& r : g.rscs)
                    if (kind == kRsc && (!k.g || &g == only)) names.push_back(r.name);
            }
            int need = 0;
            model_list(names, nullptr, &need);
            const int sizes[] = {need, need - 1, need + 1, 0, 1, 2, -1, pick(need + 2), INT_MAX};
            const int mode = pick(10);  // 0: the size query, 1: no size
            int size = any(sizes), want_size = size;
            note("enum" + name, k, ", " + std::to_string(mode) + ", " + std::to_string(size));
            // Room for the list and a margin: what a larger size allows is never written.
            Bytes buf(static_cast<std::size_t>(std::clamp(size, 0, need + 1) + 16), kFill),
                want = buf;
            char* b = mode == 0 ? nullptr : chars(buf);
            int* s = mode == 1 ? nullptr : &size;
            const int rc = kind == kGrp   ? shmrm_enumgrp(b, s)
                           : kind == kRsc ? shmrm_enumrsc(k.g, b, s)
                                          : shmrm_enummon(b, s);
            const int want_rc =
                s ? model_list(names, b ? want.data() : nullptr, &want_size) : SHMRM_ERR_PARAM;
            same(rc, want_rc, "result");
            same(size, want_size, "size");
            return same_bytes(buf, want, "buffer");
        }
        if (what >= 3) {
            note("rm" + name, k);
            Rec* owner = nullptr;
            Rec* r = k.n ? m_.find(kind, k, &owner) : nullptr;
            const int want = expect(k.n, r);
            if (r) {
                auto& table = kind == kRsc ? owner->rscs : kind == kGrp ? m_.grps : m_.mons;
                table.erase(table.begin() + (r - table.data()));
            }
            const int rc = kind == kGrp   ? shmrm_rmgrp(k.n)
                           : kind == kRsc ? shmrm_rmrsc(k.g, k.t, k.n)
                                          : shmrm_rmmon(k.t, k.n);
            return same(rc, want, "result");
        }
        note("add" + name, k);
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
            table->emplace_back();
            table->back().name = cut(k.n, 32);
            if (kind != kGrp) table->back().type = cut(k.t, 32);
        }
        const int rc = kind == kGrp   ? shmrm_addgrp(k.n)
                       : kind == kRsc ? shmrm_addrsc(k.g, k.t, k.n)
                                      : shmrm_addmon(k.t, k.n);
        same(rc, want, "result");
    }

    void word() {
        const Word& w = kWords[static_cast<std::size_t>(pick(static_cast<int>(kWords.size())))];
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

    void text_and_free(Kind kind) {
        const Keys k = keys(kind, true);
        Rec* r = k.n ? m_.find(kind, k) : nullptr;
        const int what = kind == kGrp ? pick(2) : pick(4);
        const bool given = present();
        Bytes buf(316, kFill), want = buf;
        if (what == 0) {  // sv, written: cut to 255 characters
            const char* t = any(kTexts);
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
        int len = any(kLengths);
        if (what == 2) {  // free, written: min(len, 256) raw bytes
            const Bytes data = raw(300);
            note("setrscfree", k, (given ? ", data, " : ", null, ") + std::to_string(len));
            if (r && given && len > 0)
                std::memcpy(r->free.data(), data.data(),
                            static_cast<std::size_t>(std::min(len, 256)));
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
        same(shmrm_getrscfree(k.g, k.t, k.n, given ? buf.data() : nullptr,
                              count_given ? &len : nullptr),
             want_rc, "result");
        same(len, want_len, "count");
        same_bytes(buf, want, "buffer");
    }

    // The searches by name: the group (and type) of a resource, the type of a monitor.
    void searches() {
        const int what = pick(3);
        const Keys k = keys(what == 2 ? kMon : kRsc, true);
        const bool out1 = present(), out2 = present();
        Bytes b1(40, kFill), b2(40, kFill), w1 = b1, w2 = b2;
        Rec* owner = nullptr;
        const bool args = k.n && (what == 0 ? out1 : *k.n != 0);
        const Keys by = {nullptr, what == 0 ? k.t : nullptr, k.n};
        Rec* r = args ? m_.find(what == 2 ? kMon : kRsc, by, &owner) : nullptr;
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

    void progress() {
        const Keys k = keys(kMon, true);
        Rec* m = k.n ? m_.find(kMon, k) : nullptr;
        if (pick(2) == 0) {
            const int steps[] = {0, 3, 4, 5, -1};
            const int v = pick(4) == 0 ? value() : any(steps);
            const unsigned tick = c_.bits();
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
    void description() {
        const Keys k = keys(pick(2) == 0 ? kMon : kRsc, false);
        const bool monitor = k.g == nullptr;
        const int len = any(kLengths);
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
        same(shmrm_getdescript(k.g, k.t, k.n, given ? chars(buf) : nullptr,
                               len_given ? &size : nullptr),
             expect(args && len > 0, r), "result");
        same(size, len, "size");
        same_bytes(buf, want, "buffer");
    }

    // The header: node-wide values, the dump, the capacities and the clear.
    void header() {
        // Every word is set and read; then the dump, the clear, the capacities set and read.
        const int words = 2 * kHeaderCount, dump = words + 4, clear = dump, capacities = dump + 10;
        const int op = pick(capacities + 10);
        if (op < words) {  // the node-wide words: values of 1 or more are kept
            const int i = op % kHeaderCount, v = value();
            const bool set = op < kHeaderCount, out = present();
            call_ = "header value " + std::to_string(i) + (set ? " set " + std::to_string(v) : "");
            if (set && v > 0) m_.values[i] = v;
            if (set) {
                return same(kHeaderWords[i].set(v), v > 0 ? SHMRM_OK : SHMRM_ERR_PARAM, "result");
            }
            int got = kSentinel;
            same(kHeaderWords[i].get(out ? &got : nullptr), out ? SHMRM_OK : SHMRM_ERR_PARAM,
                 "result");
            return same(got, out ? m_.values[i] : kSentinel, "value");
        }
        if (op < dump) {  // the dump: a size query (mode 0), no size (1), or into a buffer
            const int sizes[] = {kRegionSize, kRegionSize - 1, kRegionSize + 1, 0,
                                 -1,          INT_MIN,         INT_MAX};
            const int mode = pick(8);
            int size = any(sizes), want_size = mode == 0 ? kRegionSize : size;
            call_ = "dump(" + std::to_string(mode) + ", " + std::to_string(size) + ")";
            Bytes buf(static_cast<std::size_t>(kRegionSize) + 16, kFill), want = buf;
            const bool ok = mode == 0 || (mode > 1 && size >= kRegionSize);
            if (ok && mode > 1) std::ranges::copy(m_.render(rendered_), want.begin());
            const int rc =
                shmrm_dump(mode == 0 ? nullptr : buf.data(), mode == 1 ? nullptr : &size);
            same(rc, mode == 1 ? SHMRM_ERR_PARAM : ok ? SHMRM_OK : SHMRM_ERR_BUFFER, "result");
            same(size, want_size, "size");
            return same_bytes(buf, want, "buffer");
        }
        if (op == clear) {
            call_ = "clear()";
            m_ = Model{};
            m_.max[0] = m_.max[1] = m_.max[2] = 0;
            return same(shmrm_clear(), SHMRM_OK, "result");
        }
        if (op < capacities) {
            const int random[3] = {1 + pick(kGroups), kSlots, 1 + pick(kMonitors)};
            const int* c = pick(3) == 0 ? kCapacities + 3 * pick(9)
                           : pick(2)    ? random
                                        : kCapacities;
            call_ = "setmaxvalue(" + std::to_string(c[0]) + ", " + std::to_string(c[1]) + ", " +
                    std::to_string(c[2]) + ")";
            const bool ok = c == kCapacities || c == random;
            if (ok) std::copy(c, c + 3, m_.max);
            return same(shmrm_setmaxvalue(c[0], c[1], c[2]), ok ? SHMRM_OK : SHMRM_ERR_PARAM,
                        "result");
        }
        const int missing = pick(6);  // 0..2: that address is missing
        call_ = "getmaxvalue(missing " + std::to_string(missing) + ")";
        int v[3] = {-7, -7, -7};
        int* out[3] = {&v[0], &v[1], &v[2]};
        if (missing < 3) out[missing] = nullptr;
        same(shmrm_getmaxvalue(out[0], out[1], out[2]), missing < 3 ? SHMRM_ERR_PARAM : SHMRM_OK,
             "result");
        for (int i = 0; i < 3; ++i)
            same(v[i], missing < 3 ? -7 : m_.max[i], "capacity " + std::to_string(i));
    }

    Choices& c_;
    FakeImports& fake_;
    Model m_;
    std::vector<char> held_[3];  // in blocks of their exact size: reads past them are caught
    Bytes dumped_ = Bytes(kRegionSize), rendered_;
    std::string call_ = "start";
    int step_ = 0;
    std::optional<Disagreement> failure_;
};

}  // namespace

std::optional<Disagreement> run_model(Choices& choices, FakeImports& fake, int steps) {
    return Run(choices, fake).steps(steps);
}

}  // namespace vextest
