#!/usr/bin/env bash
# reproducible_test.sh SOURCE PACKAGES [ARCHITECTURE]: rebuilds the packages in the folder PACKAGES in another folder,
# at another time, with another time zone, locale and umask, without ccache, and compares.
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

# is_same FILE: compares with the rebuilt file; shows differences with diffoscope(1), if installed.
is_same() {
  cmp "$packages/$1" "$again/$1" && return
  if command -v diffoscope >/dev/null; then diffoscope "$packages/$1" "$again/$1"; fi
  return 1
}

expect "the packages can be rebuilt" build "${@:3}"
expect "the list of files is the same" diff <(cd "$packages" && ls -- *.deb dbgsym) <(cd "$again" && ls -- *.deb dbgsym)
for file in $(cd "$packages" && ls -- *.deb dbgsym/*.deb); do
  expect "$file is identical" is_same "$file"
done
report
