// Every attribute the tool reads or writes, by record kind and name, each mapped onto the one
// export that reads it and the one that writes it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace shmrmctl {

enum class Kind { kHeader, kGroup, kResource, kMonitor };

// "header", "group", "resource", "monitor"; false for anything else.
bool parse_kind(std::string_view text, Kind& kind);
// How many keys address one record of the kind: 0, 1 (group), 3 (group type name), 2 (type name).
std::size_t key_count(Kind kind);

// The keys of one record; "*" for a group or type that may be left open becomes null.
struct Keys {
    std::string group, type, name;
    bool any_group = false, any_type = false;
    const char* grp() const { return any_group ? nullptr : group.c_str(); }
    const char* typ() const { return any_type ? nullptr : type.c_str(); }
    const char* nam() const { return name.c_str(); }
};
Keys make_keys(Kind kind, const std::vector<std::string>& keys);

struct Outcome {
    int rc = 0;
    std::string call;   // the export that ran; empty when none did
    std::string value;  // a getter's value as text
    std::string error;  // a usage error (no export ran)
};

// The attribute names of a kind, in table order.
std::vector<std::string> attribute_names(Kind kind);
Outcome get_attribute(Kind kind, const Keys& keys, std::string_view attribute);
Outcome set_attribute(Kind kind, const Keys& keys, std::string_view attribute,
                      const std::string& value);

Outcome add_record(Kind kind, const Keys& keys);
Outcome remove_record(Kind kind, const Keys& keys);

// Integer text: decimal or 0x hex, within [low, high]; false otherwise.
bool parse_integer(const std::string& text, long long low, long long high, long long& out);

}  // namespace shmrmctl
