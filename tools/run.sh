#!/usr/bin/env bash
# Usage: tools/run.sh
# Installs what building needs (Debian 12 or 13, as root), builds orvix in build-run/ (a folder of its own: the tests'
# build/ keeps its tests), installs it below /usr/local, puts the example configuration into /etc/orvix/orvix.ini and
# the logrotate rule into /etc/logrotate.d/orvix unless they exist, and runs the service in the foreground.
set -euo pipefail
cd "$(dirname "$0")/.."
./tools/install-deps.sh
cmake -S . -B build-run -G Ninja -DORVIX_BUILD_TESTS=OFF -DORVIX_BUILD_BENCH=OFF
cmake --build build-run --parallel "$(nproc)"
cmake --install build-run
if [ ! -e /etc/orvix/orvix.ini ] && [ -f /usr/local/share/doc/orvix/orvix.ini ]; then
    install -D -m 644 /usr/local/share/doc/orvix/orvix.ini /etc/orvix/orvix.ini
fi
if [ -d /etc/logrotate.d ] && [ ! -e /etc/logrotate.d/orvix ]; then
    install -m 644 /usr/local/share/doc/orvix/orvix.logrotate /etc/logrotate.d/orvix
fi
exec /usr/local/bin/orvix
