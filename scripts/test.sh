#!/usr/bin/env bash
# Builds vexshmrm and runs the whole test suite: the default build, the same suite under
# AddressSanitizer and UndefinedBehaviorSanitizer, then under ThreadSanitizer, the Windows
# DLL's build with the suite run under Wine, the coverage build, which fails below the
# library's coverage floor (scripts/coverage.sh), and last a minute of each fuzz target. The
# default build also makes the API reference, which fails on any Doxygen warning.
#   scripts/test.sh [preset ...]     (default: default asan tsan windows coverage, and the fuzzing)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

presets=("$@")
if ((${#presets[@]} == 0)); then presets=(default asan tsan windows coverage); fi
jobs=$(nproc)
for preset in "${presets[@]}"; do
  echo "== $preset"
  if [ "$preset" = coverage ]; then
    scripts/coverage.sh
    continue
  fi
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  if [ "$preset" = default ]; then cmake --build --preset default --target docs; fi
  ctest --preset "$preset" -j "$((jobs * 2))"
done
if (($# == 0)); then echo "== fuzz" && scripts/fuzz.sh 60; fi
