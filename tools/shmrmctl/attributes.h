// Every attribute the tool reads or writes, by record kind and name, each mapped onto the one
// export that reads it and the one that writes it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "results.h"

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
    // Why it failed, in an operator's words (a refused value, or the export's result); empty on
    // success. `exit` is the status to end with, `hint` what to do about it.
    std::string error;
    Exit exit = kExitOk;
    std::string hint;
    std::vector<std::string> warnings;  // accepted, but worth a word on standard error
};

// What the writing commands do with a doubtful request.
struct WritePolicy {
    bool truncate = false;  // cut a text that is too long (at a character boundary) instead
    bool strict = false;    // refuse what is only warned about otherwise
};

// The attribute names of a kind, in table order.
std::vector<std::string> attribute_names(Kind kind);
Outcome get_attribute(Kind kind, const Keys& keys, std::string_view attribute);
Outcome set_attribute(Kind kind, const Keys& keys, std::string_view attribute,
                      const std::string& value, const WritePolicy& policy);

Outcome add_record(Kind kind, const Keys& keys, const WritePolicy& policy);
Outcome remove_record(Kind kind, const Keys& keys);

// "group 'web'", "resource 'ip/web-vip' in group 'web'", "monitor 'ping/gw'", "the header".
std::string describe(Kind kind, const Keys& keys);

// Integer text: decimal, or hex after 0x, with an optional '-'; no octal, no blanks. False when
// `text` is no such number or lies outside [low, high].
bool parse_integer(std::string_view text, long long low, long long high, long long& out);

// The longest head of `text` of at most `max` bytes that ends at a UTF-8 character boundary.
std::size_t utf8_head(std::string_view text, std::size_t max);
// Fits `text` into `max` bytes: true when it fits; cut at a character boundary (with a
// warning) when it does not and `policy.truncate`; otherwise false with `error` set. `what`
// names the text in messages ("group name").
bool fit_text(std::string& text, std::size_t max, std::string_view what, const WritePolicy& policy,
              std::vector<std::string>& warnings, std::string& error);

}  // namespace shmrmctl
