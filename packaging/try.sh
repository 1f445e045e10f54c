#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Tries the packages of build/package/ in a clean Debian system, made by debootstrap under build/package/roots/:
# try.sh [SUITE]. The root is made once, from the network; it holds the packages that ours depend on, what builds the
# examples, chrony, and nothing of the tests. The trial has no network but its own loopback. Needs root.
set -euo pipefail
cd "$(dirname "$0")/.."

# shellcheck source=packaging/root.sh
. packaging/root.sh
suite=${1:-bookworm}
root=$PWD/build/package/roots/$suite
packages=(
  g++ cmake ninja-build pkgconf libc-ares-dev libtomlplusplus-dev # what our packages and the examples need
  libasio-dev libspdlog-dev libfmt-dev                            # what the sources need, for FetchContent
  chrony iproute2 python3                                         # the server, the loopback, an example
)

# Every file outside /try, without those in which the system notes what was installed when.
files() {
  find "$root" -xdev \( -path "$root/try" -o -path "$root/proc" -o -path "$root/sys" -o -path "$root/dev" \
    -o -path "$root/var/log" -o -path "$root/tmp" \) -prune -o -printf '%P %y\n' | LC_ALL=C sort
}

make_root "$root" "$suite" "$(dpkg --print-architecture)" "${packages[@]}"
rm -rf "$root/try"
mkdir -p "$root/try/source"
cp build/package/*.deb packaging/try_inside.sh "$root/try"
git ls-files -z --cached --others --exclude-standard | tar --create --null --files-from=- |
  tar --extract --directory="$root/try/source"
files >"$root/try/files_before"
enter=(unshare --net)
in_root "$root" sh /try/try_inside.sh
files >"$root/try/files_after"
diff "$root/try/files_before" "$root/try/files_after" || {
  echo "try: the purged packages leave these files, or take some away" >&2
  exit 1
}
echo "try: $suite: purged, the packages leave no file"
