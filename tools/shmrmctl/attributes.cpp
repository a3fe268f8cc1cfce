#include "attributes.h"

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <variant>

#include "render.h"
#include "vexshmrm.h"
#include "vexshmrm_schema.h"

namespace shmrmctl {

namespace {

using HdrGet = int (*)(int*);
using MaxGet = int (*)(int*, int*, int*);
using GrpGetInt = int (*)(const char*, int*);
using GrpGetFlag = int (*)(const char*, unsigned short*);
using GrpGetText = int (*)(const char*, char*);
using RscGetInt = int (*)(const char*, const char*, const char*, int*);
using RscGetText = int (*)(const char*, const char*, const char*, char*);
using RscGetFree = int (*)(const char*, const char*, const char*, void*, int*);
using MonGetInt = int (*)(const char*, const char*, int*);
using MonGetProgress = int (*)(const char*, const char*, int*, unsigned int*, unsigned int*);
using GetDescript = int (*)(const char*, const char*, const char*, char*, const int*);
using Getter = std::variant<HdrGet, MaxGet, GrpGetInt, GrpGetFlag, GrpGetText, RscGetInt,
                            RscGetText, RscGetFree, MonGetInt, MonGetProgress, GetDescript>;

using HdrSet = int (*)(int);
using MaxSet = int (*)(int, int, int);
using GrpSetInt = int (*)(const char*, int);
using GrpSetFlag = int (*)(const char*, unsigned short);
using GrpSetText = int (*)(const char*, const char*);
using RscSetInt = int (*)(const char*, const char*, const char*, int);
using RscSetText = int (*)(const char*, const char*, const char*, const char*);
using RscSetFree = int (*)(const char*, const char*, const char*, const void*, int);
using MonSetInt = int (*)(const char*, const char*, int);
using MonSetShort = int (*)(const char*, const char*, short);
using SetDescript = int (*)(const char*, const char*, const char*, const char*, int);
using Setter = std::variant<HdrSet, MaxSet, GrpSetInt, GrpSetFlag, GrpSetText, RscSetInt,
                            RscSetText, RscSetFree, MonSetInt, MonSetShort, SetDescript>;

struct Attribute {
    Kind kind;
    const char* name;
    Getter get;
    const char* get_name;
    Setter set;
    const char* set_name;
};

// The rows of the records' schema, each onto its getter and setter.
#define SHMRMCTL_ROW(kind, name, getter, setter) \
    {kind, #name, shmrm_##getter, "shmrm_" #getter, shmrm_##setter, "shmrm_" #setter},
#define SHMRMCTL_HEADER(name, shape, ft, gt, st, getter, setter, ...) \
    SHMRMCTL_ROW(Kind::kHeader, name, getter, setter)
#define SHMRMCTL_GROUP(name, shape, ft, gt, st, getter, setter, ...) \
    SHMRMCTL_ROW(Kind::kGroup, name, getter, setter)
#define SHMRMCTL_RESOURCE(name, shape, ft, gt, st, getter, setter, ...) \
    SHMRMCTL_ROW(Kind::kResource, name, getter, setter)
#define SHMRMCTL_MONITOR(name, shape, ft, gt, st, getter, setter, ...) \
    SHMRMCTL_ROW(Kind::kMonitor, name, getter, setter)

const Attribute kAttributes[] = {
    SHMRM_HEADER_ATTRIBUTES(SHMRMCTL_HEADER) SHMRM_GROUP_ATTRIBUTES(SHMRMCTL_GROUP)
        SHMRM_RESOURCE_ATTRIBUTES(SHMRMCTL_RESOURCE) SHMRM_MONITOR_ATTRIBUTES(SHMRMCTL_MONITOR)};

#undef SHMRMCTL_ROW
#undef SHMRMCTL_HEADER
#undef SHMRMCTL_GROUP
#undef SHMRMCTL_RESOURCE
#undef SHMRMCTL_MONITOR

template <class... F>
struct Overloaded : F... {
    using F::operator()...;
};
template <class... F>
Overloaded(F...) -> Overloaded<F...>;

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

// A resource's description needs its group: without one the export addresses a monitor.
const char* descript_group(Kind kind, const Keys& k) {
    return kind == Kind::kResource ? k.grp() : nullptr;
}

bool parse_hex(const std::string& text, std::vector<unsigned char>& out) {
    if (text.size() % 2 != 0) return false;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        long long byte = 0;
        if (!parse_integer("0x" + text.substr(i, 2), 0, 255, byte)) return false;
        out.push_back(static_cast<unsigned char>(byte));
    }
    return true;
}

constexpr long long kInt32Low = -2147483648LL;
constexpr long long kUInt32High = 4294967295LL;  // stored bit for bit

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
    auto text = [](const char* buf, std::size_t size) {
        return std::string(buf, strnlen(buf, size));
    };
    o.rc = std::visit(Overloaded{
                          [&](HdrGet f) {
                              int v = 0;
                              const int rc = f(&v);
                              o.value = std::to_string(v);
                              return rc;
                          },
                          [&](MaxGet f) {
                              int g = 0, r = 0, m = 0;
                              const int rc = f(&g, &r, &m);
                              o.value = fmt::format("{},{},{}", g, r, m);
                              return rc;
                          },
                          [&](GrpGetInt f) {
                              int v = 0;
                              const int rc = f(k.group.c_str(), &v);
                              o.value = std::to_string(v);
                              return rc;
                          },
                          [&](GrpGetFlag f) {
                              unsigned short v = 0;
                              const int rc = f(k.group.c_str(), &v);
                              o.value = std::to_string(v);
                              return rc;
                          },
                          [&](GrpGetText f) {
                              char buf[SHMRM_TEXT_LEN + 1] = {};
                              const int rc = f(k.group.c_str(), buf);
                              o.value = text(buf, SHMRM_TEXT_LEN);
                              return rc;
                          },
                          [&](RscGetInt f) {
                              int v = 0;
                              const int rc = f(k.grp(), k.typ(), k.nam(), &v);
                              o.value = std::to_string(v);
                              return rc;
                          },
                          [&](RscGetText f) {
                              char buf[SHMRM_TEXT_LEN + 1] = {};
                              const int rc = f(k.grp(), k.typ(), k.nam(), buf);
                              o.value = text(buf, SHMRM_TEXT_LEN);
                              return rc;
                          },
                          [&](RscGetFree f) {
                              unsigned char buf[256] = {};
                              int len = static_cast<int>(sizeof buf);
                              const int rc = f(k.grp(), k.typ(), k.nam(), buf, &len);
                              o.value = hex(buf, static_cast<std::size_t>(std::clamp(len, 0, 256)));
                              return rc;
                          },
                          [&](MonGetInt f) {
                              int v = 0;
                              const int rc = f(k.typ(), k.nam(), &v);
                              o.value = std::to_string(v);
                              return rc;
                          },
                          [&](MonGetProgress f) {
                              int step = 0;
                              unsigned int t3 = 0, t4 = 0;
                              const int rc = f(k.typ(), k.nam(), &step, &t3, &t4);
                              o.value = fmt::format("{} {} {}", step, t3, t4);
                              return rc;
                          },
                          [&](GetDescript f) {
                              char buf[SHMRM_TEXT_LEN + 1] = {};
                              const int len = SHMRM_TEXT_LEN;
                              const int rc =
                                  f(descript_group(kind, k), k.typ(), k.nam(), buf, &len);
                              o.value = text(buf, SHMRM_TEXT_LEN);
                              return rc;
                          },
                      },
                      a->get);
    if (o.rc != SHMRM_OK) o.value.clear();
    return o;
}

Outcome set_attribute(Kind kind, const Keys& k, std::string_view name, const std::string& value) {
    const Attribute* a = find(kind, name);
    if (a == nullptr) return unknown(kind, name);
    Outcome o;
    auto bad = [&](const char* what) {
        o.error = fmt::format("'{}' is not {}", value, what);
        return 0;
    };
    auto integer = [&](long long low, long long high, long long& v) {
        return parse_integer(value, low, high, v);
    };
    const int rc = std::visit(
        Overloaded{
            [&](HdrSet f) {
                long long v = 0;
                if (!integer(kInt32Low, kUInt32High, v)) return bad("a 32-bit integer");
                o.call = a->set_name;
                return f(static_cast<int>(v));
            },
            [&](MaxSet f) {
                std::array<long long, 3> v{};
                const auto c1 = value.find(','), c2 = value.rfind(',');
                if (c1 == std::string::npos || c1 == c2 ||
                    !parse_integer(value.substr(0, c1), kInt32Low, INT32_MAX, v[0]) ||
                    !parse_integer(value.substr(c1 + 1, c2 - c1 - 1), kInt32Low, INT32_MAX, v[1]) ||
                    !parse_integer(value.substr(c2 + 1), kInt32Low, INT32_MAX, v[2])) {
                    return bad("GRPMAX,RSCMAX,MONMAX");
                }
                o.call = a->set_name;
                return f(static_cast<int>(v[0]), static_cast<int>(v[1]), static_cast<int>(v[2]));
            },
            [&](GrpSetInt f) {
                long long v = 0;
                if (!integer(kInt32Low, kUInt32High, v)) return bad("a 32-bit integer");
                o.call = a->set_name;
                return f(k.group.c_str(), static_cast<int>(v));
            },
            [&](GrpSetFlag f) {
                long long v = 0;
                if (!integer(0, 0xffff, v)) return bad("a 16-bit unsigned integer");
                o.call = a->set_name;
                return f(k.group.c_str(), static_cast<unsigned short>(v));
            },
            [&](GrpSetText f) {
                o.call = a->set_name;
                return f(k.group.c_str(), value.c_str());
            },
            [&](RscSetInt f) {
                long long v = 0;
                if (!integer(kInt32Low, kUInt32High, v)) return bad("a 32-bit integer");
                o.call = a->set_name;
                return f(k.grp(), k.typ(), k.nam(), static_cast<int>(v));
            },
            [&](RscSetText f) {
                o.call = a->set_name;
                return f(k.grp(), k.typ(), k.nam(), value.c_str());
            },
            [&](RscSetFree f) {
                std::vector<unsigned char> data;
                if (!parse_hex(value, data) || data.empty() || data.size() > 256) {
                    return bad("1 to 256 bytes in hex");
                }
                o.call = a->set_name;
                return f(k.grp(), k.typ(), k.nam(), data.data(), static_cast<int>(data.size()));
            },
            [&](MonSetInt f) {
                long long v = 0;
                if (!integer(kInt32Low, kUInt32High, v)) return bad("a 32-bit integer");
                o.call = a->set_name;
                return f(k.typ(), k.nam(), static_cast<int>(v));
            },
            [&](MonSetShort f) {
                long long v = 0;
                if (!integer(-32768, 0xffff, v)) return bad("a 16-bit integer");
                o.call = a->set_name;
                return f(k.typ(), k.nam(), static_cast<short>(v));
            },
            [&](SetDescript f) {
                if (kind == Kind::kResource && k.any_group) {
                    o.error = "a resource's descript needs its group name, not '*'";
                    return 0;
                }
                if (k.any_type) {
                    o.error = "descript needs the record's type, not '*'";
                    return 0;
                }
                // The text with its NUL, so a monitor's raw copy ends the text too.
                const std::size_t n = std::min<std::size_t>(value.size() + 1, SHMRM_TEXT_LEN);
                o.call = a->set_name;
                return f(descript_group(kind, k), k.typ(), k.nam(), value.c_str(),
                         static_cast<int>(n));
            },
        },
        a->set);
    o.rc = rc;
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
