#!/usr/bin/env bash
# Installs the Debian 12 packages that building and testing orvix needs. Safe to run again.
set -euo pipefail
packages=(
    build-essential cmake ninja-build pkg-config
    qtbase5-dev qtbase5-dev-tools
    libbenchmark-dev
    libmosquitto-dev mosquitto openssl
    util-linux mount
)
missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -q
    apt-get install -y -q --no-install-recommends "${missing[@]}"
fi
