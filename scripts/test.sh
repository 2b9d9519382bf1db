#!/usr/bin/env bash
# Builds ksutils and runs the whole test suite: in a normal build, under AddressSanitizer +
# UndefinedBehaviorSanitizer, the threaded modules under ThreadSanitizer, and the whole suite
# again cross-built for aarch64 under qemu-user; runs every fuzz target for 30 seconds; checks
# the installed tree with a small consumer built through pkg-config and find_package; builds
# the API reference (any Doxygen warning fails), checks the library's ABI against the committed
# baseline, builds the Debian packages of both architectures, runs lintian on them, installs
# the amd64 ones into an isolated root and runs the arm64 library under qemu.
# Prints how long each stage took.
# Usage: scripts/test.sh [--no-sanitize] [--no-fuzz] [--no-aarch64]
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=$(nproc)
sanitize=1 fuzz=1 aarch64=1
for arg in "$@"; do
  case "$arg" in
    --no-sanitize) sanitize=0 ;;
    --no-fuzz) fuzz=0 ;;
    --no-aarch64) aarch64=0 ;;
    *) echo "usage: $0 [--no-sanitize] [--no-fuzz] [--no-aarch64]" >&2; exit 2 ;;
  esac
done

timings=()
stage() {  # name, command...
  local name=$1 start=$SECONDS; shift
  echo "== $name =="
  "$@"
  timings+=("$(printf '%-40s %4d s' "$name" $((SECONDS - start)))")
}

build() {  # build-dir, extra cmake args...
  local dir=$1; shift
  cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
}

run_tests() {  # build-dir, extra ctest args...
  local dir=$1; shift
  ctest --test-dir "$dir" --output-on-failure -j "$jobs" --timeout 600 "$@"
}

suite() {  # build-dir, extra cmake args...
  build "$@"
  run_tests "$1"
}

stage "dependencies" "$root/scripts/install-deps.sh"
stage "normal build and tests" suite "$root/build"
stage "install check" "$root/scripts/check-install.sh" "$root/build"
stage "API reference (scripts/docs.sh)" "$root/scripts/docs.sh" "$root/build/docs"
stage "ABI against the baseline" "$root/scripts/check-abi.sh" "$root/build"
stage "packages amd64" "$root/scripts/package.sh" --arch amd64 --build "$root/build" --docs "$root/build/docs/html"
stage "packages amd64: isolated install" "$root/scripts/check-packages.sh" --amd64

if [ "$sanitize" = 1 ]; then
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
  stage "AddressSanitizer + UBSan" suite "$root/build-asan" -DKS_SANITIZE=ON -DKS_BUILD_BENCH=OFF
  export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
  stage "ThreadSanitizer build" build "$root/build-tsan" -DKS_SANITIZE_THREAD=ON -DKS_BUILD_BENCH=OFF
  stage "ThreadSanitizer (threaded modules)" run_tests "$root/build-tsan" -L threaded
fi

if [ "$fuzz" = 1 ]; then
  stage "fuzz targets, 30 s each" "$root/scripts/fuzz.sh" 30
fi

if [ "$aarch64" = 1 ]; then
  stage "aarch64 under qemu" "$root/scripts/test-aarch64.sh"
  stage "packages arm64" "$root/scripts/package.sh" --arch arm64 --build "$root/build-aarch64" \
    --docs "$root/build/docs/html"
  stage "packages arm64: contents, consumer" "$root/scripts/check-packages.sh" --arm64
fi
stage "lintian" "$root/scripts/check-packages.sh" --lintian

echo "== time by stage =="
printf '%s\n' "${timings[@]}"
echo "total: $SECONDS s"
