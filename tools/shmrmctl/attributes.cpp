#include "attributes.h"

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <tuple>
#include <type_traits>

#include "render.h"
#include "vexshmrm.h"
#include "vexshmrm_schema.h"

namespace shmrmctl {

namespace {

constexpr long long kInt32Low = -2147483648LL;
constexpr long long kUInt32High = 4294967295LL;  // stored bit for bit

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
template <auto F>
int word_set(Kind, const Keys& k, const std::string& value, std::string& error) {
    using T = Last<F>;
    static_assert(sizeof(T) == 4 || sizeof(T) == 2, "a 32-bit or 16-bit word");
    constexpr bool wide = sizeof(T) == 4, is_unsigned = std::is_unsigned_v<T>;
    constexpr long long low = wide ? kInt32Low : is_unsigned ? 0 : -32768;
    constexpr long long high = wide ? kUInt32High : 0xffff;
    const char* what = wide          ? "a 32-bit integer"
                       : is_unsigned ? "a 16-bit unsigned integer"
                                     : "a 16-bit integer";
    long long v = 0;
    if (!parse_integer(value, low, high, v)) return bad(error, value, what);
    return with_keys<F>(k, static_cast<T>(v));
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
int descript_set(Kind kind, const Keys& k, const std::string& value, std::string& error) {
    if (kind == Kind::kResource && k.any_group) {
        error = "a resource's descript needs its group name, not '*'";
        return 0;
    }
    if (k.any_type) {
        error = "descript needs the record's type, not '*'";
        return 0;
    }
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
    std::array<long long, 3> v{};
    const auto c1 = value.find(','), c2 = value.rfind(',');
    if (c1 == std::string::npos || c1 == c2 ||
        !parse_integer(value.substr(0, c1), kInt32Low, INT32_MAX, v[0]) ||
        !parse_integer(value.substr(c1 + 1, c2 - c1 - 1), kInt32Low, INT32_MAX, v[1]) ||
        !parse_integer(value.substr(c2 + 1), kInt32Low, INT32_MAX, v[2])) {
        return bad(error, value, "GRPMAX,RSCMAX,MONMAX");
    }
    return F(static_cast<int>(v[0]), static_cast<int>(v[1]), static_cast<int>(v[2]));
}

struct Attribute {
    Kind kind;
    const char* name;
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

const Attribute* find(Kind kind, std::string_view name) {
    for (const Attribute& a : kAttributes) {
        if (a.kind == kind && name == a.name) return &a;
    }
    return nullptr;
}

Outcome unknown(Kind kind, std::string_view name) {
    std::string known;
    for (const auto& n : attribute_names(kind))
        known += (known.empty() ? "" : ", ") + n;
    return {0, {}, {}, fmt::format("unknown attribute '{}' (known: {})", name, known)};
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

bool parse_integer(const std::string& text, long long low, long long high, long long& out) {
    if (text.empty() || text.find_first_of(" \t\n") != std::string::npos) return false;
    errno = 0;
    char* end = nullptr;
    const long long v = std::strtoll(text.c_str(), &end, 0);
    if (errno != 0 || end == nullptr || *end != '\0' || v < low || v > high) return false;
    out = v;
    return true;
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
    return o;
}

Outcome set_attribute(Kind kind, const Keys& k, std::string_view name, const std::string& value) {
    const Attribute* a = find(kind, name);
    if (a == nullptr) return unknown(kind, name);
    Outcome o;
    o.rc = a->set(kind, k, value, o.error);
    if (o.error.empty()) o.call = a->set_name;
    return o;
}

Outcome add_record(Kind kind, const Keys& k) {
    Outcome o;
    switch (kind) {
        case Kind::kHeader:
            o.error = "the header is no record to add";
            break;
        case Kind::kGroup:
            o.call = "shmrm_addgrp";
            o.rc = shmrm_addgrp(k.group.c_str());
            break;
        case Kind::kResource:
            if (k.any_group || k.any_type) {
                o.error = "a new resource needs its group and type, not '*'";
                break;
            }
            o.call = "shmrm_addrsc";
            o.rc = shmrm_addrsc(k.grp(), k.typ(), k.nam());
            break;
        case Kind::kMonitor:
            if (k.any_type) {
                o.error = "a new monitor needs its type, not '*'";
                break;
            }
            o.call = "shmrm_addmon";
            o.rc = shmrm_addmon(k.typ(), k.nam());
            break;
    }
    return o;
}

Outcome remove_record(Kind kind, const Keys& k) {
    Outcome o;
    switch (kind) {
        case Kind::kHeader:
            o.error = "the header is no record to remove";
            break;
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
    return o;
}

}  // namespace shmrmctl
