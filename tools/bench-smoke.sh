#!/usr/bin/env bash
# Usage: tools/bench-smoke.sh [BUILD_DIR]
# Runs every benchmark very briefly, so that they keep building and running.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
shopt -s nullglob
for bench in "$build"/bench/bench_*; do
    [ -f "$bench" ] && [ -x "$bench" ] || continue
    echo "-- $bench"
    "$bench" --benchmark_min_time=0.01
done
