#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Tries the packages of a folder in a clean Debian system: try.sh FOLDER ROOT ARCHITECTURE. The root (packaging/root.sh)
# holds the packages that ours depend on, what builds the examples, chrony, and nothing of the tests. The trial has no
# network but its own loopback. Needs root.
set -euo pipefail
cd "$(dirname "$0")/.."

# shellcheck source=packaging/root.sh
. packaging/root.sh
folder=$1
root=$2
arch=$3

# Every file outside /try, without those in which the system notes what was installed when, and its index of man pages.
files() {
  find "$root" -xdev \( -path "$root/try" -o -path "$root/proc" -o -path "$root/sys" -o -path "$root/dev" \
    -o -path "$root/var/log" -o -path "$root/var/cache/man" -o -path "$root/tmp" \) -prune -o -printf '%P %y\n' |
    LC_ALL=C sort
}

rm -rf "$root/try"
mkdir -p "$root/try/source"
cp "$folder"/*.deb packaging/try_inside.sh "$root/try"
git ls-files -z --cached --others --exclude-standard | tar --create --null --files-from=- |
  tar --extract --directory="$root/try/source"
files >"$root/try/files_before"
enter=(unshare --net)
in_root "$root" sh /try/try_inside.sh "$arch"
files >"$root/try/files_after"
diff "$root/try/files_before" "$root/try/files_after" || {
  echo "try: the purged packages leave these files, or take some away" >&2
  exit 1
}
echo "try: ${root##*/}: purged, the packages leave no file"
