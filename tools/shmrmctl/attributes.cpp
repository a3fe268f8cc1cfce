#include "attributes.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <array>
#include <cctype>
#include <charconv>
#include <cstring>
#include <limits>
#include <tuple>
#include <type_traits>

#include "render.h"
#include "vexshmrm.h"
#include "vexshmrm_schema.h"

namespace shmrmctl {

namespace {

// An export called with the keys its record uses, told apart by their count: none (the header),
// the group, the type and name (a monitor), or group, type and name (a resource); then `rest`.
template <typename... A>
constexpr std::size_t arity(int (*)(A...)) {
    return sizeof...(A);
}
template <auto F, typename... Rest>
int with_keys(const Keys& k, Rest... rest) {
    constexpr std::size_t keys = arity(F) - sizeof...(Rest);
    if constexpr (keys == 0)
        return F(rest...);
    else if constexpr (keys == 1)
        return F(k.group.c_str(), rest...);
    else if constexpr (keys == 2)
        return F(k.typ(), k.nam(), rest...);
    else
        return F(k.grp(), k.typ(), k.nam(), rest...);
}

// The last parameter's type of an export.
template <typename... A>
auto last_parameter(int (*)(A...)) -> std::tuple_element_t<sizeof...(A) - 1, std::tuple<A...>>;
template <auto F>
using Last = decltype(last_parameter(F));

// A getter or setter of an attribute; a setter sets `error` instead of calling its export when
// the value is no value of the attribute.
using Get = int (*)(Kind, const Keys&, std::string& value);
using Set = int (*)(Kind, const Keys&, const std::string& value, std::string& error);

int bad(std::string& error, const std::string& value, const char* what) {
    error = fmt::format("'{}' is not {}", value, what);
    return 0;
}

// A word: its integer value; written within the range of the setter's type.
template <auto F>
int word_get(Kind, const Keys& k, std::string& value) {
    std::remove_pointer_t<Last<F>> v = 0;
    const int rc = with_keys<F>(k, &v);
    value = std::to_string(v);
    return rc;
}
// The C type of a word's setter as the schema spells it, for messages.
template <typename T>
constexpr const char* type_name() {
    if constexpr (std::is_same_v<T, int>)
        return "an int";
    else if constexpr (std::is_same_v<T, unsigned int>)
        return "an unsigned int";
    else if constexpr (std::is_same_v<T, short>)
        return "a short";
    else if constexpr (std::is_same_v<T, unsigned short>)
        return "an unsigned short";
    else
        static_assert(sizeof(T) == 0, "a word's setter takes an int, a short or their unsigned");
}

// `text` as an integer of type T, or `error` saying why not.
template <typename T>
bool integer_of(const std::string& text, T& out, std::string& error) {
    constexpr long long low = std::numeric_limits<T>::min(), high = std::numeric_limits<T>::max();
    long long v = 0;
    if (!parse_integer(text, std::numeric_limits<long long>::min(),
                       std::numeric_limits<long long>::max(), v)) {
        error = fmt::format("'{}' is not a number (write it in decimal, or in hex after 0x)", text);
        return false;
    }
    if (v < low || v > high) {
        error = fmt::format("{} is out of range: {} is {} to {}", text, type_name<T>(), low, high);
        return false;
    }
    out = static_cast<T>(v);
    return true;
}

template <auto F>
int word_set(Kind, const Keys& k, const std::string& value, std::string& error) {
    Last<F> v = 0;
    if (!integer_of(value, v, error)) return 0;
    return with_keys<F>(k, v);
}

// sv: a text of up to 255 characters.
template <auto F>
int text_get(Kind, const Keys& k, std::string& value) {
    char buf[SHMRM_TEXT_LEN + 1] = {};
    const int rc = with_keys<F>(k, buf);
    value = std::string(buf, strnlen(buf, SHMRM_TEXT_LEN));
    return rc;
}
template <auto F>
int text_set(Kind, const Keys& k, const std::string& value, std::string&) {
    return with_keys<F>(k, value.c_str());
}

// free: up to 256 raw bytes, in hex.
bool parse_hex(const std::string& text, std::vector<unsigned char>& out) {
    if (text.size() % 2 != 0) return false;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        long long byte = 0;
        if (!parse_integer("0x" + text.substr(i, 2), 0, 255, byte)) return false;
        out.push_back(static_cast<unsigned char>(byte));
    }
    return true;
}
template <auto F>
int free_get(Kind, const Keys& k, std::string& value) {
    unsigned char buf[256] = {};
    int len = static_cast<int>(sizeof buf);
    const int rc = with_keys<F>(k, buf, &len);
    value = hex(buf, static_cast<std::size_t>(std::clamp(len, 0, 256)));
    return rc;
}
template <auto F>
int free_set(Kind, const Keys& k, const std::string& value, std::string& error) {
    std::vector<unsigned char> data;
    if (!parse_hex(value, data) || data.empty() || data.size() > 256) {
        return bad(error, value, "1 to 256 bytes in hex");
    }
    return with_keys<F>(k, data.data(), static_cast<int>(data.size()));
}

// descript: the export addresses a resource by its group, a monitor without one.
const char* descript_group(Kind kind, const Keys& k) {
    return kind == Kind::kResource ? k.grp() : nullptr;
}
template <auto F>
int descript_get(Kind kind, const Keys& k, std::string& value) {
    char buf[SHMRM_TEXT_LEN + 1] = {};
    const int len = SHMRM_TEXT_LEN;
    const int rc = F(descript_group(kind, k), k.typ(), k.nam(), buf, &len);
    value = std::string(buf, strnlen(buf, SHMRM_TEXT_LEN));
    return rc;
}
template <auto F>
int descript_set(Kind kind, const Keys& k, const std::string& value, std::string&) {
    // The text with its NUL, so a monitor's raw copy ends the text too.
    const std::size_t n = std::min<std::size_t>(value.size() + 1, SHMRM_TEXT_LEN);
    return F(descript_group(kind, k), k.typ(), k.nam(), value.c_str(), static_cast<int>(n));
}

// progress: the step, read with its two tick stamps.
template <auto F>
int progress_get(Kind, const Keys& k, std::string& value) {
    int step = 0;
    unsigned int t3 = 0, t4 = 0;
    const int rc = with_keys<F>(k, &step, &t3, &t4);
    value = fmt::format("{} {} {}", step, t3, t4);
    return rc;
}
template <auto F>
int progress_set(Kind kind, const Keys& k, const std::string& value, std::string& error) {
    return word_set<F>(kind, k, value, error);
}

// maxvalue: the three capacities, GRPMAX,RSCMAX,MONMAX.
template <auto F>
int maxvalue_get(Kind, const Keys&, std::string& value) {
    int g = 0, r = 0, m = 0;
    const int rc = F(&g, &r, &m);
    value = fmt::format("{},{},{}", g, r, m);
    return rc;
}
template <auto F>
int maxvalue_set(Kind, const Keys&, const std::string& value, std::string& error) {
    const auto c1 = value.find(','), c2 = value.rfind(',');
    if (c1 == std::string::npos || c1 == c2) {
        error = fmt::format("'{}' is not GRPMAX,RSCMAX,MONMAX", value);
        return 0;
    }
    std::array<int, 3> v{};
    if (!integer_of(value.substr(0, c1), v[0], error) ||
        !integer_of(value.substr(c1 + 1, c2 - c1 - 1), v[1], error) ||
        !integer_of(value.substr(c2 + 1), v[2], error)) {
        return 0;
    }
    return F(v[0], v[1], v[2]);
}

struct Attribute {
    Kind kind;
    const char* name;
    std::string_view shape;
    Get get;
    const char* get_name;
    Set set;
    const char* set_name;
};

// The rows of the records' schema, each onto its getter and setter as its shape reads and
// writes them.
#define SHMRMCTL_ROW(kind, name, shape, getter, setter) \
    {kind,                                              \
     #name,                                             \
     #shape,                                            \
     shape##_get<shmrm_##getter>,                       \
     "shmrm_" #getter,                                  \
     shape##_set<shmrm_##setter>,                       \
     "shmrm_" #setter},
#define SHMRMCTL_HEADER(name, shape, ft, gt, st, getter, setter, ...) \
    SHMRMCTL_ROW(Kind::kHeader, name, shape, getter, setter)
#define SHMRMCTL_GROUP(name, shape, ft, gt, st, getter, setter, ...) \
    SHMRMCTL_ROW(Kind::kGroup, name, shape, getter, setter)
#define SHMRMCTL_RESOURCE(name, shape, ft, gt, st, getter, setter, ...) \
    SHMRMCTL_ROW(Kind::kResource, name, shape, getter, setter)
#define SHMRMCTL_MONITOR(name, shape, ft, gt, st, getter, setter, ...) \
    SHMRMCTL_ROW(Kind::kMonitor, name, shape, getter, setter)

const Attribute kAttributes[] = {
    SHMRM_HEADER_ATTRIBUTES(SHMRMCTL_HEADER) SHMRM_GROUP_ATTRIBUTES(SHMRMCTL_GROUP)
        SHMRM_RESOURCE_ATTRIBUTES(SHMRMCTL_RESOURCE) SHMRM_MONITOR_ATTRIBUTES(SHMRMCTL_MONITOR)};

#undef SHMRMCTL_ROW
#undef SHMRMCTL_HEADER
#undef SHMRMCTL_GROUP
#undef SHMRMCTL_RESOURCE
#undef SHMRMCTL_MONITOR

const char* kind_name(Kind kind) {
    static constexpr const char* kNames[] = {"the header", "a group", "a resource", "a monitor"};
    return kNames[static_cast<int>(kind)];
}

const Attribute* find(Kind kind, std::string_view name) {
    for (const Attribute& a : kAttributes) {
        if (a.kind == kind && name == a.name) return &a;
    }
    return nullptr;
}

Outcome refused(std::string error, Exit exit) {
    Outcome o;
    o.error = std::move(error);
    o.exit = exit;
    return o;
}

Outcome unknown(Kind kind, std::string_view name) {
    return refused(fmt::format("{} has no attribute '{}' (it has: {})", kind_name(kind), name,
                               fmt::join(attribute_names(kind), ", ")),
                   kExitUsage);
}

// Whether the record the keys name is there (the keys name one record: no '*').
bool exists(Kind kind, const Keys& k) {
    int stat = 0;
    switch (kind) {
        case Kind::kHeader:
            return true;
        case Kind::kGroup:
            return shmrm_getgrpstat(k.group.c_str(), &stat) == SHMRM_OK;
        case Kind::kResource:
            return shmrm_getrscstat(k.grp(), k.typ(), k.nam(), &stat) == SHMRM_OK;
        case Kind::kMonitor:
            return shmrm_getmonstat(k.typ(), k.nam(), &stat) == SHMRM_OK;
    }
    return false;
}

// The outcome of an export that ran, explained when it failed. `doing` says what the command
// did to the record ("setting stat of"), for results other than a record not found.
Outcome& explain(Outcome& o, Kind kind, const Keys& k, const std::string& doing) {
    if (o.rc == SHMRM_OK) return o;
    o.exit = result_exit(o.rc);
    o.hint = result_hint(o.rc);
    if (o.rc == SHMRM_ERR_NOTFOUND) {
        // A resource in a group that is not there: the group is what is missing.
        o.error = kind == Kind::kResource && !k.any_group && !exists(Kind::kGroup, k)
                      ? fmt::format("no group '{}'", k.group)
                      : "no " + describe(kind, k);
    } else {
        o.error = fmt::format("{} {}: {}", doing, describe(kind, k), result_meaning(o.rc));
    }
    return o;
}

}  // namespace

bool parse_kind(std::string_view text, Kind& kind) {
    static constexpr std::pair<std::string_view, Kind> kinds[] = {{"header", Kind::kHeader},
                                                                  {"group", Kind::kGroup},
                                                                  {"resource", Kind::kResource},
                                                                  {"monitor", Kind::kMonitor}};
    for (const auto& [name, k] : kinds) {
        if (text == name) {
            kind = k;
            return true;
        }
    }
    return false;
}

std::size_t key_count(Kind kind) {
    switch (kind) {
        case Kind::kHeader:
            return 0;
        case Kind::kGroup:
            return 1;
        case Kind::kResource:
            return 3;
        case Kind::kMonitor:
            return 2;
    }
    return 0;
}

Keys make_keys(Kind kind, const std::vector<std::string>& keys) {
    Keys k;
    switch (kind) {
        case Kind::kHeader:
            break;
        case Kind::kGroup:
            k.group = keys.at(0);
            break;
        case Kind::kResource:
            k.group = keys.at(0);
            k.type = keys.at(1);
            k.name = keys.at(2);
            k.any_group = k.group == "*";
            k.any_type = k.type == "*";
            break;
        case Kind::kMonitor:
            k.type = keys.at(0);
            k.name = keys.at(1);
            k.any_type = k.type == "*";
            break;
    }
    return k;
}

bool parse_integer(std::string_view text, long long low, long long high, long long& out) {
    const bool negative = text.starts_with('-');
    if (negative) text.remove_prefix(1);
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        text.remove_prefix(2);
        base = 16;
    }
    // from_chars alone would take a second sign, and base 16 on its own takes no prefix.
    if (text.empty() || !std::isxdigit(static_cast<unsigned char>(text.front()))) return false;
    unsigned long long magnitude = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
    if (ec != std::errc() || end != text.data() + text.size()) return false;
    constexpr auto kMax = static_cast<unsigned long long>(std::numeric_limits<long long>::max());
    if (magnitude > kMax + (negative ? 1 : 0)) return false;
    const long long v =
        negative ? static_cast<long long>(0ULL - magnitude) : static_cast<long long>(magnitude);
    if (v < low || v > high) return false;
    out = v;
    return true;
}

std::size_t utf8_head(std::string_view text, std::size_t max) {
    if (text.size() <= max) return text.size();
    std::size_t n = max;
    // text[n] is the first byte left out: while it continues a character, that character would
    // be split.
    while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80)
        --n;
    return n;
}

bool fit_text(std::string& text, std::size_t max, std::string_view what, const WritePolicy& policy,
              std::vector<std::string>& warnings, std::string& error) {
    if (text.size() <= max) return true;
    if (!policy.truncate) {
        error = fmt::format("the {} is {} bytes long; at most {} fit (--truncate cuts it)", what,
                            text.size(), max);
        return false;
    }
    const std::size_t keep = utf8_head(text, max);
    warnings.push_back(fmt::format("the {} is cut from {} to {} bytes", what, text.size(), keep));
    text.resize(keep);
    return true;
}

std::string describe(Kind kind, const Keys& k) {
    switch (kind) {
        case Kind::kHeader:
            return "the header";
        case Kind::kGroup:
            return fmt::format("group '{}'", k.group);
        case Kind::kResource:
            return fmt::format(
                "resource '{}/{}' in {}", k.type, k.name,
                k.any_group ? std::string("any group") : fmt::format("group '{}'", k.group));
        case Kind::kMonitor:
            return fmt::format("monitor '{}/{}'", k.type, k.name);
    }
    return {};
}

std::vector<std::string> attribute_names(Kind kind) {
    std::vector<std::string> out;
    for (const Attribute& a : kAttributes) {
        if (a.kind == kind) out.emplace_back(a.name);
    }
    return out;
}

Outcome get_attribute(Kind kind, const Keys& k, std::string_view name) {
    const Attribute* a = find(kind, name);
    if (a == nullptr) return unknown(kind, name);
    Outcome o;
    o.call = a->get_name;
    o.rc = a->get(kind, k, o.value);
    if (o.rc != SHMRM_OK) o.value.clear();
    return explain(o, kind, k, fmt::format("reading {} of", name));
}

Outcome set_attribute(Kind kind, const Keys& k, std::string_view name, const std::string& value,
                      const WritePolicy& policy) {
    const Attribute* a = find(kind, name);
    if (a == nullptr) return unknown(kind, name);
    if (a->shape == "descript" && (k.any_type || (kind == Kind::kResource && k.any_group))) {
        return refused(fmt::format("descript needs the {}'s group and type, not '*'",
                                   kind == Kind::kResource ? "resource" : "monitor"),
                       kExitUsage);
    }
    Outcome o;
    std::string text = value;
    if (a->shape == "text" || a->shape == "descript") {
        if (!fit_text(text, SHMRM_TEXT_LEN - 1, fmt::format("{} text", name), policy, o.warnings,
                      o.error)) {
            o.exit = kExitBadValue;
            return o;
        }
    }
    o.rc = a->set(kind, k, text, o.error);
    if (!o.error.empty()) {
        o.error = fmt::format("{} of {}: {}", name, describe(kind, k), o.error);
        o.exit = kExitBadValue;
        return o;
    }
    o.call = a->set_name;
    return explain(o, kind, k, fmt::format("setting {} of", name));
}

Outcome add_record(Kind kind, const Keys& k, const WritePolicy& policy) {
    if (kind == Kind::kHeader) return refused("the header is no record to add", kExitUsage);
    if (k.any_group || k.any_type) {
        return refused(fmt::format("a new {} needs its {}, not '*'", describe(kind, k),
                                   kind == Kind::kResource ? "group and type" : "type"),
                       kExitUsage);
    }
    // What the library accepts but an operator most likely did not mean.
    Outcome o;
    const std::pair<const std::string*, const char*> keys[] = {
        {&k.group, "group name"}, {&k.type, "type"}, {&k.name, "name"}};
    for (const auto& [key, what] : keys) {
        const bool used =
            kind == Kind::kGroup ? key == &k.group : kind == Kind::kResource || key != &k.group;
        if (used && key->empty()) {
            o.warnings.push_back(
                fmt::format("adding {} with an empty {}", describe(kind, k), what));
        }
    }
    if (exists(kind, k)) {
        o.warnings.push_back(fmt::format(
            "{} exists already; this adds another of the same name, which lookups never reach",
            describe(kind, k)));
    }
    if (policy.strict && !o.warnings.empty()) {
        o.error = o.warnings.front() + " (refused under --strict)";
        o.warnings.clear();
        o.exit = kExitBadValue;
        return o;
    }
    switch (kind) {
        case Kind::kHeader:
            break;
        case Kind::kGroup:
            o.call = "shmrm_addgrp";
            o.rc = shmrm_addgrp(k.group.c_str());
            break;
        case Kind::kResource:
            o.call = "shmrm_addrsc";
            o.rc = shmrm_addrsc(k.grp(), k.typ(), k.nam());
            break;
        case Kind::kMonitor:
            o.call = "shmrm_addmon";
            o.rc = shmrm_addmon(k.typ(), k.nam());
            break;
    }
    return explain(o, kind, k, "adding");
}

Outcome remove_record(Kind kind, const Keys& k) {
    Outcome o;
    switch (kind) {
        case Kind::kHeader:
            return refused("the header is no record to remove", kExitUsage);
        case Kind::kGroup:
            o.call = "shmrm_rmgrp";
            o.rc = shmrm_rmgrp(k.group.c_str());
            break;
        case Kind::kResource:
            o.call = "shmrm_rmrsc";
            o.rc = shmrm_rmrsc(k.grp(), k.typ(), k.nam());
            break;
        case Kind::kMonitor:
            o.call = "shmrm_rmmon";
            o.rc = shmrm_rmmon(k.typ(), k.nam());
            break;
    }
    return explain(o, kind, k, "removing");
}

}  // namespace shmrmctl
