#!/usr/bin/env bash
# Usage: tools/fuzz.sh [BUILD_DIR]
# Builds the libFuzzer targets of tests/fuzz with clang, AddressSanitizer and UndefinedBehaviorSanitizer, and runs
# each for ORVIX_FUZZ_SECONDS (30) seconds on a copy of its seed corpus. A crash, a sanitizer report, a leak or a
# round-trip difference fails the run; the input that caused it is left in the build folder.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-fuzz}
seconds=${ORVIX_FUZZ_SECONDS:-30}
CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DORVIX_SANITIZE=ON \
    -DORVIX_BUILD_TESTS=OFF -DORVIX_BUILD_BENCH=OFF -DORVIX_BUILD_FUZZ=ON
targets=(decode roundtrip xmloverwrite spool)
cmake --build "$build" --parallel "$(nproc)" --target "${targets[@]/#/fuzz_}"
for target in "${targets[@]}"; do
    echo "-- fuzz_$target for $seconds s"
    corpus="$build/corpus-$target"
    rm -rf "$corpus"
    cp -r "tests/fuzz/corpus/$target" "$corpus"
    (cd "$build" && "./tests/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 "corpus-$target")
done
