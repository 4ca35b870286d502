#!/bin/sh
# Usage: external-plugin.sh SOURCE_DIR BUILD_DIR
# Installs orvix into a temporary prefix and builds the example plugin against it, the way a machine builder would;
# with root, the installed service then runs it: its datasets pass the chain (whose processors take them by const
# reference) into the jsonl target.
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
[ "$(id -u)" = 0 ] && [ -x /usr/bin/unshare ] || exit 0
run=$work/run
mkdir -p "$run/etc" "$run/log" "$run/plugins" "$run/scratch"
cp "$work/prefix/lib/orvix/plugins/libheartbeat.so" "$work/prefix/lib/orvix/plugins/libjsonl.so" "$run/plugins/"
printf '[heartbeat]\ninterval=50\n[limit]\nwaitTime=1000\nkeepAliveTime=0\n[jsonl]\nfile=/var/log/orvix/out.jsonl\n' \
    > "$run/etc/orvix.ini"
ORVIX_PLUGINPATH="$run/plugins" "$source_dir/tests/e2e/run-isolated.sh" "$run/etc" "$run/log" "$run/scratch" \
    "$work/prefix/bin/orvix" > "$run/output.log" 2>&1 &
pid=$!
for _ in $(seq 1 100); do
    [ "$(grep -c '"type":"StateV1"' "$run/log/out.jsonl" 2>/dev/null)" -ge 3 ] && break
    sleep 0.1
done
kill "$pid"
wait "$pid" || true
[ "$(grep -c '"type":"StateV1"' "$run/log/out.jsonl")" -ge 3 ] || { cat "$run/output.log" "$run/log/orvix.log"; exit 1; }
echo "the installed service passed the plugin's datasets through its chain into jsonl"
