#!/usr/bin/env bash
# Builds the coverage preset (gcov instrumentation), runs its whole test suite and reports the
# coverage of the library's own sources, library/shmrm/ (src/, standins/ and platform/;
# platform/win32 is not compiled on Linux and is left out). Fails when the lines or branches covered fall below
# the floor. The reports are written to build/coverage/coverage/ (index.html, summary.txt).
#   scripts/coverage.sh
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

# The floor: what this machine measured, rounded down (see docs/reliability.md).
line_floor=99
branch_floor=94

build=build/coverage
jobs=$(nproc)
cmake --preset coverage >/dev/null
cmake --build --preset coverage -j "$jobs"
# Counts of an earlier run, or of objects since rebuilt, would be merged into this one.
find "$build" -name '*.gcda' -delete
ctest --preset coverage -j "$((jobs * 2))"

root=$(pwd)
out=$build/coverage
rm -rf "$out"
mkdir -p "$out"
# Branches the compiler adds for exceptions, and branches it proved unreachable, are not the
# library's own decisions.
gcovr --root "$root" --object-directory "$build" \
  --filter "$root/library/shmrm/" --exclude "$root/library/shmrm/platform/win32/" \
  --exclude-throw-branches --exclude-unreachable-branches \
  --txt "$out/files.txt" --html-details "$out/index.html" \
  --print-summary --fail-under-line "$line_floor" --fail-under-branch "$branch_floor" \
  "$build" | tee "$out/summary.txt"
