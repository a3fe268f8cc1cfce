#include "model.h"

#include <algorithm>
#include <cstring>
#include <span>

#include "text.h"
#include "vexshmrm.h"

namespace stress {

namespace {

// splitmix64: small, fast, and the same sequence in every process.
class Rng {
  public:
    explicit Rng(std::uint64_t seed) : s_(seed) {}
    std::uint64_t next() {
        std::uint64_t z = (s_ += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    std::uint32_t u32() { return static_cast<std::uint32_t>(next() >> 32); }
    int word() { return static_cast<int>(u32()); }
    int below(int n) { return static_cast<int>(next() % static_cast<std::uint64_t>(n)); }
    bool chance(int percent) { return below(100) < percent; }
    std::uint32_t seed() { return u32() | 1u; }  // a non-empty text

  private:
    std::uint64_t s_;
};

std::uint64_t mix(std::uint64_t a, std::uint64_t b, std::uint64_t c) {
    Rng r(a ^ (b * 0x100000001B3ull) ^ (c * 0xC2B2AE3D27D4EB4Full));
    return r.next();
}

void fill_pattern(std::uint32_t seed, std::uint8_t* out, std::size_t n) {
    Rng r(seed);
    for (std::size_t i = 0; i < n; i += 8) {
        const std::uint64_t v = r.next();
        std::memcpy(out + i, &v, std::min<std::size_t>(8, n - i));
    }
}

template <typename T>
T* find_k(std::vector<T>& v, int k) {
    for (auto& e : v)
        if (e.k == k) return &e;
    return nullptr;
}

// Picks a member of [0, n) that `want_present` says is present (or absent); -1 when none is.
template <typename Present>
int pick(Rng& r, int n, bool want_present, Present present) {
    std::vector<int> c;
    for (int k = 0; k < n; ++k)
        if (present(k) == want_present) c.push_back(k);
    return c.empty() ? -1 : c[static_cast<std::size_t>(r.below(static_cast<int>(c.size())))];
}

// The fields of a record of `Words` (see group_fields), leaving out the words named in `skip`.
template <typename Words>
std::vector<Field> fields_of(std::span<const std::string_view> skip = {}) {
    std::vector<Field> out;
    for (const bool wide : {true, false}) {
        Words::each([&](auto w) {
            const bool is_wide = sizeof(typename decltype(w)::Value) == 4;
            if (is_wide == wide && std::ranges::find(skip, w.name) == skip.end())
                out.push_back({.is_word = true, .word = w.index, .name = w.name});
        });
    }
    using shmrmctl::Other;
    for (const auto& [other, name] :
         {std::pair{Other::kText, "sv"}, {Other::kDescript, "descript"}, {Other::kFree, "free"}}) {
        if (Words::has(other)) out.push_back({.other = other, .name = name});
    }
    return out;
}

const Field& field_at(const std::vector<Field>& fields, int field) {
    return fields.at(static_cast<std::size_t>(field));
}

// Sets word `index` of `words` to `value`, converted to the field's type as the setter stores it.
template <typename Words>
void set_word(Words& words, std::size_t index, int value) {
    Words::each([&](auto w) {
        using T = typename decltype(w)::Value;
        if (w.index == index) words.*w.value = static_cast<T>(value);
    });
}

// Calls the setter of word `index` with `value` and the record's keys.
template <typename Words, typename... Keys>
int call_setter(std::size_t index, int value, Keys... keys) {
    int rc = -1;
    Words::each_export([&](auto w) {
        using V = typename decltype(w)::SetValue;
        if (w.index == index) rc = w.set(keys..., static_cast<V>(value));
    });
    return rc;
}

// A description write: the text of `seed` in a 256-byte buffer, all of it given.
int set_descript(const char* g, const char* t, const char* n, std::uint32_t seed) {
    std::array<char, 256> buf{};
    const std::string text = text_of(seed);
    std::memcpy(buf.data(), text.data(), text.size());
    return shmrm_setdescript(g, t, n, buf.data(), 256);
}

void set_group(Grp& g, const Op& op) {
    const Field& f = field_at(group_fields(), op.field);
    if (f.is_word) set_word(g.words, f.word, op.value);
    if (!f.is_word) g.sv = op.seed;  // a group's one other field
}

int execute_group(const char* g, const Op& op) {
    const Field& f = field_at(group_fields(), op.field);
    if (f.is_word) return call_setter<shmrmctl::GroupWords>(f.word, op.value, g);
    return shmrm_setgrpsv(g, text_of(op.seed).c_str());
}

}  // namespace

Identity::Identity(int s)
    : slot(s),
      group("g" + std::to_string(s)),
      scratch("x" + std::to_string(s)),
      scratch_rsc("y" + std::to_string(s)),
      monitor_prefix("m" + std::to_string(s) + ".") {}

std::string Identity::resource(int k) const {
    return "r" + std::to_string(slot) + "." + std::to_string(k);
}
std::string Identity::resource_type(int k) {
    return "t" + std::to_string(k % 3);
}
std::string Identity::monitor(int k) const {
    return monitor_prefix + std::to_string(k);
}
std::string Identity::monitor_type(int k) {
    return "mt" + std::to_string(k % 2);
}

const std::vector<Field>& group_fields() {
    static const auto fields = fields_of<shmrmctl::GroupWords>(kLedgerWords);
    return fields;
}
const std::vector<Field>& resource_fields() {
    static const auto fields = fields_of<shmrmctl::ResourceWords>();
    return fields;
}
const std::vector<Field>& monitor_fields() {
    static const auto fields = fields_of<shmrmctl::MonitorWords>();
    return fields;
}

std::string text_of(std::uint32_t seed) {
    static constexpr char kChars[] =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789 .,:;-_+=/()[]";
    if (seed == 0) return {};
    Rng r(seed);
    std::string s(static_cast<std::size_t>(1 + r.below(255)), ' ');
    for (char& c : s)
        c = kChars[r.below(static_cast<int>(sizeof kChars - 1))];
    return s;
}

int apply(Model& m, const Op& op, const Params& p) {
    switch (op.kind) {
        case OpKind::kAddRsc:
            if (static_cast<int>(m.main.rsc.size()) >= p.resources) return SHMRM_ERR_RSCOVER;
            m.main.rsc.push_back(Rsc{.k = op.k});
            return SHMRM_OK;
        case OpKind::kRmRsc: {
            auto& v = m.main.rsc;
            const auto it =
                std::find_if(v.begin(), v.end(), [&](const Rsc& r) { return r.k == op.k; });
            if (it == v.end()) return SHMRM_ERR_NOTFOUND;
            v.erase(it);
            return SHMRM_OK;
        }
        case OpKind::kSetRsc: {
            const Field& f = field_at(resource_fields(), op.field);
            if (f.other == shmrmctl::Other::kFree && op.len <= 0) return SHMRM_ERR_PARAM;
            Rsc* r = find_k(m.main.rsc, op.k);
            if (r == nullptr) return SHMRM_ERR_NOTFOUND;
            if (f.is_word) {
                set_word(r->words, f.word, op.value);
            } else if (f.other == shmrmctl::Other::kText) {
                r->sv = op.seed;
            } else if (f.other == shmrmctl::Other::kDescript) {
                r->descript = op.seed;
            } else {
                std::array<std::uint8_t, 256> bytes{};
                fill_pattern(op.seed, bytes.data(), bytes.size());
                const auto n = static_cast<std::size_t>(std::min(op.len, 256));
                std::copy_n(bytes.begin(), n, r->free.begin());
            }
            return SHMRM_OK;
        }
        case OpKind::kSetGrp:
            set_group(m.main, op);
            return SHMRM_OK;
        case OpKind::kAddMon:
            m.mons.push_back(Mon{.k = op.k});
            return SHMRM_OK;
        case OpKind::kRmMon: {
            auto& v = m.mons;
            const auto it =
                std::find_if(v.begin(), v.end(), [&](const Mon& x) { return x.k == op.k; });
            if (it == v.end()) return SHMRM_ERR_NOTFOUND;
            v.erase(it);
            return SHMRM_OK;
        }
        case OpKind::kSetMon: {
            Mon* x = find_k(m.mons, op.k);
            if (x == nullptr) return SHMRM_ERR_NOTFOUND;
            const Field& f = field_at(monitor_fields(), op.field);
            if (f.is_word) set_word(x->words, f.word, op.value);
            if (!f.is_word) x->descript = op.seed;  // a monitor's one other field
            return SHMRM_OK;
        }
        case OpKind::kProgress: {
            Mon* x = find_k(m.mons, op.k);
            if (x == nullptr) return SHMRM_ERR_NOTFOUND;
            x->progress = op.value;
            if (op.value == 0) x->tick3_zero = x->tick4_zero = true;
            if (op.value == 3) x->tick3_zero = false;
            if (op.value == 4) x->tick4_zero = false;
            return SHMRM_OK;
        }
        case OpKind::kAddScratch:
            m.scratch = Grp{};
            return SHMRM_OK;
        case OpKind::kSetScratch:
            if (!m.scratch) return SHMRM_ERR_NOTFOUND;
            set_group(*m.scratch, op);
            return SHMRM_OK;
        case OpKind::kAddScratchRsc:
            if (!m.scratch) return SHMRM_ERR_NOTFOUND;
            if (static_cast<int>(m.scratch->rsc.size()) >= p.resources) return SHMRM_ERR_RSCOVER;
            m.scratch->rsc.push_back(Rsc{.k = -1});
            return SHMRM_OK;
        case OpKind::kSetScratchRsc: {
            Rsc* r = m.scratch ? find_k(m.scratch->rsc, -1) : nullptr;
            if (r == nullptr) return SHMRM_ERR_NOTFOUND;
            r->words.stat = op.value;
            return SHMRM_OK;
        }
        case OpKind::kRmScratch:
            if (!m.scratch) return SHMRM_ERR_NOTFOUND;
            m.scratch.reset();
            return SHMRM_OK;
    }
    return SHMRM_ERR_PARAM;
}

Series plan(const Model& before, const Params& p, int slot, std::uint64_t seq) {
    // A scratch group is given a text: the group's field after its words.
    static const int kGroupSv = static_cast<int>(group_fields().size()) - 1;
    Rng r(mix(p.seed, static_cast<std::uint64_t>(slot), seq));
    Series s{{}, before};
    Model& m = s.after;
    auto emit = [&](Op op) {
        op.expect = apply(m, op, p);
        s.ops.push_back(op);
    };
    // Resource names: one more than the slots, so that a full group refuses an add.
    const int universe = p.resources + 1;
    auto rsc_present = [&](int k) { return find_k(m.main.rsc, k) != nullptr; };
    auto mon_present = [&](int k) { return find_k(m.mons, k) != nullptr; };

    if (!m.scratch && r.chance(40)) {
        emit({.kind = OpKind::kAddScratch});
        emit({.kind = OpKind::kSetScratch, .field = kGroupSv, .seed = r.seed()});
        emit({.kind = OpKind::kAddScratchRsc});
        emit({.kind = OpKind::kSetScratchRsc, .value = r.word()});
    }
    for (int i = r.below(3); i > 0; --i) {  // removals, sometimes of a name not there
        const int k = pick(r, universe, !r.chance(15), rsc_present);
        if (k >= 0) emit({.kind = OpKind::kRmRsc, .k = k});
    }
    for (int i = r.below(3); i > 0; --i) {
        const int k = pick(r, universe, false, rsc_present);
        if (k >= 0) emit({.kind = OpKind::kAddRsc, .k = k});
    }
    for (int i = 1 + r.below(4); i > 0; --i) {
        const int k = pick(r, universe, !r.chance(10), rsc_present);
        if (k < 0) continue;
        const int field = r.below(static_cast<int>(resource_fields().size()));
        // The free area: mostly a whole or partial write, sometimes an empty one, refused.
        const bool free = field_at(resource_fields(), field).other == shmrmctl::Other::kFree;
        const int len = !free ? 0 : (r.chance(5) ? 0 : 1 + r.below(300));
        emit({.kind = OpKind::kSetRsc,
              .k = k,
              .field = field,
              .value = r.word(),
              .seed = r.seed(),
              .len = len});
    }
    for (int i = r.below(3); i > 0; --i)
        emit({.kind = OpKind::kSetGrp,
              .field = r.below(static_cast<int>(group_fields().size())),
              .value = r.word(),
              .seed = r.seed()});
    if (r.chance(25)) {
        const int k = pick(r, p.monitors, true, mon_present);
        if (k >= 0) emit({.kind = OpKind::kRmMon, .k = k});
    }
    if (r.chance(40)) {
        const int k = pick(r, p.monitors, false, mon_present);
        if (k >= 0) emit({.kind = OpKind::kAddMon, .k = k});
    }
    for (int i = 1 + r.below(4); i > 0; --i) {
        const int k = pick(r, p.monitors, !r.chance(10), mon_present);
        if (k < 0) continue;
        if (r.chance(25)) {
            static constexpr int kSteps[] = {0, 1, 2, 3, 4, 5, -7};
            emit({.kind = OpKind::kProgress, .k = k, .value = kSteps[r.below(7)]});
        } else {
            emit({.kind = OpKind::kSetMon,
                  .k = k,
                  .field = r.below(static_cast<int>(monitor_fields().size())),
                  .value = r.word(),
                  .seed = r.seed()});
        }
    }
    if (m.scratch && r.chance(70)) emit({.kind = OpKind::kRmScratch});
    return s;
}

Model replay(const Params& p, int slot, std::uint64_t committed) {
    Model m;
    for (std::uint64_t seq = 1; seq <= committed; ++seq)
        m = plan(m, p, slot, seq).after;
    return m;
}

bool compound(const Op& op) {
    switch (op.kind) {
        case OpKind::kSetRsc:
            return !field_at(resource_fields(), op.field).is_word;
        case OpKind::kSetGrp:
        case OpKind::kSetScratch:
            return !field_at(group_fields(), op.field).is_word;
        case OpKind::kSetMon:
            return !field_at(monitor_fields(), op.field).is_word;
        case OpKind::kSetScratchRsc:
            return false;
        default:
            return true;  // adds, removes and progress steps
    }
}

int execute(const Op& op, const Identity& id) {
    const std::string name = op.kind == OpKind::kProgress || op.kind == OpKind::kSetMon ||
                                     op.kind == OpKind::kAddMon || op.kind == OpKind::kRmMon
                                 ? id.monitor(op.k)
                                 : id.resource(op.k);
    const char* g = id.group.c_str();
    const std::string rtype = Identity::resource_type(op.k);
    const std::string mtype = Identity::monitor_type(op.k);
    const char* rt = rtype.c_str();
    const char* mt = mtype.c_str();
    const char* n = name.c_str();
    switch (op.kind) {
        case OpKind::kAddRsc:
            return shmrm_addrsc(g, rt, n);
        case OpKind::kRmRsc:
            return shmrm_rmrsc(g, rt, n);
        case OpKind::kSetRsc: {
            const Field& f = field_at(resource_fields(), op.field);
            if (f.is_word) return call_setter<shmrmctl::ResourceWords>(f.word, op.value, g, rt, n);
            if (f.other == shmrmctl::Other::kText)
                return shmrm_setrscsv(g, rt, n, text_of(op.seed).c_str());
            if (f.other == shmrmctl::Other::kDescript) return set_descript(g, rt, n, op.seed);
            std::array<std::uint8_t, 300> data{};
            fill_pattern(op.seed, data.data(), 256);
            return shmrm_setrscfree(g, rt, n, data.data(), op.len);
        }
        case OpKind::kSetGrp:
            return execute_group(g, op);
        case OpKind::kAddMon:
            return shmrm_addmon(mt, n);
        case OpKind::kRmMon:
            return shmrm_rmmon(mt, n);
        case OpKind::kSetMon: {
            const Field& f = field_at(monitor_fields(), op.field);
            if (f.is_word) return call_setter<shmrmctl::MonitorWords>(f.word, op.value, mt, n);
            return set_descript(nullptr, mt, n, op.seed);
        }
        case OpKind::kProgress:
            return shmrm_setmonprogress(mt, n, op.value);
        case OpKind::kAddScratch:
            return shmrm_addgrp(id.scratch.c_str());
        case OpKind::kSetScratch:
            return execute_group(id.scratch.c_str(), op);
        case OpKind::kAddScratchRsc:
            return shmrm_addrsc(id.scratch.c_str(), "scratch", id.scratch_rsc.c_str());
        case OpKind::kSetScratchRsc:
            return shmrm_setrscstat(id.scratch.c_str(), "scratch", id.scratch_rsc.c_str(),
                                    op.value);
        case OpKind::kRmScratch:
            return shmrm_rmgrp(id.scratch.c_str());
    }
    return -1;
}

std::string describe(const Op& op) {
    static constexpr const char* kNames[] = {
        "add resource",  "remove resource", "set resource",         "set group",
        "add monitor",   "remove monitor",  "set monitor",          "set progress",
        "add scratch",   "set scratch",     "add scratch resource", "set scratch resource",
        "remove scratch"};
    return cat(kNames[static_cast<std::size_t>(op.kind)], " k=", op.k, " field=", op.field,
               " value=", op.value, " len=", op.len);
}

namespace {

shmrmctl::Resource resource_of(const Rsc& r, const Identity& id) {
    shmrmctl::Resource out;
    out.name = r.k < 0 ? id.scratch_rsc : id.resource(r.k);
    out.type = r.k < 0 ? "scratch" : Identity::resource_type(r.k);
    out.descript = text_of(r.descript);
    std::copy(r.free.begin(), r.free.end(), out.free.begin());
    out.sv = text_of(r.sv);
    static_cast<shmrmctl::ResourceWords&>(out) = r.words;
    return out;
}

shmrmctl::Group group_of(const Grp& g, const std::string& name, const Identity& id) {
    shmrmctl::Group out;
    out.name = name;
    out.sv = text_of(g.sv);
    static_cast<shmrmctl::GroupWords&>(out) = g.words;
    out.rsccnt = static_cast<int>(g.rsc.size());
    for (const Rsc& r : g.rsc)
        out.resources.push_back(resource_of(r, id));
    return out;
}

template <typename T>
void compare(std::string& out, const std::string& where, std::string_view what, const T& want,
             const T& got) {
    if (out.empty() && !(want == got)) out = cat(where, ": ", what, " differs");
}

// Every word of two records, in row order, but those named in `skip`.
template <typename Words>
void compare_words(std::string& out, const std::string& where, const Words& want, const Words& got,
                   std::span<const std::string_view> skip = {}) {
    Words::each([&](auto w) {
        if (std::ranges::find(skip, w.name) == skip.end())
            compare(out, where, w.name, want.*w.value, got.*w.value);
    });
}

void compare_group(std::string& out, const shmrmctl::Group& w, const shmrmctl::Group& g) {
    const std::string at = "group " + w.name;
    compare(out, at, "name", w.name, g.name);
    compare(out, at, "sv", w.sv, g.sv);
    compare_words<shmrmctl::GroupWords>(out, at, w, g, kLedgerWords);
    compare(out, at, "rsccnt", w.rsccnt, g.rsccnt);
    compare(out, at, "resource count", w.resources.size(), g.resources.size());
    for (std::size_t i = 0; out.empty() && i < w.resources.size(); ++i) {
        const auto& a = w.resources[i];
        const auto& b = g.resources[i];
        const std::string rat = at + " slot " + std::to_string(i) + " (" + a.name + ")";
        compare(out, rat, "name", a.name, b.name);
        compare(out, rat, "type", a.type, b.type);
        compare(out, rat, "descript", a.descript, b.descript);
        compare(out, rat, "free", a.free, b.free);
        compare(out, rat, "sv", a.sv, b.sv);
        compare_words<shmrmctl::ResourceWords>(out, rat, a, b);
    }
}

}  // namespace

OwnRecords expected(const Model& m, const Identity& id) {
    OwnRecords out;
    out.main = group_of(m.main, id.group, id);
    if (m.scratch) out.scratch = group_of(*m.scratch, id.scratch, id);
    for (const Mon& x : m.mons) {
        shmrmctl::Monitor mon;
        mon.name = id.monitor(x.k);
        mon.type = Identity::monitor_type(x.k);
        mon.descript = text_of(x.descript);
        static_cast<shmrmctl::MonitorWords&>(mon) = x.words;
        mon.progress = x.progress;
        mon.tick3 = x.tick3_zero ? 0 : kAnyTick;
        mon.tick4 = x.tick4_zero ? 0 : kAnyTick;
        out.monitors.push_back(std::move(mon));
    }
    return out;
}

OwnRecords own_in(const shmrmctl::Snapshot& s, const Identity& id) {
    OwnRecords out;
    for (const auto& g : s.groups) {
        if (!out.main && g.name == id.group) out.main = g;
        if (!out.scratch && g.name == id.scratch) out.scratch = g;
    }
    for (const auto& m : s.monitors)
        if (m.name.rfind(id.monitor_prefix, 0) == 0) out.monitors.push_back(m);
    return out;
}

std::string difference(const OwnRecords& want, const OwnRecords& got) {
    std::string out;
    compare(out, "records", "presence of the group", want.main.has_value(), got.main.has_value());
    if (out.empty() && want.main) compare_group(out, *want.main, *got.main);
    compare(out, "records", "presence of the scratch group", want.scratch.has_value(),
            got.scratch.has_value());
    if (out.empty() && want.scratch) compare_group(out, *want.scratch, *got.scratch);
    compare(out, "records", "monitor count", want.monitors.size(), got.monitors.size());
    for (std::size_t i = 0; out.empty() && i < want.monitors.size(); ++i) {
        const auto& a = want.monitors[i];
        const auto& b = got.monitors[i];
        const std::string at = "monitor " + std::to_string(i) + " (" + a.name + ")";
        compare(out, at, "name", a.name, b.name);
        compare(out, at, "type", a.type, b.type);
        compare(out, at, "descript", a.descript, b.descript);
        compare_words<shmrmctl::MonitorWords>(out, at, a, b);
        compare(out, at, "progress", a.progress, b.progress);
        if (a.tick3 != kAnyTick) compare(out, at, "tick3", a.tick3, b.tick3);
        if (a.tick4 != kAnyTick) compare(out, at, "tick4", a.tick4, b.tick4);
    }
    return out;
}

}  // namespace stress
