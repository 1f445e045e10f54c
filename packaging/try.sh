#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Tries the packages of build/package/ in a clean Debian system, made by debootstrap under build/package/roots/:
# try.sh [SUITE]. The root is made once, from the network; it holds the packages that ours depend on, what builds the
# examples, chrony, and nothing of the tests. The trial has no network but its own loopback. Needs root.
set -euo pipefail
cd "$(dirname "$0")/.."

mirror=${SKORRA_DEBIAN_MIRROR:-http://deb.debian.org/debian}
suite=${1:-bookworm}
root=$PWD/build/package/roots/$suite
packages=(
  g++ cmake ninja-build pkgconf libc-ares-dev libtomlplusplus-dev # what our packages and the examples need
  libasio-dev libspdlog-dev libfmt-dev                            # what the sources need, for FetchContent
  chrony iproute2 python3                                         # the server, the loopback, an example
)

in_root() {
  "${@:1:$(($# - 1))}" chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
    DEBIAN_FRONTEND=noninteractive sh -c "${*: -1}"
}

# A half-made root has no mark and is made from the beginning.
make_root() {
  local list="${packages[*]}"
  [ ! -e "$root/made" ] || [ "$(cat "$root/made")" != "$list" ] || return 0
  if [ ! -e "$root/made" ]; then
    rm -rf "$root"
    mkdir -p "$root"
    debootstrap --variant=minbase "$suite" "$root" "$mirror"
  fi
  cp /etc/resolv.conf "$root/etc/resolv.conf"
  in_root env "apt-get update -q && apt-get install -q -y --no-install-recommends $list"
  printf %s "$list" >"$root/made"
}

# Every file outside /try, without those in which the system notes what was installed when.
files() {
  find "$root" -xdev \( -path "$root/try" -o -path "$root/proc" -o -path "$root/sys" -o -path "$root/dev" \
    -o -path "$root/var/log" -o -path "$root/tmp" \) -prune -o -printf '%P %y\n' | LC_ALL=C sort
}

[ "$(id -u)" -eq 0 ] || {
  echo "try: making a root and entering it needs root" >&2
  exit 1
}
make_root
rm -rf "$root/try"
mkdir -p "$root/try/source"
cp build/package/*.deb packaging/try_inside.sh "$root/try"
git ls-files -z --cached --others --exclude-standard | tar --create --null --files-from=- |
  tar --extract --directory="$root/try/source"
files >"$root/try/files_before"
in_root unshare --net "sh /try/try_inside.sh"
files >"$root/try/files_after"
diff "$root/try/files_before" "$root/try/files_after" || {
  echo "try: the purged packages leave these files, or take some away" >&2
  exit 1
}
echo "try: $suite: purged, the packages leave no file"
