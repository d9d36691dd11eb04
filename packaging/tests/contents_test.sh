#!/usr/bin/env bash
# contents_test.sh PACKAGES: holds the packages in the folder PACKAGES to the list of what they install, packaging/tests/contents,
# to their dependencies on one another, and to their maintainer scripts. Every architecture has the same.
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
packages=$(realpath "$1")
readonly here packages

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# shellcheck source=packaging/tests/expect.sh
. "$here/expect.sh"

# list: prints package, mode, owner and name of each file, the target of each link, and folders with nothing in them.
list() {
  local package
  for package in "$packages"/*.deb; do
    dpkg-deb --contents "$package" | awk -v package="$(dpkg-deb --field "$package" Package)" \
      '$1 !~ /^d/ || $6 == "./etc/persistent/" {print package, $1, $2, $6, $7 $8}'
  done | sed 's/ *$//' | LC_ALL=C sort
}

# parts PACKAGE PART...: whether that is all that its control part holds.
parts() {
  rm -rf "$work/control"
  dpkg-deb --control "$packages/$1"_*.deb "$work/control"
  diff <(printf '%s\n' "${@:2}" | sort) <(ls "$work/control")
}

field() { dpkg-deb --field "$packages/$1"_*.deb "$2"; }

# Debugging information is found by the build-id of the program, which its package's file is named by.
has_dbgsym() {
  dpkg-deb --contents "$packages/dbgsym/$1-dbgsym"_*.deb | grep -E '/usr/lib/debug/\.build-id/[0-9a-f]{2}/[0-9a-f]{38}\.debug$'
}

expect "they install what packaging/tests/contents lists" diff "$here/contents" <(list)
expect "kova-ctlserver has its scripts" parts kova-ctlserver conffiles control md5sums postinst postrm prerm
expect "whose conffiles are the services" \
  test "$(cat "$work/control/conffiles")" = "$(printf '/etc/sv/kova_bus/run\n/etc/sv/kova_ctlserver/run')"
expect "kovactl has none" parts kovactl control md5sums
expect "kova-imageprobe neither" parts kova-imageprobe control md5sums
expect "kova-ctlserver recommends the same" test "$(field kova-ctlserver Recommends)" = "dbus, kovactl, runit, tzdata"
expect "and suggests the decoder" test "$(field kova-ctlserver Suggests)" = kova-imageprobe
expect "it needs a libcurl of 7.87" grep -F 'libcurl4 (>= 7.87)' <<<"$(field kova-ctlserver Depends)"
expect_not "it needs no OpenCV" grep opencv <<<"$(field kova-ctlserver Depends)"
for package in kova-ctlserver kovactl kova-imageprobe; do
  expect "$package has debugging information" has_dbgsym "$package"
done
report
