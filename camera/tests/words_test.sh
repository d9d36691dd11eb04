#!/usr/bin/env bash
# words_test.sh: how ./dev and the tour handle unknown arguments, and that checks of the tour read all their input.
# Builds and boots nothing.
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
# shellcheck source=camera/tests/harness.sh
. "$here/harness.sh"
trap 'rm -rf "$work"' EXIT
# shellcheck source=camera/lib/tour.sh
. "$here/../lib/tour.sh"
dev=$here/../../dev

tells_its_usage() {
  expect "$1 helps" "${@:2}"
  expect "$1 tells the usage" grep -q "^usage: " "$work/output"
}

refuses() {
  expect_not "$1 is refused" "${@:2}"
  expect "$1 is named" grep -qF -e "\"${*: -1}\"" "$work/output"
}

understands_or_refuses() {
  local command
  for command in build test fuzz tour bench package lint format clean camera server "server x" "camera start" \
    "camera exec" machine "machine start" "machine press"; do
    # shellcheck disable=SC2086 # words
    tells_its_usage "./dev $command --help" "$dev" $command --help
  done
  tells_its_usage "camera/tour -h" "$here/../tour" -h
  for command in "build release" "fuzz 1" "package --no-test" lint format clean tour "camera start $work/x" "build" ""; do
    # shellcheck disable=SC2086 # words
    refuses "./dev $command nonsense" "$dev" $command nonsense
  done
  expect_not "nothing was made" test -e "$work/x"
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
  expect_not "one that is not there is not" tar_lists "$work/long.tar" support/last
  expect "a line at the head of a long log is found" logged_since '^first$'
  expect "a word at the head of a long output is found" printed '^first '
}

understands_or_refuses
checks_read_all
echo "$failures failed"
[ "$failures" -eq 0 ]
