#!/usr/bin/env bash
# members_test.sh: arranges accounts, runs kova_members and looks. It rewrites /etc: only through tests/private-root.
set -euo pipefail

if [ "$(hostname)" != kova-test ] || [ "$(stat -fc %T /etc)" != tmpfs ]; then
  echo "only through tests/private-root" >&2
  exit 125
fi

readonly ADMIN='admin:hash:0:0:Administrator:/etc/persistent:/bin/sh'
readonly ALICE='alice:*:1000:1000::/:/bin/sh' BOB='bob:*:1001:1001::/:/bin/sh'
failed=0

group() { printf 'root:x:0:\nkova:x:990:%s\n' "$1" >/etc/group; }
accounts() { printf '%s\n' "$@" >/etc/passwd; }

# holds WHAT FILE [LINE...]: the file has these lines.
holds() {
  local what=$1 file=$2 want
  shift 2
  want=$(printf '%s\n' "$@")
  if [ "$(cat "$file" 2>/dev/null)" != "$want" ]; then
    printf 'FAILED: %s: %s\n  want %s\n  have %s\n' "$what" "$file" "$want" "$(cat "$file" 2>&1)"
    failed=1
  fi
}
# after WHAT [LINE...]: these are the accounts after a run.
after() {
  local what=$1
  shift
  "$(dirname "$0")/../kova_members"
  holds "$what" /etc/passwd "$@"
}

# Two members of the group are known, with all accounts in place.
begin() {
  rm -f /etc/kova_members
  group alice,bob
  accounts "$ADMIN" 'alice:x:1000:1000::/:/bin/sh' "$BOB"
  after "all there" "$ADMIN" 'alice:x:1000:1000::/:/bin/sh' "$BOB"
  holds "no passwords" /etc/kova_members "$ALICE" "$BOB"
}

the_missing_come_back() {
  begin
  printf %s "$ADMIN" >/etc/passwd
  after "a last line without its end" "$ADMIN" "$ALICE" "$BOB"
  after "a second run" "$ADMIN" "$ALICE" "$BOB"
  : >/etc/passwd
  after "no account at all" "$ALICE" "$BOB"
  holds "the bus looks them up" /run/kova_members.conf '<busconfig>' '  <policy user="alice"/>' \
    '  <policy user="bob"/>' '</busconfig>'
}

a_broken_line_is_no_account() {
  begin
  accounts "$ADMIN" 'alice:*:10'
  after "a line cut short" "$ADMIN" 'alice:*:10' "$ALICE" "$BOB"
}

the_administrator_may_borrow_a_name() {
  begin
  accounts 'bob:hash:0:0:Administrator:/etc/persistent:/bin/sh'
  after "taken" 'bob:hash:0:0:Administrator:/etc/persistent:/bin/sh' "$ALICE"
  accounts "$ADMIN"
  after "given back" "$ADMIN" "$ALICE" "$BOB"
}

who_left_is_forgotten() {
  begin
  group bob
  accounts "$ADMIN"
  after "one left" "$ADMIN" "$BOB"
  group ''
  accounts "$ADMIN"
  after "none left" "$ADMIN"
  [ ! -e /etc/kova_members ] || { echo "FAILED: a record of nobody" && failed=1; }
}

odd_names_reach_nothing() {
  begin
  group '<x>,,root,a b,*,../x'
  accounts "$ADMIN" '<x>:x:1:1::/:' 'a b:x:2:2::/:' 'root:*:0:0::/:' ':x:3:3::/:'
  after "odd names" "$ADMIN" '<x>:x:1:1::/:' 'a b:x:2:2::/:' 'root:*:0:0::/:' ':x:3:3::/:'
  holds "none is looked up" /run/kova_members.conf '<busconfig>' '</busconfig>'
}

the_missing_come_back
a_broken_line_is_no_account
the_administrator_may_borrow_a_name
who_left_is_forgotten
odd_names_reach_nothing
exit "$failed"
