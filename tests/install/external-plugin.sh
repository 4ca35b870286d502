#!/bin/sh
# Usage: external-plugin.sh SOURCE_DIR BUILD_DIR
# Installs orvix into a temporary prefix and builds the example plugin against it, the way a machine builder would.
set -eu
source_dir=$1 build_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build_dir" --prefix "$work/prefix" > "$work/install.log"
cmake -S "$source_dir/examples/heartbeat" -B "$work/heartbeat" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" \
    -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" > "$work/configure.log"
cmake --build "$work/heartbeat"
cmake --install "$work/heartbeat" > /dev/null
test -f "$work/prefix/lib/orvix/plugins/libheartbeat.so"
echo "external plugin built and installed into $work/prefix/lib/orvix/plugins"
