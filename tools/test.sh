#!/usr/bin/env bash
# Usage: tools/test.sh [BUILD_DIR]
# Installs what building needs (Debian 12, as root), builds and runs every autotest.
# Extra CMake arguments come from ORVIX_CMAKE_ARGS.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
./tools/install-deps.sh
# shellcheck disable=SC2086
cmake -S . -B "$build" -G Ninja ${ORVIX_CMAKE_ARGS:-}
cmake --build "$build" --parallel "$(nproc)"
ctest --test-dir "$build" --output-on-failure --parallel "$(nproc)"
