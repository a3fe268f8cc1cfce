// A peer gone wrong, for the tests: it attaches to the node's region and, for the given number
// of milliseconds, rewrites the header's capacities and counts and every group's resource count
// with extreme and random values, as fast as it can, without the region lock.
//   shmrm_scrambler <milliseconds> <seed>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <random>

#include "region_layout.h"
#include "shmrm_internal.h"

int main(int argc, char** argv) {
    if (argc != 3) return 2;
#if defined(_WIN32)
    if (!shmrm::load()) return 3;  // a DLL's entry point would have done it
#endif
    if (shmrm_attach() != SHMRM_OK) return 4;
    const auto until =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(std::atoi(argv[1]));
    std::mt19937 rng(static_cast<unsigned>(std::atoi(argv[2])));
    constexpr int kExtremes[] = {INT_MIN, INT_MIN + 1, -1000000, -2,          -1,
                                 0,       1000,        1 << 20,  INT_MAX - 1, INT_MAX};
    // Half extremes, half small values that a scan takes at their word.
    auto value = [&] {
        return rng() % 2 ? kExtremes[rng() % std::size(kExtremes)]
                         : static_cast<int>(rng() % 40) - 4;
    };

    unsigned char* base = shmrm::state._prmhead.load();
    rmhead* h = shmrm::head(base);
    const shmrm::Layout sized = shmrm::state.layout;
    const auto stride = static_cast<std::size_t>(shmrm::group_stride(sized.rscmax));
    long rounds = 0;
    while (std::chrono::steady_clock::now() < until) {
        for (int* word : {&h->grpmax, &h->rscmax, &h->monmax, &h->grpcnt, &h->moncnt})
            shmrm::store(*word, value());
        for (int i = 0; i < sized.grpmax; ++i) {
            auto* grp = reinterpret_cast<rmgrp*>(base + SHMRM_HEAD_SIZE + std::size_t(i) * stride);
            shmrm::store(grp->rsccnt, value());
        }
        ++rounds;
    }
    std::printf("%ld\n", rounds);
    return shmrm_detach() == SHMRM_OK ? 0 : 5;
}
