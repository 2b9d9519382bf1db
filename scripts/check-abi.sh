#!/usr/bin/env bash
# The ABI guard: compares the built libksutils.so with the baseline committed for its SONAME
# (abi/<SONAME>.abi, written by abidw from the public headers' view of the library).
#   - an incompatible change (a removed or changed function or variable, a changed layout of
#     a type the interface uses) fails, unless the SONAME changed with it: each SONAME has its
#     own baseline, which must then be committed with the change;
#   - a compatible change (additions only) passes, and asks for the baseline to be updated.
# --update writes the baseline for the built library's SONAME (commit it).
# Usage: scripts/check-abi.sh [--update] BUILD_DIR
set -euo pipefail
cd "$(dirname "$0")/.."
update=0
if [ "${1:-}" = "--update" ]; then update=1; shift; fi
build=${1:?usage: check-abi.sh [--update] BUILD_DIR}

lib=$(realpath "$build/libksutils.so")
soname=$(readelf -d "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ -n "$soname" ] || { echo "check-abi: $lib has no SONAME" >&2; exit 1; }
readelf -S "$lib" | grep -q '\.debug_info' ||
  { echo "check-abi: $lib has no debug information (build with RelWithDebInfo or Debug)" >&2; exit 1; }
baseline=abi/$soname.abi
suppressions=abi/libksutils.suppr

dump() {  # output file
  abidw --headers-dir include --headers-dir include_cpp --drop-private-types --drop-undefined-syms \
    --no-show-locs --no-corpus-path --no-comp-dir-path --type-id-style hash --suppressions "$suppressions" \
    --out-file "$1" "$lib"
}

if [ $update = 1 ]; then
  dump "$baseline"
  echo "check-abi: wrote $baseline ($(du -k "$baseline" | cut -f1) KiB); commit it with the change"
  for old in abi/*.abi; do
    [ "$old" = "$baseline" ] || echo "the SONAME changed: remove the old baseline with git rm $old"
  done
  exit 0
fi

if [ ! -f "$baseline" ]; then
  echo "check-abi: FAILED: no ABI baseline for $soname." >&2
  others=$(ls abi/*.abi 2>/dev/null || true)
  [ -z "$others" ] || echo "The SONAME changed (baselines: $others); that allows an incompatible change, and its baseline is expected with it." >&2
  echo "Run: scripts/check-abi.sh --update $build   and commit $baseline" >&2
  exit 1
fi

current=$(mktemp)
trap 'rm -f "$current"' EXIT
dump "$current"
status=0
report=$(abidiff --suppressions "$suppressions" --no-show-locs "$baseline" "$current") || status=$?
if [ $((status & 3)) -ne 0 ]; then
  echo "$report" >&2
  echo "check-abi: FAILED: abidiff could not compare $baseline with $lib (status $status)" >&2
  exit 1
fi
if [ $status -eq 0 ]; then
  echo "check-abi: $lib has the ABI of $baseline"
  exit 0
fi
# abidiff marks only removed symbols as incompatible; a changed function (through a changed
# type layout, a new virtual function, ...) is as fatal for the daemons linked against it.
incompatible=$(grep -E 'summary: .*[1-9][0-9]* (Removed|Changed)' <<<"$report" || true)
if [ $((status & 8)) -ne 0 ] || [ -n "$incompatible" ]; then
  echo "$report"
  echo "check-abi: FAILED: incompatible ABI change in $soname against $baseline:"
  echo "${incompatible:-  (abidiff reports an incompatible change)}"
  echo "Keep the interface compatible, or raise the SONAME (the major version in CMakeLists.txt)"
  echo "and commit a new baseline with: scripts/check-abi.sh --update $build"
  exit 1
fi >&2
echo "$report"
echo "check-abi: compatible ABI change (additions only) against $baseline."
echo "Run: scripts/check-abi.sh --update $build   and commit $baseline in the same commit."
