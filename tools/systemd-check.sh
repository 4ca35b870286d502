#!/usr/bin/env bash
# Usage: tools/systemd-check.sh [ORVIX_DEB]
# The package under a real systemd, as root on a Debian machine (systemd as PID 1 is not needed there): boots a
# Debian 12 root with systemd-nspawn, installs the orvix package in it and checks what the unit promises:
#   - the service becomes active (running) as Type=notify, so orvix sent READY=1, and runs as user orvix;
#   - the packaged WatchdogSec (30 s) and TimeoutAbortSec (15 s); with a drop-in of a 4 s watchdog the service keeps running far past it and
#     systemd records its pings (WatchdogTimestamp moves);
#   - an event loop that stops (kill -STOP of the main process) is a watchdog timeout: systemd kills the service and
#     starts it again (NRestarts goes up, a new main process becomes ready).
# The package is ORVIX_DEB, else the one dpkg-buildpackage put above the checkout (built with it if there is none).
# The root is made with debootstrap from this machine's own Debian mirror and kept for the next run in
# $ORVIX_SYSTEMD_ROOT (default ${TMPDIR:-/tmp}/orvix-systemd-root). About 5 minutes the first time, 1 minute after.
# Not part of CI: it downloads a Debian system and needs systemd-nspawn.
set -euo pipefail
cd "$(dirname "$0")/.."

root=${ORVIX_SYSTEMD_ROOT:-${TMPDIR:-/tmp}/orvix-systemd-root}
log=${TMPDIR:-/tmp}/orvix-systemd-check.log
: > "$log"
fail() {
    echo "systemd-check: $*" >&2
    echo "systemd-check: the container's console is in $log" >&2
    exit 1
}

deb=${1:-}
if [ -z "$deb" ]; then
    deb="../orvix_$(dpkg-parsechangelog -S Version)_$(dpkg --print-architecture).deb"
    if [ ! -f "$deb" ]; then
        echo "-- dpkg-buildpackage"
        DEB_BUILD_OPTIONS="nocheck ${DEB_BUILD_OPTIONS:-}" dpkg-buildpackage -b -uc -us > /dev/null
    fi
fi
[ -f "$deb" ] || fail "no package $deb"

for tool in debootstrap:debootstrap systemd-nspawn:systemd-container nsenter:util-linux; do
    command -v "${tool%%:*}" > /dev/null || apt-get install -y -q "${tool#*:}" > /dev/null
done

if [ ! -x "$root/usr/bin/apt-get" ] || [ ! -x "$root/lib/systemd/systemd" ]; then
    echo "-- debootstrap bookworm into $root"
    mirror=$(sed -n 's/^URIs: *\(\S*\/debian\)\/*$/\1/p' /etc/apt/sources.list.d/*.sources 2> /dev/null | head -n 1)
    [ -n "$mirror" ] || mirror=$(sed -n 's/^deb \(\S*\/debian\)\/* .*/\1/p' /etc/apt/sources.list 2> /dev/null | head -n 1)
    [ -n "$mirror" ] || fail "no Debian mirror in this machine's apt sources"
    rm -rf "$root"
    debootstrap --variant=minbase --include=systemd,systemd-sysv,dbus bookworm "$root" "$mirror" >> "$log" 2>&1 ||
        fail "debootstrap failed"
    echo orvix-check > "$root/etc/hostname"
fi

# A fresh install of the package each run, without the drop-in of the last one.
echo "-- install $(basename "$deb")"
rm -rf "$root/etc/systemd/system/orvix.service.d"
cp "$deb" "$root/root/orvix.deb"
systemd-nspawn -q -D "$root" --register=no --keep-unit --pipe sh -c 'export DEBIAN_FRONTEND=noninteractive
    apt-get purge -y -q orvix > /dev/null 2>&1
    apt-get update -q > /dev/null && apt-get install -y -q --no-install-recommends /root/orvix.deb' >> "$log" 2>&1 ||
    fail "installing the package failed"

echo "-- boot"
systemd-nspawn -q -D "$root" -b --private-network --register=no --keep-unit --console=pipe < /dev/null >> "$log" 2>&1 &
nspawn=$!
leader=
stop_container() {
    if [ -n "$leader" ] && kill -0 "$nspawn" 2> /dev/null; then
        nsenter -t "$leader" -a systemctl poweroff > /dev/null 2>&1 || true
        for _ in $(seq 60); do kill -0 "$nspawn" 2> /dev/null || break; sleep 0.5; done
    fi
    kill "$nspawn" 2> /dev/null || true
    wait "$nspawn" 2> /dev/null || true
}
trap stop_container EXIT

# The container's init is nspawn's child; every later command runs in its namespaces.
for _ in $(seq 60); do
    leader=$(pgrep -P "$nspawn" -x systemd || true)
    [ -n "$leader" ] && break
    kill -0 "$nspawn" 2> /dev/null || fail "systemd-nspawn ended at boot"
    sleep 0.5
done
[ -n "$leader" ] || fail "the container's systemd did not start"
inside() { nsenter -t "$leader" -a "$@"; }
state=$(timeout 120 nsenter -t "$leader" -a systemctl is-system-running --wait || true)
echo "system: $state"

show() { inside systemctl show orvix -p "$1" --value; }
wait_for() {
    # Waits up to $1 seconds for the unit's property $2 to be $3.
    local seconds=$1 property=$2 expected=$3
    for _ in $(seq $((seconds * 2))); do
        [ "$(show "$property")" = "$expected" ] && return 0
        sleep 0.5
    done
    return 1
}

echo "-- ready"
wait_for 30 SubState running || fail "orvix.service is $(show ActiveState) ($(show SubState))"
[ "$(show Type)" = notify ] || fail "the unit is Type=$(show Type), not notify"
pid=$(show MainPID)
user=$(inside stat -c %U "/proc/$pid")
[ "$user" = orvix ] || fail "orvix runs as $user"
[ "$(show WatchdogUSec)" = 30s ] || fail "WatchdogUSec is $(show WatchdogUSec), not the packaged 30s"
[ "$(show TimeoutAbortUSec)" = 15s ] || fail "TimeoutAbortUSec is $(show TimeoutAbortUSec), not the packaged 15s"
echo "active (running) as Type=notify, main PID $pid as user $user, WatchdogUSec=$(show WatchdogUSec)," \
    "TimeoutAbortUSec=$(show TimeoutAbortUSec)"

echo "-- watchdog pings"
mkdir -p "$root/etc/systemd/system/orvix.service.d"
cat > "$root/etc/systemd/system/orvix.service.d/check.conf" << 'EOF'
[Service]
WatchdogSec=4
RestartSec=1
TimeoutAbortSec=3
EOF
inside systemctl daemon-reload
inside systemctl restart orvix
wait_for 30 SubState running || fail "orvix.service is $(show ActiveState) after the restart"
pid=$(show MainPID)
restarts=$(show NRestarts)
first=$(show WatchdogTimestampMonotonic)
sleep 12
[ "$(show MainPID)" = "$pid" ] && [ "$(show SubState)" = running ] ||
    fail "orvix did not stay up for 3 times WatchdogSec=$(show WatchdogUSec)"
last=$(show WatchdogTimestampMonotonic)
[ "$last" -gt "$first" ] || fail "no watchdog ping reached systemd in 12 s"
echo "WatchdogUSec=$(show WatchdogUSec): still main PID $pid after 12 s, last ping $(((last - first) / 1000)) ms after the first one seen"

echo "-- a stopped event loop"
stopped=$(date +%s%N)
inside sh -c "kill -STOP $pid"
for _ in $(seq 60); do
    [ "$(show NRestarts)" -gt "$restarts" ] && [ "$(show SubState)" = running ] && break
    sleep 0.5
done
[ "$(show NRestarts)" -gt "$restarts" ] || fail "no restart after the event loop stopped"
[ "$(show SubState)" = running ] || fail "orvix.service is $(show SubState) after the watchdog restart"
[ "$(show MainPID)" != "$pid" ] || fail "the main process is still $pid"
inside journalctl -u orvix --no-pager -o cat | grep -F "Watchdog timeout" | tail -n 1 ||
    fail "the journal has no watchdog timeout"
echo "NRestarts $restarts -> $(show NRestarts), main PID $pid -> $(show MainPID), active (running) again" \
    "$((($(date +%s%N) - stopped) / 1000000)) ms after the stop"
echo "systemd-check: passed"
