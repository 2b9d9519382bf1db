#!/usr/bin/env bash
# Installs the Debian 12 packages needed to build, test, benchmark, document and package ksutils.
# Idempotent: packages already present are skipped by apt-get.
# With --aarch64 it also installs the cross toolchain, the arm64 -dev packages of the
# library's dependencies and qemu-user, for scripts/test-aarch64.sh.
set -euo pipefail

packages=(
  build-essential cmake pkg-config python3
  libjansson-dev libmbedtls-dev libfmt-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  openssl coreutils util-linux iproute2 iptables
  # the settings server's I/O-error test injects failed system calls with it
  strace
  # benchmark baselines only: the library never links them
  libuv1-dev redis-server redis-tools
  # fuzzing (scripts/fuzz.sh): clang with libFuzzer and the sanitizer runtimes
  clang libclang-rt-14-dev
  # API reference, Debian packages and their checks, the ABI guard (scripts/docs.sh,
  # package.sh, check-packages.sh, check-abi.sh)
  doxygen help2man dpkg-dev lintian file abigail-tools
)

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

if [ "${1:-}" = "--aarch64" ]; then
  dpkg --print-foreign-architectures | grep -qx arm64 || $SUDO dpkg --add-architecture arm64
  packages+=(crossbuild-essential-arm64 qemu-user-static libc6:arm64
    libjansson-dev:arm64 libmbedtls-dev:arm64 libfmt-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64)
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
