// A reference model of the library's contract in plain containers, and a driver that runs
// record and header operations against the library and the model at once: every result, every
// out-value and, after every step, the whole region (rendered by the model) must agree. Its
// choices come from a seeded generator (model_test.cpp) or a fuzzer's input (fuzz/api_fuzz.cpp).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "region_layout.h"
#include "support/fake_imports.h"
#include "vexshmrm.h"

namespace vextest {

using Bytes = std::vector<unsigned char>;

// The small region of the table tests and the driver: 4 groups of 3 resources, 4 monitors.
constexpr int kGroups = 4, kSlots = 3, kMonitors = 4;
constexpr shmrm::Geometry kLayout = *shmrm::geometry({kGroups, kSlots, kMonitors});
constexpr int kStride = int(kLayout.group_stride);
constexpr int kMonTable = int(kLayout.monitors_at);
constexpr int kRegionSize = int(kLayout.size);

inline constexpr auto grp_at = [](int g) { return int(kLayout.group_at(g)); };
inline constexpr auto rsc_at = [](int g, int r) { return int(kLayout.resource_at(g, r)); };
inline constexpr auto mon_at = [](int m) { return int(kLayout.monitor_at(m)); };

// Where a run's choices come from: a seeded generator, or a fuzzer's input, where a choice among
// at most 256 takes one byte and any other four (little-endian), and 0 once it is used up. With
// `record`, the generator appends each choice as the input bytes that make it: a fuzzer input.
class Choices {
  public:
    explicit Choices(unsigned seed, Bytes* record = nullptr) : rng_(seed), record_(record) {}
    Choices(const std::uint8_t* data, std::size_t size) : input_(true), data_(data), left_(size) {}
    int pick(int n) { return static_cast<int>(take(n <= 256 ? 1 : 4, static_cast<unsigned>(n))); }
    unsigned bits() { return take(4, 0); }
    bool used_up() const { return input_ && left_ == 0; }

  private:
    unsigned take(int bytes, unsigned below);  // below 0: any value
    std::mt19937 rng_;
    Bytes* record_ = nullptr;
    bool input_ = false;
    const std::uint8_t* data_ = nullptr;
    std::size_t left_ = 0;
};

struct Disagreement {
    int step;          // 0-based
    std::string text;  // the call, what differs, the value found and the one expected
};

// Empties the region, mapped at the capacities above (shmrm_clear, shmrm_setmaxvalue), then
// runs up to `steps` steps, fewer when the choices are used up. `fake` gives the tick counts;
// its trace lines are dropped after every step.
std::optional<Disagreement> run_model(Choices& choices, FakeImports& fake, int steps);

}  // namespace vextest
