#!/usr/bin/env bash
# Builds ksutils and runs the whole test suite: once in a normal build, once under
# AddressSanitizer + UndefinedBehaviorSanitizer, then checks the installed tree with a
# small consumer built through pkg-config and through find_package.
# Usage: scripts/test.sh [--no-sanitize]
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=$(nproc)
sanitize=1
[ "${1:-}" = "--no-sanitize" ] && sanitize=0

"$root/scripts/install-deps.sh"

run_suite() {  # build-dir, extra cmake args...
  local dir=$1; shift
  cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  ctest --test-dir "$dir" --output-on-failure -j "$jobs" --timeout 600
}

echo "== normal build =="
run_suite "$root/build"

echo "== install check =="
"$root/scripts/check-install.sh" "$root/build"

if [ "$sanitize" = 1 ]; then
  echo "== AddressSanitizer + UndefinedBehaviorSanitizer =="
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    run_suite "$root/build-asan" -DKS_SANITIZE=ON -DKS_BUILD_BENCH=OFF
fi
