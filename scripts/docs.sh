#!/usr/bin/env bash
# Builds the API reference (HTML) from the public headers with Doxygen; any warning, an
# undocumented public entity among them, fails the build.
# Usage: scripts/docs.sh [output-dir]   (default: build/docs)
set -euo pipefail
cd "$(dirname "$0")/.."
out=${1:-build/docs}
mkdir -p "$out"
version=$(sed -n 's/^project(ksutils VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
{ cat docs/Doxyfile; echo "OUTPUT_DIRECTORY = $out"; echo "PROJECT_NUMBER = $version"; } |
  doxygen -
echo "API reference: $out/html/index.html"
