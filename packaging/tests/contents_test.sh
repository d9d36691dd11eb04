#!/usr/bin/env bash
# contents_test.sh PACKAGES: compares the files of the packages in the folder PACKAGES with packaging/tests/contents,
# and checks their dependencies on one another and their maintainer scripts. These are the same for every architecture.
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
packages=$(realpath "$1")
readonly here packages

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# shellcheck source=packaging/tests/expect.sh
. "$here/expect.sh"

# list: prints package, mode, owner and name of each file, the target of each link, and the empty folder.
list() {
  local package
  for package in "$packages"/*.deb; do
    dpkg-deb --contents "$package" | awk -v package="$(dpkg-deb --field "$package" Package)" \
      '$1 !~ /^d/ || $6 == "./etc/persistent/" {print package, $1, $2, $6, $7 $8}'
  done | sed 's/ *$//' | LC_ALL=C sort
}

# parts PACKAGE PART...: whether its control archive contains exactly these files.
parts() {
  rm -rf "$work/control"
  dpkg-deb --control "$packages/$1"_*.deb "$work/control"
  diff <(printf '%s\n' "${@:2}" | sort) <(ls "$work/control")
}

field() { dpkg-deb --field "$packages/$1"_*.deb "$2"; }

# Debugging information is looked up by the build-id of the program, which is the name of its file.
has_dbgsym() {
  dpkg-deb --contents "$packages/dbgsym/$1-dbgsym"_*.deb | grep -E '/usr/lib/debug/\.build-id/[0-9a-f]{2}/[0-9a-f]{38}\.debug$'
}

expect "the packages install what packaging/tests/contents lists" diff "$here/contents" <(list)
expect "kova-ctlserver has its scripts" parts kova-ctlserver conffiles control md5sums postinst postrm prerm
expect "its conffiles are the run scripts of the services" \
  test "$(cat "$work/control/conffiles")" = "$(printf '/etc/sv/kova_bus/run\n/etc/sv/kova_ctlserver/run')"
expect "kovactl has no scripts" parts kovactl control md5sums
expect "kova-imageprobe has no scripts" parts kova-imageprobe control md5sums
expect "kova-ctlserver recommends the same on each architecture" \
  test "$(field kova-ctlserver Recommends)" = "dbus, kovactl, runit, tzdata"
expect "kova-ctlserver suggests the picture decoder" test "$(field kova-ctlserver Suggests)" = kova-imageprobe
expect "kova-ctlserver needs libcurl 7.87 or later" grep -F 'libcurl4 (>= 7.87)' <<<"$(field kova-ctlserver Depends)"
expect_not "kova-ctlserver does not need OpenCV" grep opencv <<<"$(field kova-ctlserver Depends)"
for package in kova-ctlserver kovactl kova-imageprobe; do
  expect "$package has debugging information" has_dbgsym "$package"
done
report
