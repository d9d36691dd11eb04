#!/usr/bin/env bash
# words_test.sh: tests that ./dev and the tour refuse unknown arguments, and that the checks of the tour read all their
# input. Builds and boots nothing.
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
# shellcheck source=camera/tests/harness.sh
. "$here/harness.sh"
trap 'rm -rf "$work"' EXIT
# shellcheck source=camera/lib/tour.sh
. "$here/../lib/tour.sh"
dev=$here/../../dev

prints_usage() {
  expect "$1 succeeds" "${@:2}"
  expect "$1 prints the usage" grep -q "^usage: " "$work/output"
}

refuses() {
  expect_not "$1 is refused" "${@:2}"
  expect "$1 names the argument" grep -qF -e "\"${*: -1}\"" "$work/output"
}

accepts_or_refuses() {
  local command
  for command in build test fuzz tour bench package lint format clean camera server "server x" "camera start" \
    "camera exec" machine "machine start" "machine press"; do
    # shellcheck disable=SC2086 # words
    prints_usage "./dev $command --help" "$dev" $command --help
  done
  prints_usage "camera/tour -h" "$here/../tour" -h
  for command in "build release" "fuzz 1" "package --no-test" lint format clean tour "camera start $work/x" "build" ""; do
    # shellcheck disable=SC2086 # words
    refuses "./dev $command nonsense" "$dev" $command nonsense
  done
  expect_not "no file is created" test -e "$work/x"
}

# More text than fits a pipe, with the match at the start.
make_long_texts() {
  local number
  mkdir -p "$work/tar/support" "$work/cam/root/var/log"
  touch "$work/tar/support/first"
  for number in {1..3000}; do
    printf '%s\n' "$work/tar/support/$number-$(printf 'x%.0s' {1..60})"
  done | xargs touch
  (cd "$work/tar" && tar -cf "$work/long.tar" support/first support)
  root=$work/cam/root log_mark=0 output="first $(ls "$work/tar/support")"
  { echo "first" && ls "$work/tar/support"; } >"$root/var/log/messages"
}

checks_read_all() {
  make_long_texts
  expect "a file at the head of a long archive is found" tar_lists "$work/long.tar" support/first
  expect_not "a missing file is not found" tar_lists "$work/long.tar" support/last
  expect "a line at the head of a long log is found" logged_since '^first$'
  expect "a word at the head of a long output is found" printed '^first '
}

accepts_or_refuses
checks_read_all
echo "$failures failed"
[ "$failures" -eq 0 ]
