#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Puts the libraries of 32-bit Arm that the project builds with into a folder: make_root.sh FOLDER. They come from the
# Debian release of this machine, whose cross compiler they fit; neither its package database nor root is touched.
set -euo pipefail

root=$1
packages=(
  libc6-dev libstdc++6 libubsan1
  libasio-dev libc-ares-dev libspdlog-dev libfmt-dev libtomlplusplus-dev libcli11-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev librapidcheck-dev libbenchmark-dev libboost-dev
)
mirror=${SKORRA_DEBIAN_MIRROR:-http://deb.debian.org/debian}
suite=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
mark="$root/made-of-$suite"
[ ! -e "$mark" ] || exit 0

# A half-made root has no mark and is made from the beginning.
rm -rf "$root"
mkdir -p "$root"/apt/{state/lists/partial,cache/archives/partial,etc/trusted.gpg.d,etc/preferences.d,etc/apt.conf.d}
root=$(cd "$root" && pwd)
: >"$root/apt/state/status"
echo "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $mirror $suite main" >"$root/apt/etc/sources.list"
cat >"$root/apt/apt.conf" <<TEXT
APT { Architecture "armhf"; Architectures { "armhf"; }; Install-Recommends "false"; Sandbox::User "root"; };
Acquire { Languages "none"; Retries "3"; };
Dir "$root/apt";
Dir::Etc "etc";
Dir::State "state";
Dir::State::status "$root/apt/state/status";
Dir::Cache "cache";
TEXT
export APT_CONFIG="$root/apt/apt.conf"
apt-get update -q
apt-get install -q -y --download-only "${packages[@]}"
for package in "$root"/apt/cache/archives/*.deb; do
  dpkg-deb --extract "$package" "$root"
done
rm -rf "$root/apt"
touch "$mark"
