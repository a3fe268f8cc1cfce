#!/usr/bin/env bash
# Builds the libFuzzer targets (preset fuzz: clang, ASan + UBSan) and runs each for the given
# seconds on a temporary copy of its seed corpus: api_fuzz (API calls against the reference
# model) and dump_fuzz (the inspector's dump decoder). Fails on any crash, leak, sanitizer
# report, time-out or model disagreement; the input that caused it is kept in build/fuzz/findings.
#   scripts/fuzz.sh [seconds-per-target]     (default: 60)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)"

# The library loads before a target can choose its IPC namespace: the first load happens in
# one of our own, removed at the end with the temporary corpora.
export VEX_IPC_NAMESPACE="vexfuzz-script$$"
work=$(mktemp -d)
trap 'rm -rf "$work"; rm -f /dev/shm/"$VEX_IPC_NAMESPACE".*' EXIT
findings=build/fuzz/findings
mkdir -p "$findings"
status=0
for entry in api:8192 dump:16384; do  # target and input size limit (dump seeds are 14 kB)
  target=${entry%:*}
  cp -r "fuzz/corpus/$target" "$work/$target"
  log="$work/$target.log"
  build/fuzz/fuzz/${target}_fuzz -max_total_time="$seconds" -max_len="${entry#*:}" -timeout=30 \
    -print_final_stats=1 -artifact_prefix="$findings/$target-" "$work/$target" >"$log" 2>&1 &
  pid=$!
  if ! wait $pid; then
    rm -f /dev/shm/vexfuzz$pid.*  # the namespace of a target that could not clean up after itself
    tail -n 40 "$log"
    echo "${target}_fuzz: FAILED; the input is in $findings/"
    status=1
    continue
  fi
  field() { sed -n "s/^stat::$1: *//p" "$log"; }
  echo "${target}_fuzz: $(field number_of_executed_units) executions" \
       "($(field average_exec_per_sec)/s) in ${seconds}s;" \
       "corpus $(ls "fuzz/corpus/$target" | wc -l) -> $(ls "$work/$target" | wc -l) inputs;" \
       "$(grep -o 'cov: [0-9]* ft: [0-9]*' "$log" | tail -n 1)"
done
exit $status
