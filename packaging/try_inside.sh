#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The part of try.sh that runs inside the clean system, as root, with a loopback and no other network.
set -eu

server=127.0.0.1:11123

fail() {
  echo "try: $*" >&2
  exit 1
}

# The example syncs: its offset from this machine's clock, which the server tells, is next to nothing.
expect_sync() {
  name=$1
  shift
  "$@" >/try/output 2>&1 || {
    cat /try/output >&2
    fail "$name ended with an error"
  }
  offset=$(sed -n 's/^offset  *\(-\{0,1\}[0-9]*\) us$/\1/p' /try/output)
  if ! [ "${offset:-999999}" -gt -100000 ] || ! [ "${offset:-999999}" -lt 100000 ]; then
    cat /try/output >&2
    fail "$name has no offset below 100 ms"
  fi
  echo "try: $name syncs, offset $offset us"
}

# build_example NAME CMAKE_OPTION...: the installed example clock_reader and its simulated test.
build_example() {
  name=$1
  shift
  {
    cmake -G Ninja -S /try/clock_reader -B "/try/$name" "$@" && cmake --build "/try/$name" &&
      ctest --test-dir "/try/$name" --output-on-failure --no-tests=error
  } >/try/log 2>&1 || {
    cat /try/log >&2
    fail "$name cannot be built, or its test fails"
  }
  expect_sync "$name" "/try/$name/clock_reader" "$server"
}

# with_pkg_config NAME PKG_CONFIG_OPTION...
with_pkg_config() {
  name=$1
  shift
  flags=$(pkg-config "$@" --cflags --libs skorra-ntp)
  [ "$name" = pkg_config_shared ] || flags=$(echo "$flags" | sed 's/-lskorra_ntp/-l:libskorra_ntp.a/')
  # Unquoted: it is a list of words.
  # shellcheck disable=SC2086
  g++ -std=c++17 /try/clock_reader/main.cc -o "/try/$name" $flags
  case $name-$(ldd "/try/$name" | grep -c libskorra_ntp || true) in
    pkg_config_shared-1 | pkg_config_static-0) ;;
    *) fail "$name is linked with the wrong library" ;;
  esac
  expect_sync "$name" "/try/$name" "$server"
}

ip link set lo up
printf 'port 11123\nbindaddress 127.0.0.1\nallow all\nlocal stratum 8\ncmdport 0\nbindcmdaddress /\npidfile %s\n' \
  /try/chronyd.pid >/try/chrony.conf
chronyd -x -d -U -u root -f /try/chrony.conf >/try/chronyd.log 2>&1 &
chronyd=$!
trap 'kill "$chronyd"; wait "$chronyd" || true' EXIT

dpkg --install /try/*.deb >/try/dpkg.log 2>&1 || {
  cat /try/dpkg.log >&2
  fail "the packages cannot be installed"
}
skorra-ntp --version
tries=0
until skorra-ntp sync "$server"; do # the server may still be starting
  tries=$((tries + 1))
  [ "$tries" -lt 5 ] || fail "skorra-ntp does not sync: $(cat /try/chronyd.log)"
done
test -e /usr/share/bash-completion/completions/skorra-ntp || fail "the completion is missing"
examples=/usr/share/doc/libskorra-ntp-dev/examples
cp -r "$examples/clock_reader" /try

build_example find_package_shared
build_example find_package_static -DBUILD_SHARED_LIBS=OFF
with_pkg_config pkg_config_shared
with_pkg_config pkg_config_static --static
if [ -e "$examples/main.c" ]; then
  # Unquoted: it is a list of words.
  # shellcheck disable=SC2046
  gcc -std=c11 "$examples/main.c" -o /try/c_clock $(pkg-config --cflags --libs skorra-ntp)
  expect_sync C /try/c_clock "$server"
  expect_sync Python python3 "$examples/skorra_ntp.py" "$server"
fi
dpkg --purge skorra-ntp libskorra-ntp-dev libskorra-ntp0 >/try/dpkg.log 2>&1 || {
  cat /try/dpkg.log >&2
  fail "the packages cannot be purged"
}

# Not installed: from a prefix that was moved, and from the sources.
for package in /try/*.deb; do
  dpkg --extract "$package" /try/extracted
done
mkdir /try/moved
mv /try/extracted/usr /try/moved/prefix
build_example find_package_moved -DCMAKE_PREFIX_PATH=/try/moved/prefix
build_example fetch_content -DFETCHCONTENT_FULLY_DISCONNECTED=ON -DFETCHCONTENT_SOURCE_DIR_SKORRA-NTP=/try/source
