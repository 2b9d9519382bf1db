#!/usr/bin/env bash
# Checks the packages scripts/package.sh left in dist/:
#   --lintian  lintian on every package: any error fails
#   --amd64    contents, Architecture and Depends; then installs them with dpkg -i into a
#              throw-away root (an overlay of / in a private mount namespace: the machine's
#              own system is never written), builds the consumer there against the installed
#              -dev package with pkg-config and find_package, starts the packaged kssetter on
#              a temporary install root and sets and gets a key with the packaged kssetmgmt
#   --arm64    contents, Architecture and Depends; then builds the consumer with the cross
#              compiler against the unpacked -dev package and runs it with the packaged
#              library under qemu-user
# With no option it does all three. Needs root (mount namespace, chroot).
# Usage: scripts/check-packages.sh [--lintian] [--amd64] [--arm64]
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
packages=(libksutils1 libksutils-dev ksutils-tools)
tools=(kssetter kssetmgmt kslogreader)
version=$(sed -n 's/^project(ksutils VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
debversion=$(dpkg-parsechangelog -l packaging/changelog -SVersion)

fail() { echo "check-packages: FAILED: $*" >&2; exit 1; }
deb_of() { echo "$root/dist/${1}_${debversion}_$2.deb"; }  # package, arch

# The isolated install, run inside the private mount namespace (see below).
if [ "${1:-}" = "--in-namespace" ]; then
  top=$(mktemp -d)
  mount -t tmpfs tmpfs "$top"
  mkdir "$top/upper" "$top/work" "$top/root"
  mount -t overlay overlay -o "lowerdir=/,upperdir=$top/upper,workdir=$top/work" "$top/root"
  for m in proc sys dev; do mount --rbind "/$m" "$top/root/$m"; done
  mount -t tmpfs tmpfs "$top/root/tmp"
  mkdir "$top/root/tmp/check"
  cp "${@:2}" "$top/root/tmp/check/"
  cp -r "$root/scripts/consumer" "$top/root/tmp/check/"
  exec chroot "$top/root" /bin/bash -euo pipefail -c '
    cd /tmp/check
    dpkg -i ./*.deb >/dev/null
    echo "installed: $(dpkg-query -W -f "\${Package} \${Version}, " libksutils1 libksutils-dev ksutils-tools)"
    /tmp/check/consumer/check.sh

    ksroot=/tmp/check/ksroot
    mkdir -p "$ksroot/etc/logging" "$ksroot/var/log" "$ksroot/var/run"
    kssetter -root "$ksroot" >/tmp/check/kssetter.out 2>&1 &
    server=$!
    trap "kill -TERM $server 2>/dev/null || true; wait $server 2>/dev/null || true" EXIT
    for _ in $(seq 100); do [ -S "$ksroot/var/run/kssetmgmt.skt" ] && break; sleep 0.1; done
    [ -S "$ksroot/var/run/kssetmgmt.skt" ] || { cat /tmp/check/kssetter.out; echo "kssetter did not start"; exit 1; }
    kssetmgmt -root "$ksroot" set /package/check "installed from the packages"
    got=$(kssetmgmt -root "$ksroot" get /package/check)
    [ "$got" = "installed from the packages" ] || { echo "kssetmgmt get returned: $got"; exit 1; }
    kill -TERM $server
    wait $server || { echo "kssetter exited with status $?"; exit 1; }
    trap - EXIT
    echo "packaged kssetter served a key set and read back with the packaged kssetmgmt"
  '
fi

# Contents, Architecture and Depends of one architecture's packages.
check_metadata() {  # arch
  local arch=$1 triplet pkg deb list
  triplet=$(dpkg-architecture -a"$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)
  for pkg in "${packages[@]}"; do
    deb=$(deb_of "$pkg" "$arch")
    [ -f "$deb" ] || fail "$deb is missing: run scripts/package.sh --arch $arch"
    [ "$(dpkg-deb -f "$deb" Architecture)" = "$arch" ] || fail "$deb: Architecture is not $arch"
    [ "$(dpkg-deb -f "$deb" Version)" = "$debversion" ] || fail "$deb: Version is not $debversion"
  done
  expect() {  # package, depends-regex, path...
    local pkg=$1 depends=$2 path; shift 2
    deb=$(deb_of "$pkg" "$arch")
    list=$(dpkg-deb -c "$deb" | awk '{print $6}' | sed 's|^\./|/|')
    for path in "$@" "/usr/share/doc/$pkg/copyright" "/usr/share/doc/$pkg/changelog.Debian.gz"; do
      grep -qx "$path" <<<"$list" || fail "$deb lacks $path"
    done
    dpkg-deb -f "$deb" Depends | grep -Eq "$depends" || fail "$deb: Depends '$(dpkg-deb -f "$deb" Depends)' lacks $depends"
    echo "$pkg ($arch): $(du -k "$deb" | cut -f1) KiB; Depends: $(dpkg-deb -f "$deb" Depends)"
  }
  local lib=/usr/lib/$triplet
  expect libksutils1 'libc6 .*libfmt9 .*libjansson4 .*libmbedcrypto7 .*libstdc\+\+6' \
    "$lib/libksutils.so.${version%%.*}" "$lib/libksutils.so.$version"
  expect libksutils-dev "libksutils1 \(= $debversion\)" /usr/include/ksutils/kspath.h \
    /usr/include/ksutils/ksutils/path.h /usr/include/ksutils/kssetter/kssetmgmt.h "$lib/libksutils.so" \
    "$lib/pkgconfig/ksutils.pc" "$lib/cmake/ksutils/ksutilsConfig.cmake" \
    /usr/share/doc/libksutils-dev/html/index.html
  expect ksutils-tools "libksutils1 \(>= $version\)" "${tools[@]/#//usr/bin/}" \
    /usr/share/man/man1/{kssetter,kssetmgmt,kslogreader}.1.gz /lib/systemd/system/kssetter.service

  # Every object is built for the architecture it is packaged for.
  local x
  x=$(mktemp -d)
  dpkg-deb -x "$(deb_of libksutils1 "$arch")" "$x"
  dpkg-deb -x "$(deb_of ksutils-tools "$arch")" "$x"
  local machine
  machine=$(case "$arch" in amd64) echo "x86-64" ;; arm64) echo "ARM aarch64" ;; esac)
  for obj in "$x$lib/libksutils.so.$version" "${tools[@]/#/$x/usr/bin/}"; do
    file -b "$obj" | grep -q "ELF 64-bit LSB .*, $machine," || fail "$obj is not a $arch ELF object"
    file -b "$obj" | grep -q ", stripped" || fail "$obj is not stripped"
    ! readelf -d "$obj" | grep -Eq '\((RUNPATH|RPATH)\)' || fail "$obj keeps a library search path"
  done
  rm -rf "$x"
}

do_lintian() {
  local debs=()
  for arch in amd64 arm64; do
    for pkg in "${packages[@]}"; do
      [ -f "$(deb_of "$pkg" $arch)" ] && debs+=("$(deb_of "$pkg" $arch)")
    done
  done
  [ ${#debs[@]} -gt 0 ] || fail "no packages in dist/"
  # Warnings are shown (and listed in the README's packaging notes); errors fail.
  local out status=0
  out=$(lintian --fail-on error "${debs[@]}" 2>&1) || status=$?
  grep -v "running with root privileges" <<<"$out" || true
  [ $status = 0 ] || fail "lintian reported errors"
  echo "lintian: no errors in ${#debs[@]} packages"
}

do_amd64() {
  check_metadata amd64
  [ "$(id -u)" = 0 ] || fail "the isolated install needs root (mount namespace and chroot)"
  local debs=()
  for pkg in "${packages[@]}"; do debs+=("$(deb_of "$pkg" amd64)"); done
  unshare --mount --propagation private "$root/scripts/check-packages.sh" --in-namespace "${debs[@]}" || fail "isolated install"
  # The install happened in the overlay only.
  if dpkg-query -W libksutils1 >/dev/null 2>&1 || [ -e /usr/bin/kssetter ]; then
    fail "the machine's own system now has ksutils installed"
  fi
}

do_arm64() {
  check_metadata arm64
  local x
  x=$(mktemp -d)
  trap 'rm -rf "$x"' RETURN
  dpkg-deb -x "$(deb_of libksutils1 arm64)" "$x"
  dpkg-deb -x "$(deb_of libksutils-dev arm64)" "$x"
  "$root/scripts/consumer/check.sh" --prefix "$x/usr" \
    --toolchain "$root/cmake/aarch64-linux-gnu.cmake" --run qemu-aarch64-static ||
    fail "the arm64 consumer"
}

[ $# -gt 0 ] || set -- --lintian --amd64 --arm64
for arg in "$@"; do
  case "$arg" in
    --lintian) do_lintian ;;
    --amd64) do_amd64 ;;
    --arm64) do_arm64 ;;
    *) echo "usage: $0 [--lintian] [--amd64] [--arm64]" >&2; exit 2 ;;
  esac
done
echo "check-packages: all passed"
