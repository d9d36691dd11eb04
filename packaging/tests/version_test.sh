#!/usr/bin/env bash
# version_test.sh SOURCE KOVACTL: one version stands in the project, its change logs and its manual pages, and kovactl has
# it; a file that was left behind is named.
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

# is_held FILE: whether another version in this file alone is noticed, by its name.
is_held() {
  local named=$1
  [ "$1" != CMakeLists.txt ] || named=CHANGELOG.md # all the others are
  copy
  sed -i "s/\b${current//./\\.}\b/9.8.7/" "$work/copy/$1"
  if version 2>"$work/faults"; then return 1; fi
  grep -F "$named has the version" "$work/faults"
}

current=$("$SOURCE/packaging/release/version") || current=none
copy
expect "all files agree" version
expect "kovactl has the version, too" test "$("$KOVACTL" --version)" = "kovactl $current"
for file in "${HAVE_IT[@]}"; do expect "$file is held to it" is_held "$file"; done
sed -i '/^## /d' "$work/copy/CHANGELOG.md"
expect_not "a change log without a version does not do" version
report
