// The commit protocol of a write series, and the region reads that every check shares.
//
// Every write of a series is a call of the public API under the region lock. The process doing
// it may be killed at any point, and the lock then passes to the next waiter, which cannot
// tell. So that no completed series is lost and none is counted twice, a series keeps a ledger
// in single-word fields (a single-word store either happened or did not):
//
//   own group, retrycnt  P   the series under way (pending)
//   own group, focnt     C   the last series committed: THE commit point
//   header, acstat       1 + series committed by all threads together
//   header, pow32port    what acstat becomes when the pending series commits
//   header, acstat2      1 when no series is under way, else 2 + the slot of its thread
//
// A series, holding the write lock:
//   1. settle a dead holder's series (below);
//   2. P = seq; pow32port = acstat + 1; acstat2 = 2 + slot;
//   3. its calls;
//   4. C = seq (commit); acstat = pow32port; acstat2 = 1.
// Settling: a holder that finds acstat2 naming a thread took over the lock of a holder that
// died inside steps 2-4. If that thread's C equals its P, the series had committed and acstat
// is set to pow32port (again, or for the first time); otherwise acstat is left alone. Then
// acstat2 = 1. Both branches are idempotent, so a holder that dies while settling is settled
// again by the next one. At the end the sum of every thread's C equals acstat - 1 exactly.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "model.h"
#include "results.h"
#include "snapshot.h"

namespace stress {

// A check that failed, or a call that gave an unexpected result.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

inline constexpr int kNoSeries = 1;

// Throws a Failure naming the call when rc is not `expect`.
void need(int rc, const char* call, int expect = 0);

// Step 1; true when a dead holder's series was found (and settled).
bool settle_abandoned();
// Step 2 and step 4.
void begin_series(const Identity& id, int seq);
void commit_series(const Identity& id, int seq);

// The whole region, copied with shmrm_dump into `into` (whose room is kept from call to call).
void dump_region(shmrmctl::Bytes& into);
shmrmctl::Bytes dump_region();
// Everything in the region that is not `id`'s: the header with the other owners' counts, the
// other owners' group and monitor records, in table order, byte for byte; into `out`.
void others_of(const shmrmctl::Bytes& region, const Identity& id, shmrmctl::Bytes& out);
// The records of `id` read back through the getters and the name lists.
OwnRecords read_own(const Identity& id);

// "SHMRM_ERR_NOTFOUND" and so on, as shmrmctl names them.
using shmrmctl::result_name;

}  // namespace stress
