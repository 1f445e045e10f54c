#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the Debian packages twice, in different folders, and compares them byte by byte; looks for errors with
# lintian; holds the ABI of the shared library against the committed one. See ./dev help.
set -euo pipefail
cd "$(dirname "$0")/.."

work=$PWD/build/package
arch=$(dpkg --print-architecture)
abi=tests/embed/abi/libskorra_ntp.so.0.abi
abi_options=(--suppressions tests/embed/abi/suppressions.ini --exported-interfaces-only)

fail() {
  echo "package: $*" >&2
  exit 1
}

# Copies the sources, as git knows them, and builds the packages next to them. Every object is compiled: a cache of
# objects would hide a difference.
build_packages() {
  local folder=$1
  rm -rf "$folder"
  mkdir -p "$folder/source"
  git ls-files -z --cached --others --exclude-standard | tar --create --null --files-from=- |
    tar --extract --directory="$folder/source"
  cp -r "$folder/source/packaging/debian" "$folder/source/debian"
  (
    cd "$folder/source"
    env -u CMAKE_CXX_COMPILER_LAUNCHER -u CFLAGS -u CXXFLAGS -u LDFLAGS CCACHE_DISABLE=1 \
      DEB_BUILD_OPTIONS="noautodbgsym parallel=$(nproc)" dpkg-buildpackage --build=binary --no-sign
  ) >"$folder/log" 2>&1 || {
    tail -40 "$folder/log" >&2
    fail "the build failed; its log is $folder/log"
  }
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
  build_packages "$work/first"
  abidw "${abi_options[@]}" --no-corpus-path --no-comp-dir-path --no-show-locs --type-id-style hash \
    --out-file "$abi" "$(abi_library)"
  echo "package: $abi is written; look at what git diff shows"
}

make_packages() {
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
    make_packages
    packaging/try.sh "${@:2}"
    ;;
  --update-abi) update_abi ;;
  *) fail "there is no option '$1'" ;;
esac
