#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the Debian packages twice, in different folders, and compares them byte by byte; looks for errors with
# lintian; holds the ABI of the shared library against the committed one. See ./dev help.
set -euo pipefail
cd "$(dirname "$0")/.."

# shellcheck source=packaging/root.sh
. packaging/root.sh

work=$PWD/build/package
arch=$(dpkg --print-architecture)
cross_root='' # where another architecture's packages are built
trial_root='' # where the machine's own are tried
abi=tests/embed/abi/libskorra_ntp.so.0.abi
abi_options=(--suppressions tests/embed/abi/suppressions.ini --exported-interfaces-only)

fail() {
  echo "package: $*" >&2
  exit 1
}

# The sources, as git knows them; the same for both builds, whatever is edited meanwhile.
copy_sources() {
  mkdir -p "$work"
  git ls-files -z --cached --others --exclude-standard | tar --create --null --files-from=- --file="$work/sources.tar"
}

# Builds the packages next to a copy of the sources. Every object is compiled: a cache of objects would hide a
# difference.
build_packages() {
  local folder=$1
  rm -rf "$folder"
  mkdir -p "$folder/source"
  tar --extract --file="$work/sources.tar" --directory="$folder/source"
  cp -r "$folder/source/packaging/debian" "$folder/source/debian"
  local options
  options="noautodbgsym nocheck parallel=$(nproc)"
  if [ -z "$cross_root" ]; then
    cd "$folder/source"
    env -u CMAKE_CXX_COMPILER_LAUNCHER -u CFLAGS -u CXXFLAGS -u LDFLAGS CCACHE_DISABLE=1 \
      DEB_BUILD_OPTIONS="$options" dpkg-buildpackage --build=binary --no-sign >"$folder/log" 2>&1 || show_log "$folder"
    cd - >/dev/null
    return
  fi
  local inside=/packages/${folder##*/}
  rm -rf "$cross_root$inside"
  mkdir -p "$cross_root/packages"
  cp -r "$folder" "$cross_root$inside"
  # shellcheck disable=SC2016
  in_root "$cross_root" sh -c 'cd "$1/source" && DEB_BUILD_OPTIONS=$2 dpkg-buildpackage --host-arch "$3" \
    --build=binary --no-sign' sh "$inside" "$options" "$arch" >"$folder/log" 2>&1 || show_log "$folder"
  find "$cross_root$inside" -maxdepth 1 -type f ! -name log -exec cp {} "$folder" ';'
}

show_log() {
  tail -40 "$1/log" >&2
  fail "the build failed; its log is $1/log"
}

# What our packages and the examples need; what the sources need, for FetchContent; the server, the loopback, an
# example.
make_trial_root() {
  trial_root=$PWD/build/package/roots/$1
  make_root "$trial_root" "$1" "$arch" \
    g++ cmake ninja-build pkgconf libc-ares-dev libtomlplusplus-dev \
    libasio-dev libspdlog-dev libfmt-dev \
    chrony iproute2 python3
}

# Compilers for another architecture, its libraries and its emulator are in a root of their own, never on the machine.
make_cross_root() {
  arch=$1
  work=$work/$arch
  cross_root=$PWD/build/package/roots/bookworm-$arch
  local library packages=(build-essential "crossbuild-essential-$arch" debhelper cmake ninja-build libasio-dev
    libcli11-dev nlohmann-json3-dev pkgconf qemu-user chrony iproute2)
  for library in libc-ares-dev libfmt-dev libspdlog-dev libtomlplusplus-dev; do
    packages+=("$library:$arch")
  done
  make_root "$cross_root" bookworm "$arch" "${packages[@]}"
}

expect_same() {
  local first second
  for first in "$work"/first/*.deb; do
    second=$work/the_second_time/${first##*/}
    cmp "$first" "$second" || fail "${first##*/} is not the same when built twice"
  done
  echo "package: built twice, the packages are the same byte by byte"
}

# Unlike the list of exported symbols, this sees a structure that grew or an enumerator that moved. What the compiler
# writes down of the types differs between its versions.
is_abi_held() {
  local version
  version=$(g++ -dumpversion)
  [ "${version%%.*}-$arch" = 12-amd64 ] || {
    echo "package: skipped: the ABI is held with g++ 12 on amd64, not with g++ $version on $arch"
    return 1
  }
}

abi_library() {
  echo "$work"/first/source/build-shared/libskorra_ntp.so.*.*.*
}

expect_abi() {
  is_abi_held || return 0
  abidiff "${abi_options[@]}" "$abi" "$(abi_library)" ||
    fail "the ABI differs from $abi; if that is meant, run ./dev package --update-abi"
  echo "package: the ABI is that of $abi"
}

update_abi() {
  is_abi_held || fail "so it is not written"
  copy_sources
  build_packages "$work/first"
  abidw "${abi_options[@]}" --no-corpus-path --no-comp-dir-path --no-show-locs --type-id-style hash \
    --out-file "$abi" "$(abi_library)"
  echo "package: $abi is written; look at what git diff shows"
}

make_packages() {
  copy_sources
  build_packages "$work/first"
  [ "$(find "$work/first" -maxdepth 1 -name "*_$arch.deb" | wc -l)" -eq 3 ] || fail "there are not three packages"
  lintian --allow-root --fail-on error "$work"/first/*.changes
  echo "package: lintian finds no error"
  expect_abi
  build_packages "$work/the_second_time"
  expect_same
  rm -f "$work"/*.deb
  cp "$work"/first/*.deb "$work"
  (cd "$work" && sha256sum ./*.deb && stat --format='%n: %s bytes' ./*.deb)
}

case ${1-} in
  '') make_packages ;;
  --try)
    make_trial_root "${2:-bookworm}"
    make_packages
    packaging/try.sh "$work" "$trial_root" "$arch"
    ;;
  --update-abi) update_abi ;;
  --arch)
    [ "${2-}" = armhf ] || fail "--arch makes packages for armhf only"
    make_cross_root "$2"
    make_packages
    packaging/try.sh "$work" "$cross_root" "$arch"
    ;;
  *) fail "there is no option '$1'; there are: --try [SUITE], --arch armhf, --update-abi" ;;
esac
