#!/usr/bin/env bash
# Builds every fuzz target (fuzz/*_fuzz.cpp) with clang, libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer, and runs each for SECONDS (default 30) from a scratch copy of
# its seed corpus (fuzz/corpus/<target>/, when there is one). Fails when a target crashes;
# the crashing input is left in the build directory. Prints each target's input count.
# Usage: scripts/fuzz.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
seconds=${1:-30}
dir=$root/build-fuzz

"$root/scripts/install-deps.sh"
CC=clang CXX=clang++ cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKS_FUZZ=ON \
  -DKS_BUILD_TESTS=OFF -DKS_BUILD_BENCH=OFF -DKS_BUILD_TOOLS=OFF >/dev/null
cmake --build "$dir" -j "$(nproc)"

status=0
for source in "$root"/fuzz/*_fuzz.cpp; do
  target=$(basename "$source" .cpp)
  work=$dir/runs/$target
  rm -rf "$work" && mkdir -p "$work/corpus"
  [ -d "$root/fuzz/corpus/$target" ] && cp -r "$root/fuzz/corpus/$target/." "$work/corpus/"
  if (cd "$work" && TMPDIR="$work" ASAN_OPTIONS=detect_leaks=1 "$dir/fuzz/$target" -max_total_time="$seconds" -max_len=4096 \
        -print_final_stats=1 -artifact_prefix="$work/" corpus >"$work/log" 2>&1); then
    result=ok
  else
    result=FAILED status=1
    tail -40 "$work/log"
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/log" | tail -1)
  printf '%-24s %-7s %12s inputs in %s s\n' "$target" "$result" "${runs:-?}" "$seconds"
done
exit $status
