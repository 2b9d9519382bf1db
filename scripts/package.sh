#!/usr/bin/env bash
# Builds the Debian packages of ksutils into dist/:
#   libksutils1      the shared library and its SONAME link
#   libksutils-dev   both header trees, the unversioned link, ksutils.pc, the CMake package
#                    and the HTML API reference (scripts/docs.sh)
#   ksutils-tools    kssetter (with a systemd unit), kssetmgmt, kslogreader, a manual page each
# amd64 comes from the normal build (build/), arm64 from the cross build (build-aarch64/, as
# scripts/test-aarch64.sh makes it); either is configured and built here if needed.
# The metadata lives in packaging/ (control, changelog, copyright, the unit) and is turned
# into each package's control file by dpkg-gencontrol, with Depends from dpkg-shlibdeps.
# Usage: scripts/package.sh [--arch amd64|arm64] [--build DIR] [--docs HTML_DIR]
#   --docs reuses an API reference already built by scripts/docs.sh (its html folder).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

arch=$(dpkg --print-architecture) build="" docs=""
while [ $# -gt 0 ]; do
  case "$1" in
    --arch) arch=${2:?}; shift 2 ;;
    --build) build=${2:?}; shift 2 ;;
    --docs) docs=${2:?}; shift 2 ;;
    *) echo "usage: $0 [--arch amd64|arm64] [--build DIR] [--docs HTML_DIR]" >&2; exit 2 ;;
  esac
done

cmake_args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
case "$arch" in
  amd64) "$root/scripts/install-deps.sh"; build=${build:-$root/build} ;;
  arm64) "$root/scripts/install-deps.sh" --aarch64; build=${build:-$root/build-aarch64}
         cmake_args+=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/aarch64-linux-gnu.cmake" -DKS_BUILD_BENCH=OFF) ;;
  *) echo "unsupported architecture: $arch (amd64 or arm64)" >&2; exit 2 ;;
esac
build=$(realpath "$build")
triplet=$(dpkg-architecture -a"$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)
tools=(kssetter kssetmgmt kslogreader)

version=$(sed -n 's/^project(ksutils VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
debversion=$(dpkg-parsechangelog -l packaging/changelog -SVersion)
if [ "${debversion%-*}" != "$version" ]; then
  echo "packaging/changelog is at $debversion but the library is $version: add a changelog entry" >&2
  exit 1
fi
soversion=${version%%.*}
if [ "$soversion" != 1 ]; then
  echo "the SONAME is now libksutils.so.$soversion: rename libksutils1 in packaging/control and here" >&2
  exit 1
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# The API reference: built with every warning an error, or reused from a run of docs.sh.
if [ -z "$docs" ]; then
  "$root/scripts/docs.sh" "$work/docs" >/dev/null
  docs=$work/docs/html
fi
[ -f "$docs/index.html" ] || { echo "no API reference in $docs" >&2; exit 1; }

# The packages install under /usr with the multiarch library folder, as Debian's own do.
# Neither setting changes what is compiled, so an existing tree is not rebuilt.
cmake -S "$root" -B "$build" "${cmake_args[@]}" \
  -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR="lib/$triplet" >/dev/null
# The cross build's test run (scripts/test-aarch64.sh) leaves scripts that start the programs
# through qemu in their place; those go, so that the programs are linked again and installed
# (the test run puts its scripts back).
for t in "${tools[@]}"; do
  if [ -f "$build/tools/$t" ] && ! head -c 4 "$build/tools/$t" | grep -q ELF; then rm "$build/tools/$t"; fi
done
cmake --build "$build" -j "$(nproc)" --target ksutils "${tools[@]}"

umask 022
deb=$work/debian   # dpkg-gencontrol and dpkg-shlibdeps expect a debian/ folder
mkdir -p "$deb"
cp packaging/control packaging/changelog "$deb/"
DESTDIR="$deb/tmp" cmake --install "$build" --prefix /usr >/dev/null
staged=$deb/tmp/usr

# Debian ships stripped objects (the debug information stays in the build tree).
"$triplet-strip" --strip-unneeded --remove-section=.comment --remove-section=.note \
  "$staged/lib/$triplet"/libksutils.so."$version" "${tools[@]/#/$staged/bin/}"

# Moves paths (relative to $deb/tmp) into a package's tree.
take() {  # package, path...
  local pkg=$1 p; shift
  for p in "$@"; do
    mkdir -p "$deb/$pkg/$(dirname "$p")"
    mv "$deb/tmp/$p" "$deb/$pkg/$p"
  done
}
take libksutils1 "usr/lib/$triplet/libksutils.so.$soversion" "usr/lib/$triplet/libksutils.so.$version"
take libksutils-dev usr/include "usr/lib/$triplet/libksutils.so" "usr/lib/$triplet/pkgconfig" \
  "usr/lib/$triplet/cmake"
take ksutils-tools "${tools[@]/#/usr/bin/}"
leftover=$(cd "$deb/tmp" && find . -type f -o -type l)
if [ -n "$leftover" ]; then echo "installed files in no package:"; echo "$leftover"; exit 1; fi >&2

for pkg in libksutils1 libksutils-dev ksutils-tools; do
  install -D -m 0644 packaging/copyright "$deb/$pkg/usr/share/doc/$pkg/copyright"
  gzip -9n <packaging/changelog >"$deb/$pkg/usr/share/doc/$pkg/changelog.Debian.gz"
  install -D -m 0644 "packaging/lintian/$pkg" "$deb/$pkg/usr/share/lintian/overrides/$pkg"
done

mkdir -p "$deb/libksutils-dev/usr/share/doc/libksutils-dev"
cp -r "$docs" "$deb/libksutils-dev/usr/share/doc/libksutils-dev/html"

# Manual pages from each program's own help, read through a script of the program's name
# (help2man names the page after it, the help shows it as argv[0]); arm64 programs run under
# qemu-user.
mkdir -p "$work/run" "$deb/ksutils-tools/usr/share/man/man1"
declare -A summary=(
  [kssetter]="settings server of the appliance daemons"
  [kssetmgmt]="read, change and watch the appliance's settings"
  [kslogreader]="decrypt and filter the appliance's encrypted log files")
native=0
[ "$arch" = "$(dpkg --print-architecture)" ] && native=1
for t in "${tools[@]}"; do
  program=$deb/ksutils-tools/usr/bin/$t
  if [ $native = 1 ]; then
    printf '#!/bin/bash\nexec -a %s "%s" "$@"\n' "$t" "$program" >"$work/run/$t"
  else
    printf '#!/bin/sh\nexec qemu-%s-static -0 %s "%s" "$@"\n' "${triplet%%-*}" "$t" "$program" >"$work/run/$t"
  fi
  chmod +x "$work/run/$t"
  LD_LIBRARY_PATH="$deb/libksutils1/usr/lib/$triplet" \
    help2man --no-info --no-discard-stderr --version-string="$version" --name="${summary[$t]}" \
      --output="$work/$t.1" "$work/run/$t"
  gzip -9n <"$work/$t.1" >"$deb/ksutils-tools/usr/share/man/man1/$t.1.gz"
done
install -D -m 0644 packaging/kssetter.service "$deb/ksutils-tools/lib/systemd/system/kssetter.service"

# The runtime package's shlibs file tells dpkg-shlibdeps (here, for the tools, and in every
# daemon's own build) which package provides the SONAME; ldconfig runs on install.
mkdir -p "$deb"/{libksutils1,libksutils-dev,ksutils-tools}/DEBIAN
echo "libksutils $soversion libksutils1 (>= $version)" >"$deb/libksutils1/DEBIAN/shlibs"
echo "activate-noawait ldconfig" >"$deb/libksutils1/DEBIAN/triggers"

export DEB_HOST_ARCH=$arch DEB_HOST_MULTIARCH=$triplet
cd "$work"
# Depends computed from the objects: the arm64 ones resolve against the arm64 multiarch
# libraries (libc6:arm64 and friends, installed by install-deps.sh --aarch64).
dpkg-shlibdeps -Tdebian/libksutils1.substvars "debian/libksutils1/usr/lib/$triplet/libksutils.so.$version"
dpkg-shlibdeps -Tdebian/ksutils-tools.substvars "-ldebian/libksutils1/usr/lib/$triplet" \
  "${tools[@]/#/debian/ksutils-tools/usr/bin/}"
mkdir -p "$root/dist"
for pkg in libksutils1 libksutils-dev ksutils-tools; do
  touch "debian/$pkg.substvars"
  dpkg-gencontrol -p"$pkg" -P"debian/$pkg" -T"debian/$pkg.substvars"
  (cd "debian/$pkg" && find . -path ./DEBIAN -prune -o -type f -printf '%P\0' | LC_ALL=C sort -z |
    xargs -0 md5sum >DEBIAN/md5sums)
  find "debian/$pkg" -type d -exec chmod 0755 {} +
  rm -f "$root/dist/${pkg}_"*"_$arch.deb"
  dpkg-deb --root-owner-group -Zxz --build "debian/$pkg" "$root/dist/" >/dev/null
done
ls -l "$root/dist/"*"_${debversion}_$arch.deb"
