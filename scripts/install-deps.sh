#!/usr/bin/env bash
# Installs the Debian 12 packages needed to build, test and benchmark ksutils.
# Idempotent: packages already present are skipped by apt-get.
set -euo pipefail

packages=(
  build-essential cmake pkg-config python3
  libjansson-dev libmbedtls-dev libfmt-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  openssl coreutils util-linux iproute2 iptables
  # benchmark baselines only: the library never links them
  libuv1-dev redis-server redis-tools
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
