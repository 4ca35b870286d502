#!/usr/bin/env bash
# Usage: tools/run.sh
# On Debian 12 or 13, as root: installs what building needs, builds the Debian packages (dpkg-buildpackage, without
# the autotests: tools/test.sh runs them), installs them with apt and shows the running service's output.
# Where systemd runs the machine, the package has started the service: this follows its journal (Ctrl+C stops
# following; the service keeps running). Without systemd (a container, a chroot) it runs the installed binary in the
# foreground as user orvix, with the installed configuration; Ctrl+C ends it.
set -euo pipefail
cd "$(dirname "$0")/.."
./tools/install-deps.sh
version=$(dpkg-parsechangelog -S Version)
arch=$(dpkg --print-architecture)
DEB_BUILD_OPTIONS="nocheck ${DEB_BUILD_OPTIONS:-}" dpkg-buildpackage -b -uc -us
export DEBIAN_FRONTEND=noninteractive
apt-get install -y -q --no-install-recommends --reinstall "../orvix_${version}_${arch}.deb" \
    "../orvix-opcua_${version}_${arch}.deb" "../orvix-dev_${version}_${arch}.deb"
if [ -d /run/systemd/system ]; then
    systemctl restart orvix
    exec journalctl -u orvix -f -n 50
fi
echo "run.sh: systemd is not running here; starting /usr/bin/orvix in the foreground as user orvix"
exec runuser -u orvix -- /usr/bin/orvix
