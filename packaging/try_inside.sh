#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The part of try.sh that runs inside the clean system, as root, with a loopback and no other network:
# try_inside.sh ARCHITECTURE. The programs of another architecture than the system's run in an emulator.
set -eu

architecture=$1
server=127.0.0.1:11123
examples=/usr/share/doc/libskorra-ntp-dev/examples
names='skorra-ntp libskorra-ntp-dev libskorra-ntp0'

fail() {
  echo "try: $*" >&2
  exit 1
}

# Sets how programs are built and run. cmake_options is a list of words.
choose_tools() {
  cc=gcc cxx=g++ emulator='' cmake_options=''
  [ "$architecture" != "$(dpkg --print-architecture)" ] || return 0
  [ "$architecture" = armhf ] || fail "there is no emulator for $architecture"
  cc=arm-linux-gnueabihf-gcc cxx=arm-linux-gnueabihf-g++ emulator=qemu-arm
  cmake_options="-DCMAKE_SYSTEM_NAME=Linux -DCMAKE_SYSTEM_PROCESSOR=arm -DCMAKE_C_COMPILER=$cc
    -DCMAKE_CXX_COMPILER=$cxx -DCMAKE_CROSSCOMPILING_EMULATOR=/usr/bin/$emulator"
  PKG_CONFIG_LIBDIR=/usr/lib/$($cc -print-multiarch)/pkgconfig
  export PKG_CONFIG_LIBDIR
}

expect_no_test_packages() {
  for package in libgtest-dev libgmock-dev librapidcheck-dev libbenchmark-dev; do
    case $(dpkg-query -W -f='${db:Status-Status}\n' "$package:*" 2>/dev/null) in
      *installed*) fail "$package is here, which only the tests need" ;;
    esac
  done
}

start_server() {
  ip link set lo up
  printf 'port 11123\nbindaddress 127.0.0.1\nallow all\nlocal stratum 8\ncmdport 0\nbindcmdaddress /\npidfile %s\n' \
    /try/chronyd.pid >/try/chrony.conf
  chronyd -x -d -U -u root -f /try/chrony.conf >/try/chronyd.log 2>&1 &
  chronyd=$!
  trap 'kill "$chronyd"; wait "$chronyd" || true' EXIT
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

# build NAME SOURCE CMAKE_OPTION...
build() {
  name=$1
  source=$2
  shift 2
  # Unquoted: it is a list of words.
  # shellcheck disable=SC2086
  {
    cmake -G Ninja -S "$source" -B "/try/$name" $cmake_options "$@" && cmake --build "/try/$name"
  } >/try/log 2>&1 || {
    cat /try/log >&2
    fail "$name cannot be built"
  }
}

# build_clock_reader NAME CMAKE_OPTION...: the example with its simulated test.
build_clock_reader() {
  name=$1
  shift
  build "$name" /try/clock_reader "$@"
  ctest --test-dir "/try/$name" --output-on-failure --no-tests=error >/try/log 2>&1 || {
    cat /try/log >&2
    fail "the test of $name fails"
  }
  # shellcheck disable=SC2086
  expect_sync "$name" $emulator "/try/$name/clock_reader" "$server"
}

# with_pkg_config KIND SOURCE COMPILER...
with_pkg_config() {
  kind=$1
  program=/try/pkg_config_$1_${2##*.}
  source=$2
  shift 2
  if [ "$kind" = shared ]; then
    flags=$(pkg-config --cflags --libs skorra-ntp)
  else
    flags=$(pkg-config --static --cflags --libs skorra-ntp | sed 's/-lskorra_ntp/-l:libskorra_ntp.a/')
  fi
  # Unquoted: it is a list of words.
  # shellcheck disable=SC2086
  "$@" "$source" -o "$program" $flags
  case $kind-$(readelf -d "$program" | grep -c 'NEEDED.*libskorra_ntp' || true) in
    shared-1 | static-0) ;;
    *) fail "$program is linked with the wrong library" ;;
  esac
  # shellcheck disable=SC2086
  expect_sync "${program#/try/}" $emulator "$program" "$server"
}

install_packages() {
  dpkg --install /try/*.deb >/try/dpkg.log 2>&1 || {
    cat /try/dpkg.log >&2
    fail "the packages cannot be installed"
  }
  for file in bash-completion/completions/skorra-ntp man/man1/skorra-ntp.1.gz doc/libskorra-ntp-dev/docs/c.md.gz \
    doc/skorra-ntp/examples/skorra-ntp.toml; do
    test -e "/usr/share/$file" || fail "/usr/share/$file is missing"
  done
}

try_program() {
  $emulator /usr/bin/skorra-ntp --version
  tries=0
  # The server may still be starting.
  until SKORRA_NTP_CONFIG=/usr/share/doc/skorra-ntp/examples/skorra-ntp.toml \
    $emulator /usr/bin/skorra-ntp sync "$server"; do
    tries=$((tries + 1))
    [ "$tries" -lt 5 ] || fail "skorra-ntp does not sync: $(cat /try/chronyd.log)"
  done
}

try_installed_examples() {
  cp -r "$examples/clock_reader" "$examples/c_clock" /try
  build_clock_reader find_package_shared
  build_clock_reader find_package_static -DBUILD_SHARED_LIBS=OFF
  build find_package_c_shared /try/c_clock
  build find_package_c_static /try/c_clock -DBUILD_SHARED_LIBS=OFF
  for kind in shared static; do
    # shellcheck disable=SC2086
    expect_sync "find_package_c_$kind" $emulator "/try/find_package_c_$kind/c_clock" "$server"
    with_pkg_config "$kind" /try/clock_reader/main.cc "$cxx" -std=c++17
    with_pkg_config "$kind" /try/c_clock/main.c "$cc" -std=c11
  done
  if [ -n "$emulator" ]; then
    echo "try: the example in Python is left out: there is no Python for $architecture here"
  else
    expect_sync python python3 "$examples/python/skorra_ntp.py" "$server"
  fi
}

purge_packages() {
  qualified=''
  for name in $names; do
    qualified="$qualified $name:$architecture"
  done
  # shellcheck disable=SC2086
  dpkg --purge $qualified >/try/dpkg.log 2>&1 || {
    cat /try/dpkg.log >&2
    fail "the packages cannot be purged"
  }
}

# Not installed: from a prefix that was moved, and from the sources.
try_without_packages() {
  for package in /try/*.deb; do
    dpkg --extract "$package" /try/extracted
  done
  mkdir /try/moved
  mv /try/extracted/usr /try/moved/prefix
  build_clock_reader find_package_moved -DCMAKE_PREFIX_PATH=/try/moved/prefix
  if [ -n "$emulator" ]; then
    echo "try: the examples on the sources are left out: they are tried on the machine's own architecture"
    return
  fi
  build_clock_reader fetch_content -DFETCHCONTENT_FULLY_DISCONNECTED=ON \
    -DFETCHCONTENT_SOURCE_DIR_SKORRA-NTP=/try/source
  build crowded_host /try/source/examples/crowded_host
  expect_sync crowded_host /try/crowded_host/crowded_host "$server"
  build plugin /try/source/examples/plugin
  expect_sync plugin /try/plugin/plugin_host /try/plugin/time_plugin.so "$server"
}

choose_tools
expect_no_test_packages
start_server
install_packages
try_program
try_installed_examples
purge_packages
try_without_packages
