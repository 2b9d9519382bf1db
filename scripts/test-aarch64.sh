#!/usr/bin/env bash
# Builds ksutils for the appliance's 64-bit ARM Linux with Debian's cross toolchain and runs
# the whole test suite under qemu-user (no binfmt registration: ctest starts each test
# program through the emulator, and the programs the tests start themselves are wrapped).
# Usage: scripts/test-aarch64.sh [build-dir]
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
dir=${1:-$root/build-aarch64}
jobs=$(nproc)

"$root/scripts/install-deps.sh" --aarch64

cmake -S "$root" -B "$dir" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/aarch64-linux-gnu.cmake" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKS_BUILD_BENCH=OFF >/dev/null
cmake --build "$dir" -j "$jobs"

# Tests start the shipped programs and test daemons by path. Without binfmt the kernel
# cannot run an arm64 program, so each one moves to an "aarch64" folder beside it and a
# small script under its old path starts it through the emulator, keeping its process id
# and its file name (daemons name their PID files after it).
for program in "$dir"/tools/* "$dir"/tests/*; do
  [ -f "$program" ] && [ -x "$program" ] || continue
  case "$program" in *_test) continue ;; esac  # ctest runs these through the emulator
  head -c 4 "$program" | grep -q "ELF" || continue
  real="$(dirname "$program")/aarch64/$(basename "$program")"
  mkdir -p "$(dirname "$real")"
  mv "$program" "$real"
  printf '#!/bin/sh\nexec qemu-aarch64-static "%s" "$@"\n' "$real" >"$program"
  chmod +x "$program"
done

# Death tests fork without re-executing the test program (which the kernel could not run);
# KS_TEST_EMULATED lets the few tests that need the host to load target code skip.
KS_TEST_EMULATED=1 GTEST_DEATH_TEST_STYLE=fast ctest --test-dir "$dir" --output-on-failure -j "$jobs" --timeout 600
