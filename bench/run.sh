#!/bin/sh
# Builds the benchmark with the default preset, runs every row with repetitions and writes
# build/bench-results/: shmrm_bench.json (medians, ratios to the floor), shmrm_bench.txt (the
# console table), table.md (the table of docs/performance.md) and the scaling plots (PNG).
#
#   bench/run.sh [extra benchmark flags...]
#
# REPETITIONS (default 5) and MIN_TIME (seconds per repetition, default 0.2) may be set in the
# environment. Numbers are noisy on a busy machine: the medians are what to read.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
out="$root/build/bench-results"
cd "$root"
cmake --preset default >/dev/null
cmake --build --preset default --target shmrm_bench -j"$(nproc)"
mkdir -p "$out"
"$root/build/default/bench/shmrm_bench" \
    --benchmark_repetitions="${REPETITIONS:-5}" \
    --benchmark_min_time="${MIN_TIME:-0.2}" \
    --benchmark_report_aggregates_only=true \
    --benchmark_out="$out/shmrm_bench.json" --benchmark_out_format=json \
    "$@" | tee "$out/shmrm_bench.txt"
# The first Python that has matplotlib (Debian: python3-matplotlib); any Python for the table.
py=python3
for candidate in python3 /usr/bin/python3; do
    if "$candidate" -c 'import matplotlib' 2>/dev/null; then py=$candidate; break; fi
done
"$py" "$root/bench/plot.py" "$out/shmrm_bench.json" "$out"
echo "results in $out"
