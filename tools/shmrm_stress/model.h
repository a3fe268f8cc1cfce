// What one worker thread owns in the region, as a compact model: its group and resources, a
// scratch group it adds and removes, and its monitors. A series of calls is planned from the
// model and a seed, so that any process can rebuild the records a thread must hold after any
// number of committed series, and the records it may hold while one was cut short.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "snapshot.h"

namespace stress {

// Sizes every process of a run agrees on.
struct Params {
    std::uint64_t seed = 1;
    int resources = 6;  // rscmax: resource slots per group
    int monitors = 3;   // monitors a thread may own
};

// The names of one thread's records. Owner `slot` is worker * threads + thread.
struct Identity {
    explicit Identity(int slot);
    int slot;
    std::string group;    // its group, added by the parent; the commit record lives here
    std::string scratch;  // a group the thread adds and removes
    std::string scratch_rsc;
    std::string monitor_prefix;
    std::string resource(int k) const;
    static std::string resource_type(int k);
    std::string monitor(int k) const;
    static std::string monitor_type(int k);
};

// The bookkeeping words of a thread's group (never planned, never compared as records).
//   focnt:    the last committed series (the commit point)
//   retrycnt: the series under way (its pending mark)
//   env:      lock takeovers this thread found (series of a dead holder)
inline constexpr std::string_view kLedgerWords[] = {"focnt", "retrycnt", "env"};

// A text derived from a seed: empty for 0, else 1 to 255 printable characters.
std::string text_of(std::uint32_t seed);

// What a series may set on a record: one of its words (by its place among the record's words)
// or one of its other attributes.
struct Field {
    bool is_word = false;
    std::size_t word = 0;
    shmrmctl::Other other{};
    std::string_view name;
};
// The fields of a record, numbered as Op::field counts them: its words (the 32-bit ones in row
// order, then the narrower ones; a group's bookkeeping words left out), then its sv,
// description and free area where it has them.
const std::vector<Field>& group_fields();
const std::vector<Field>& resource_fields();
const std::vector<Field>& monitor_fields();

struct Rsc {
    int k = 0;
    shmrmctl::ResourceWords words{};
    std::uint32_t sv = 0, descript = 0;  // text seeds
    std::array<std::uint8_t, 256> free{};
};

struct Mon {
    int k = 0;
    shmrmctl::MonitorWords words{};
    std::uint32_t descript = 0;
    int progress = 0;
    bool tick3_zero = true, tick4_zero = true;
};

struct Grp {
    shmrmctl::GroupWords words{};  // the bookkeeping words stay 0 here
    std::uint32_t sv = 0;
    std::vector<Rsc> rsc;
};

struct Model {
    Grp main;
    std::optional<Grp> scratch;
    std::vector<Mon> mons;
};

enum class OpKind : std::uint8_t {
    kAddRsc,
    kRmRsc,
    kSetRsc,  // field: of resource_fields()
    kSetGrp,  // field: of group_fields()
    kAddMon,
    kRmMon,
    kSetMon,  // field: of monitor_fields()
    kProgress,
    kAddScratch,
    kSetScratch,  // field: of group_fields()
    kAddScratchRsc,
    kSetScratchRsc,  // its stat
    kRmScratch,
};

// One library call of a series and the result it must give.
struct Op {
    OpKind kind{};
    int k = 0;
    int field = 0;
    int value = 0;
    std::uint32_t seed = 0;
    int len = 0;  // bytes given to a free-area write
    int expect = 0;
};

struct Series {
    std::vector<Op> ops;
    Model after;
};

// Series `seq` of thread `slot` from the records it starts from.
Series plan(const Model& before, const Params& p, int slot, std::uint64_t seq);
// The model after one call; returns the result code the library must give.
int apply(Model& m, const Op& op, const Params& p);
// The model after `committed` series, from the records the parent made.
Model replay(const Params& p, int slot, std::uint64_t committed);
// Calls the library for `op`; returns its result code.
int execute(const Op& op, const Identity& id);
// Whether a call writes more than one word of the region (and so is not atomic against the
// death of its caller).
bool compound(const Op& op);
std::string describe(const Op& op);

// A thread's records as read from the region, in table order, or as the model expects them.
// An expected tick stamp of kAnyTick matches any value.
struct OwnRecords {
    std::optional<shmrmctl::Group> main;
    std::optional<shmrmctl::Group> scratch;
    std::vector<shmrmctl::Monitor> monitors;
};
inline constexpr std::uint32_t kAnyTick = 0xFFFFFFFFu;

OwnRecords expected(const Model& m, const Identity& id);
OwnRecords own_in(const shmrmctl::Snapshot& s, const Identity& id);
// The first difference between what is expected and what was found; empty when they agree.
// The group's bookkeeping words are not compared.
std::string difference(const OwnRecords& want, const OwnRecords& got);

}  // namespace stress
