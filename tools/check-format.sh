#!/usr/bin/env bash
# Usage: tools/check-format.sh [--fix]
# Checks every C++ file git tracks against .clang-format; --fix formats them in place.
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files '*.cpp' '*.h')
if [ "${1:-}" = --fix ]; then
    clang-format -i "${files[@]}"
else
    clang-format --dry-run --Werror "${files[@]}"
fi
