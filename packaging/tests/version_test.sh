#!/usr/bin/env bash
# version_test.sh SOURCE KOVACTL: checks that the project, its change logs, its manual pages and kovactl have the same
# version, and that packaging/release/version detects and names a file with another one.
set -euo pipefail

readonly SOURCE=$1 KOVACTL=$2

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# shellcheck source=packaging/tests/expect.sh
. "$(dirname "$(readlink -f "$0")")/expect.sh"

readonly HAVE_IT=(CMakeLists.txt CHANGELOG.md debian/changelog docs/man/kovactl.1 docs/man/kova_ctlserver.8)

version() { "$SOURCE/packaging/release/version" "$work/copy"; }

copy() {
  rm -rf "$work/copy"
  mkdir "$work/copy"
  (cd "$SOURCE" && cp --parents "${HAVE_IT[@]}" "$work/copy")
}

# is_held FILE: whether a different version in only this file is detected and the file is named.
is_held() {
  local named=$1
  [ "$1" != CMakeLists.txt ] || named=CHANGELOG.md # the reference itself: all other files are named
  copy
  sed -i "s/\b${current//./\\.}\b/9.8.7/" "$work/copy/$1"
  if version 2>"$work/faults"; then return 1; fi
  grep -F "$named has the version" "$work/faults"
}

current=$("$SOURCE/packaging/release/version") || current=none
copy
expect "all files have the same version" version
expect "kovactl has the same version" test "$("$KOVACTL" --version)" = "kovactl $current"
for file in "${HAVE_IT[@]}"; do expect "another version in $file is detected" is_held "$file"; done
sed -i '/^## /d' "$work/copy/CHANGELOG.md"
expect_not "a change log without a version is detected" version
report
