#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the project and plays its tests in virtual time in clean Debian systems, made by debootstrap under
# build/roots/: ./dev roots [SUITE...]. A root is made once; each run copies the sources into it and goes on with
# the build that is there. Needs root, and the network to make a root.
set -euo pipefail
cd "$(dirname "$0")/../.."

mirror=${SKORRA_DEBIAN_MIRROR:-http://deb.debian.org/debian}
packages=(
  g++ clang cmake ninja-build
  libasio-dev libc-ares-dev libspdlog-dev libfmt-dev libtomlplusplus-dev libcli11-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev librapidcheck-dev libbenchmark-dev
)

in_root() {
  local root=$1
  shift
  chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"
}

# A half-made root has no mark and is made from the beginning.
make_root() {
  local suite=$1 root=$2
  [ ! -e "$root/made" ] || return 0
  rm -rf "$root"
  mkdir -p "$root"
  debootstrap --variant=minbase "$suite" "$root" "$mirror"
  cp /etc/resolv.conf "$root/etc/resolv.conf"
  in_root "$root" apt-get update -q
  in_root "$root" apt-get install -q -y --no-install-recommends "${packages[@]}"
  touch "$root/made"
}

try_root() {
  local suite=$1 root=$2 preset
  mkdir -p "$root/src"
  git ls-files -z --cached --others --exclude-standard | tar --create --null --files-from=- |
    tar --extract --directory="$root/src"
  for preset in release dev; do
    echo "roots: $suite, $preset: $(in_root "$root" cat /etc/debian_version)," \
      "$(in_root "$root" g++ --version | head -1), $(in_root "$root" clang++ --version | head -1)"
    in_root "$root" sh -c "cd /src && cmake --preset $preset >/dev/null && cmake --build --preset $preset &&
      ctest --preset $preset --progress -R '^(sim_tests|fuzz)'"
  done
}

[ "$(id -u)" -eq 0 ] || {
  echo "roots: making a root and entering it needs root" >&2
  exit 1
}
[ $# -gt 0 ] || set -- bookworm trixie
for suite in "$@"; do
  root=$PWD/build/roots/$suite
  make_root "$suite" "$root"
  try_root "$suite" "$root"
done
