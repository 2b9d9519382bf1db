#!/usr/bin/env bash
# Builds the consumer program beside this script against an installed ksutils, once through
# pkg-config and once through find_package(ksutils), and runs both.
# Usage: check.sh [--prefix DIR] [--toolchain FILE --run EMULATOR]
#   --prefix     where ksutils is installed, when not in the compiler's default places
#   --toolchain  cross-compiles with this CMake toolchain file (the compiler is its
#                CMAKE_CXX_COMPILER); --run starts the programs, e.g. qemu-aarch64-static
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
prefix="" toolchain="" run=()
while [ $# -gt 0 ]; do
  case "$1" in
    --prefix) prefix=${2:?}; shift 2 ;;
    --toolchain) toolchain=${2:?}; shift 2 ;;
    --run) read -r -a run <<<"${2:?}"; shift 2 ;;
    *) echo "usage: $0 [--prefix DIR] [--toolchain FILE --run EMULATOR]" >&2; exit 2 ;;
  esac
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cxx=g++ cmake_args=()
if [ -n "$toolchain" ]; then
  cxx=$(sed -n 's/^set(CMAKE_CXX_COMPILER \([^)]*\))/\1/p' "$toolchain")
  cmake_args+=(-DCMAKE_TOOLCHAIN_FILE="$toolchain")
  multiarch=$($cxx -print-multiarch)
  # Only the target's .pc files (the shared ones under /usr/share besides).
  export PKG_CONFIG_LIBDIR=/usr/lib/$multiarch/pkgconfig:/usr/share/pkgconfig
else
  multiarch=$($cxx -print-multiarch)
fi
if [ -n "$prefix" ]; then
  export PKG_CONFIG_PATH="$prefix/lib/pkgconfig:$prefix/lib/$multiarch/pkgconfig"
  export LD_LIBRARY_PATH="$prefix/lib:$prefix/lib/$multiarch"
  cmake_args+=(-DCMAKE_PREFIX_PATH="$prefix")
fi

# shellcheck disable=SC2046
$cxx -std=c++17 -Wall -Wextra -Werror "$here/consumer.cpp" -o "$work/consumer-pc" \
  $(pkg-config --cflags --libs ksutils)
"${run[@]}" "$work/consumer-pc"

cmake -S "$here" -B "$work/build" "${cmake_args[@]}" >/dev/null
cmake --build "$work/build" >/dev/null
"${run[@]}" "$work/build/consumer-cmake"
echo "consumer: built with pkg-config and with find_package, both ran"
