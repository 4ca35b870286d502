#!/usr/bin/env bash
# Usage: tools/package-check.sh
# The Debian package end to end, as root on Debian 12 or 13 (CI): builds it with dpkg-buildpackage, checks it with
# lintian, installs it with apt, checks the unit with systemd-analyze (verify, and a sandbox exposure of at most 2.0),
# runs the installed binary as user orvix with the installed configuration (without systemd: in a private mount
# namespace, with the MQTT and OPC UA server targets switched on in a copy of that configuration) and checks that it
# writes its log, spool and PKI files as orvix, then purges the packages and checks that nothing is left behind but
# the system user and group. The packages land in the folder above the checkout, as dpkg-buildpackage puts them.
set -euo pipefail
cd "$(dirname "$0")/.."

fail() {
    echo "package-check: $*" >&2
    exit 1
}

version=$(dpkg-parsechangelog -S Version)
arch=$(dpkg --print-architecture)
debs=("../orvix_${version}_${arch}.deb" "../orvix-opcua_${version}_${arch}.deb" "../orvix-dev_${version}_${arch}.deb")

echo "-- dpkg-buildpackage"
DEB_BUILD_OPTIONS="nocheck ${DEB_BUILD_OPTIONS:-}" dpkg-buildpackage -b -uc -us
for deb in "${debs[@]}"; do
    [ -f "$deb" ] || fail "$deb was not built"
done

echo "-- lintian"
lintian --fail-on error,warning --info "../orvix_${version}_${arch}.changes"

echo "-- install"
export DEBIAN_FRONTEND=noninteractive
apt-get install -y -q --no-install-recommends "${debs[@]}"
unit=/usr/lib/systemd/system/orvix.service
[ -f "$unit" ] || unit=/lib/systemd/system/orvix.service
[ -f /etc/orvix/orvix.ini ] || fail "no /etc/orvix/orvix.ini"
[ -f /etc/logrotate.d/orvix ] || fail "no /etc/logrotate.d/orvix"
getent passwd orvix > /dev/null || fail "no user orvix"
[ "$(stat -c %U /var/lib/orvix)" = orvix ] && [ "$(stat -c %U /var/log/orvix)" = orvix ] ||
    fail "/var/lib/orvix and /var/log/orvix must belong to orvix"
[ -L /etc/systemd/system/multi-user.target.wants/orvix.service ] || fail "the unit is not enabled"

echo "-- systemd-analyze"
systemd-analyze verify "$unit"
systemd-analyze security --offline=true "$unit" | tail -n 1
systemd-analyze security --offline=true --threshold=20 "$unit" > /dev/null ||
    fail "the unit's exposure is above 2.0"

echo "-- the installed binary as user orvix"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# The installed configuration, once as it is and once with the MQTT target (no broker: the datasets wait in its
# spool) and the OPC UA server (its own certificate in its PKI folder at the first start) switched on.
sed 's/^disabledPlugins=.*/disabledPlugins=replay, mqttIn, opcua/' /etc/orvix/orvix.ini > "$work/orvix.ini"
chmod 644 "$work/orvix.ini"
run_as_orvix() {
    # Runs the service for $1 seconds as orvix; the configuration $2 is mounted over the installed one in a private
    # mount namespace, so the conffile itself stays as the package left it.
    local seconds=$1 config=$2
    unshare -m sh -c '[ "$1" = /etc/orvix/orvix.ini ] || mount --bind "$1" /etc/orvix/orvix.ini
        exec runuser -u orvix -- timeout -s INT "$2" /usr/bin/orvix' sh "$config" "$seconds" > "$work/stdout" 2>&1 ||
        true
}
run_as_orvix 8 /etc/orvix/orvix.ini
grep -q '^{"timestamp":.*"machine":"sim1"' "$work/stdout" || fail "no dataset of sim1 on standard output"
grep -q 'INFO core: "starting orvix' /var/log/orvix/orvix.log || fail "no start line in /var/log/orvix/orvix.log"
run_as_orvix 15 "$work/orvix.ini"
spool=$(find /var/lib/orvix/spool/mqttOut -type f -size +0 | head -n 1)
[ -n "$spool" ] || { cat "$work/stdout"; fail "mqttOut wrote no spool below /var/lib/orvix/spool/mqttOut"; }
[ -f /var/lib/orvix/opcuaServer/pki/own/certs/cert.der ] && [ -f /var/lib/orvix/opcuaServer/pki/own/private/key.der ] ||
    { cat "$work/stdout"; fail "opcuaServer made no certificate below /var/lib/orvix/opcuaServer/pki"; }
[ -f /var/log/orvix/orvix.lastlog ] || fail "the second start did not move the log aside"
foreign=$(find /var/lib/orvix /var/log/orvix ! -user orvix)
[ -z "$foreign" ] || fail "not written as orvix: $foreign"
echo "log, spool and PKI files written as orvix: $spool"
find /var/lib/orvix /var/log/orvix -type f -printf '%u:%g %m %p\n'

echo "-- purge"
apt-get purge -y -q orvix orvix-opcua orvix-dev
left=()
for path in /etc/orvix /var/lib/orvix /var/log/orvix /usr/lib/orvix /etc/logrotate.d/orvix "$unit" \
    /etc/systemd/system/multi-user.target.wants/orvix.service /usr/include/orvix /usr/lib/cmake/orvix; do
    [ -e "$path" ] || [ -L "$path" ] && left+=("$path")
done
[ ${#left[@]} -eq 0 ] || fail "left after purge: ${left[*]}"
dpkg -l orvix 2> /dev/null | grep -q '^[ri]' && fail "orvix still known to dpkg after purge"
echo "purged; the system user and group orvix stay, as Debian keeps system users"
