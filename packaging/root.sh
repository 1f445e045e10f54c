# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Clean Debian systems for the scripts alongside, made by debootstrap. Needs root.

# What in_root is run by, such as unshare --net.
enter=()

# in_root ROOT COMMAND...
in_root() {
  local root=$1
  shift
  "${enter[@]}" chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
    DEBIAN_FRONTEND=noninteractive "$@"
}

# make_root ROOT SUITE ARCHITECTURE PACKAGE...: with packages of that architecture alongside the machine's own. A root
# is made once, from the network; it gets what is missing when the packages change. A half-made one has no mark, and is
# made from the beginning.
make_root() {
  local root=$1 suite=$2 architecture=$3 list="${*:4}"
  local mirror=${SKORRA_DEBIAN_MIRROR:-http://deb.debian.org/debian}
  [ "$(id -u)" -eq 0 ] || {
    echo "making a root and entering it needs root" >&2
    return 1
  }
  if [ ! -e "$root/made" ]; then
    rm -rf "$root"
    mkdir -p "$root"
    debootstrap --variant=minbase "$suite" "$root" "$mirror"
  fi
  [ "$(cat "$root/made" 2>/dev/null)" != "$list" ] || return 0
  cp /etc/resolv.conf "$root/etc/resolv.conf"
  in_root "$root" dpkg --add-architecture "$architecture"
  in_root "$root" apt-get update -q
  in_root "$root" apt-get install -q -y --no-install-recommends "${@:4}"
  printf %s "$list" >"$root/made"
}
