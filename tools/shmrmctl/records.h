// A snapshot's records as `get` shows them (each attribute's value as text, in the order of the
// schema's rows), finding one by its keys, and the changes from one snapshot to the next.
#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <utility>
#include <vector>

#include "attributes.h"
#include "snapshot.h"

namespace shmrmctl {

struct Record {
    Kind kind = Kind::kHeader;
    std::string group, type, name;  // the keys the kind has
    std::size_t index = 0;          // its position: group or monitor; the resource's group
    std::size_t slot = 0;           // a resource's position in its group
    std::vector<std::pair<std::string, std::string>> values;  // attribute, value
};

// "header", "group", "resource", "monitor".
const char* kind_name(Kind kind);
// The record's keys as one word: web, web/ip/web-vip, ping/gateway; empty for the header.
std::string record_id(const Record& r);

// The header, every group, every resource, every monitor, in region order.
std::vector<Record> records(const Snapshot& s);
// The first record of `kind` whose keys match ('*' matches any group or type); nullptr if none.
const Record* find_record(const std::vector<Record>& all, Kind kind, const Keys& keys);
// A record as an object of the status JSON, with its keys.
nlohmann::ordered_json record_json(const Snapshot& s, const Record& r);

struct Change {
    enum class What { kChanged, kAdded, kRemoved };
    What what = What::kChanged;
    Kind kind = Kind::kHeader;
    std::string id;
    std::string attribute, before, after;  // kChanged only
};

// What changed from `before` to `after`: a record is the same record when its kind and keys
// are (the n-th of several alike is the n-th). Added and changed records in the order of
// `after`, then removed ones.
std::vector<Change> diff(const std::vector<Record>& before, const std::vector<Record>& after);
std::vector<Change> diff(const Snapshot& before, const Snapshot& after);
// One change as a line: "resource web/ip/web-vip stat 0 -> 2", "group db added"; a value that
// is empty or holds a space, quote or backslash is written in double quotes.
std::string change_text(const Change& c);

}  // namespace shmrmctl
