#!/usr/bin/env bash
# Usage: tools/check-format.sh [--fix]
# Checks every C++ file of the working tree that git does not ignore against .clang-format; --fix formats them.
set -euo pipefail
cd "$(dirname "$0")/.."
# New files count too, before they are added; ignored ones (build folders, node_modules) do not.
mapfile -t files < <(git ls-files --cached --others --exclude-standard '*.cpp' '*.h')
if [ "${1:-}" = --fix ]; then
    clang-format -i "${files[@]}"
else
    clang-format --dry-run --Werror "${files[@]}"
fi
