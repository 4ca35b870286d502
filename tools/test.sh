#!/usr/bin/env bash
# Usage: tools/test.sh [BUILD_DIR]
# Installs what building needs (Debian 12 or 13, as root), builds and runs every autotest in BUILD_DIR (build).
# Extra CMake arguments come from ORVIX_CMAKE_ARGS. A run that found no test fails, so a build folder configured
# without tests can't pass silently.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
./tools/install-deps.sh
# shellcheck disable=SC2086
cmake -S . -B "$build" -G Ninja -DORVIX_BUILD_TESTS=ON ${ORVIX_CMAKE_ARGS:-}
cmake --build "$build" --parallel "$(nproc)"
ctest --test-dir "$build" --no-tests=error --output-on-failure --parallel "$(nproc)"
