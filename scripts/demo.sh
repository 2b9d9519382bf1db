#!/usr/bin/env bash
# The main job. Until the example daemon and the settings server exist, it builds the
# library and runs the test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)"
ctest --test-dir build -j "$(nproc)" --output-on-failure
