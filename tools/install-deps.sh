#!/usr/bin/env bash
# Installs the Debian packages that building, packaging and testing orvix need (Debian 12 or 13, as root): debhelper
# builds the package, lintian and systemd (systemd-analyze, sysusers, tmpfiles) check and install it. Safe to run again.
#
# The OPC UA plugins build on open62541 1.4, which Debian packages from Debian 13 on. On Debian 12 its binary
# packages and their mbedTLS 3.6 libraries come from the trixie suite of the mirror this machine already uses, added
# as an extra source pinned below 500 so that apt never takes anything else from it.
set -euo pipefail
packages=(
    build-essential cmake ninja-build pkg-config clang-format git
    clang libclang-rt-dev
    qtbase5-dev qtbase5-dev-tools zlib1g-dev
    libbenchmark-dev
    libmosquitto-dev mosquitto openssl
    libprotobuf-c-dev protobuf-c-compiler
    libsimdjson-dev
    util-linux mount tzdata
    libsystemd-dev
    prometheus-cpp-dev prometheus
    debhelper lintian systemd
)
opcua_packages=(libopen62541-1.4 libopen62541-1.4-dev libmbedcrypto16 libmbedx509-7 libmbedtls21)
# node-opcua, an OPC UA implementation we did not write, is the other side of the OPC UA plugins' tests. A node that
# is already there (from whatever source) is used; otherwise Debian's.
if ! command -v node >/dev/null 2>&1 || ! command -v npm >/dev/null 2>&1; then
    packages+=(nodejs npm)
fi

# shellcheck disable=SC1091
codename=$(. /etc/os-release && echo "${VERSION_CODENAME:-}")
trixie_source=/etc/apt/sources.list.d/orvix-trixie.sources
trixie_pin=/etc/apt/preferences.d/orvix-trixie

# The URI of the first configured source that serves this release's main suite, in either source format.
debian_mirror() {
    local file
    for file in /etc/apt/sources.list.d/*.sources; do
        [ -f "$file" ] && [ "$file" != "$trixie_source" ] || continue
        awk -v suite="$codename" '
            /^[[:space:]]*$/ { if (uri != "" && has_suite) { print uri; exit } uri = ""; has_suite = 0; next }
            /^URIs:/ { uri = $2 }
            /^Suites:/ { for (i = 2; i <= NF; i++) if ($i == suite) has_suite = 1 }
            END { if (uri != "" && has_suite) print uri }
        ' "$file"
    done
    for file in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
        [ -f "$file" ] || continue
        awk -v suite="$codename" '$1 == "deb" { for (i = 2; i <= NF; i++) if ($i !~ /^\[/ && $i ~ /:\/\//) { if ($(i + 1) == suite) print $i; break } }' "$file"
    done
}

add_trixie_suite() {
    local mirror
    mirror=$(debian_mirror | head -n 1)
    if [ -z "$mirror" ]; then
        echo "install-deps: no apt source for $codename found, cannot add its trixie suite" >&2
        exit 1
    fi
    cat > "$trixie_source" <<EOF
Types: deb
URIs: $mirror
Suites: trixie
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg
EOF
    cat > "$trixie_pin" <<EOF
Package: *
Pin: release n=trixie
Pin-Priority: 50
EOF
}

if [ "$codename" = bookworm ]; then
    packages+=("${opcua_packages[@]}")
    [ -f "$trixie_source" ] || { add_trixie_suite; apt_update_needed=1; }
elif [ -n "$codename" ]; then
    packages+=("${opcua_packages[@]}")
fi

missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ] || [ -n "${apt_update_needed:-}" ]; then
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -q
fi
if [ ${#missing[@]} -gt 0 ]; then
    apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

# The npm packages of the tests, exactly as package-lock.json has them, into tests/nodeopcua/node_modules.
nodeopcua=$(cd "$(dirname "$0")/../tests/nodeopcua" && pwd)
if [ ! -d "$nodeopcua/node_modules/node-opcua" ]; then
    (cd "$nodeopcua" && npm ci --no-audit --no-fund)
fi

# The Sparkplug host of the sparkplug target's tests: the mqtt client and Eclipse Tahu's payload codec, exactly as
# tests/sparkplug/package-lock.json has them.
sparkplug=$(cd "$(dirname "$0")/../tests/sparkplug" && pwd)
if [ ! -d "$sparkplug/node_modules/sparkplug-payload" ] || [ ! -d "$sparkplug/node_modules/mqtt" ]; then
    (cd "$sparkplug" && npm ci --no-audit --no-fund)
fi
