// A snapshot of the region decoded from its bytes, the invariant check, and the dump file.
//
// Everything here works from a byte buffer alone: no region, no library state. The decoder
// trusts nothing in the bytes; whatever the header claims, it never reads past the end of the
// buffer and reports what it could not decode as damage.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "region_layout.h"

#include "words.h"

namespace shmrmctl {

using Bytes = std::vector<std::byte>;
using ByteView = std::span<const std::byte>;

using shmrm::Capacities;

// Each record keeps its integer attributes in the words struct of its schema rows (words.h),
// and beside them what is not a word: keys, texts, counts and the progress stamps.
struct Header : HeaderWords {
    Capacities caps;
    int grpcnt = 0;
    int moncnt = 0;
};

struct Resource : ResourceWords {
    std::string name;
    std::string type;
    std::string descript;
    std::array<std::uint8_t, 256> free{};
    std::string sv;
};

struct Group : GroupWords {
    std::string name;
    std::string sv;
    int rsccnt = 0;  // as stored; `resources` holds the slots that could be decoded
    std::vector<Resource> resources;
};

struct Monitor : MonitorWords {
    std::string name;
    std::string type;
    std::string descript;
    int progress = 0;
    std::uint32_t tick3 = 0;
    std::uint32_t tick4 = 0;
};

// Copies every word of a record of the region into the words struct of its snapshot.
template <typename Words>
void copy_words(const typename Words::Record& from, Words& to) {
    Words::each([&](auto w) { to.*w.value = from.*w.field; });
}

struct Snapshot {
    std::size_t size = 0;  // bytes decoded from
    bool has_header = false;
    Header header;
    std::vector<Group> groups;
    std::vector<Monitor> monitors;
    std::vector<std::string> damage;  // what could not be decoded, and why
};

// Decodes the region's bytes: the whole region, so their length is its real size. The layout
// (table positions) follows `layout` when given, otherwise the capacities in the bytes' own
// header. Where a view of the region covers whole pages, `page` is their size and the bytes
// may run on to the next multiple of it; 1 when they are the region exactly.
Snapshot decode(ByteView bytes, std::optional<Capacities> layout = std::nullopt,
                std::size_t page = 1);

// Every violated invariant of the region, one line each; empty for a healthy region.
std::vector<std::string> check(ByteView bytes, std::optional<Capacities> layout = std::nullopt,
                               std::size_t page = 1);

// The dump file: a 40-byte header of our own (magic, version, header size, region size,
// capacities), then the region's bytes.
struct DumpFile {
    Capacities caps;
    Bytes bytes;
    std::vector<std::string> damage;  // a truncated or overlong file; the bytes are what is there
};
inline constexpr char kDumpMagic[8] = {'V', 'E', 'X', 'S', 'H', 'M', 'D', '\0'};
inline constexpr std::uint32_t kDumpVersion = 1;
inline constexpr std::size_t kDumpHeaderSize = 40;

Bytes encode_dump(ByteView region, Capacities caps);
// Parses a dump file's contents; nullopt and `error` set when it is not a dump at all.
std::optional<DumpFile> parse_dump(ByteView file, std::string& error);
// Reads a whole file, refusing anything larger than a region can be; nullopt and `error` set
// on failure.
std::optional<Bytes> read_file(const std::string& path, std::string& error);

// The capacities of a snapshot's header as written into a dump.
Capacities header_caps(ByteView bytes);

}  // namespace shmrmctl
