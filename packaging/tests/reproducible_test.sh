#!/usr/bin/env bash
# reproducible_test.sh SOURCE PACKAGES [ARCHITECTURE]: builds the packages of the folder PACKAGES once more, in another
# folder and at another time, in another time zone and language, with another mask of modes and without what ccache remembers, and compares.
set -euo pipefail

source=$(realpath "$1") packages=$(realpath "$2")
readonly source packages

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# shellcheck source=packaging/tests/expect.sh
. "$(dirname "$(readlink -f "$0")")/expect.sh"

readonly again=$work/another/and/longer/folder

build() {
  umask 077
  TZ=Asia/Tokyo LC_ALL=C.UTF-8 CCACHE_DISABLE=1 "$source/packaging/package" "$source" "$again" "$@"
}

# is_same FILE: as the one built again; diffoscope(1) tells more of a difference.
is_same() {
  cmp "$packages/$1" "$again/$1" && return
  if command -v diffoscope >/dev/null; then diffoscope "$packages/$1" "$again/$1"; fi
  return 1
}

expect "they are built again" build "${@:3}"
expect "they are as many" diff <(cd "$packages" && ls -- *.deb dbgsym) <(cd "$again" && ls -- *.deb dbgsym)
for file in $(cd "$packages" && ls -- *.deb dbgsym/*.deb); do
  expect "the same $file" is_same "$file"
done
report
