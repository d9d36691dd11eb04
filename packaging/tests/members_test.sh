#!/usr/bin/env bash
# members_test.sh: tests kova_members with prepared accounts. It rewrites /etc: run it only through tests/private-root.
set -euo pipefail

if [ "$(hostname)" != kova-test ] || [ "$(stat -fc %T /etc)" != tmpfs ]; then
  echo "runs only through tests/private-root" >&2
  exit 125
fi

readonly ADMIN='admin:hash:0:0:Administrator:/etc/persistent:/bin/sh'
readonly ALICE='alice:*:1000:1000::/:/bin/sh' BOB='bob:*:1001:1001::/:/bin/sh'
failed=0

group() { printf 'root:x:0:\nkova:x:990:%s\n' "$1" >/etc/group; }
accounts() { printf '%s\n' "$@" >/etc/passwd; }

# holds WHAT FILE [LINE...]: checks that the file has exactly these lines.
holds() {
  local what=$1 file=$2 want
  shift 2
  want=$(printf '%s\n' "$@")
  if [ "$(cat "$file" 2>/dev/null)" != "$want" ]; then
    printf 'FAILED: %s: %s\n  want %s\n  have %s\n' "$what" "$file" "$want" "$(cat "$file" 2>&1)"
    failed=1
  fi
}
# after WHAT [LINE...]: runs kova_members and checks the accounts.
after() {
  local what=$1
  shift
  "$(dirname "$0")/../kova_members"
  holds "$what" /etc/passwd "$@"
}

# Starts each test with two recorded members of the group and all accounts in place.
begin() {
  rm -f /etc/kova_members
  group alice,bob
  accounts "$ADMIN" 'alice:x:1000:1000::/:/bin/sh' "$BOB"
  after "no account missing" "$ADMIN" 'alice:x:1000:1000::/:/bin/sh' "$BOB"
  holds "no passwords" /etc/kova_members "$ALICE" "$BOB"
}

missing_accounts_are_restored() {
  begin
  printf %s "$ADMIN" >/etc/passwd
  after "a last line without a line break" "$ADMIN" "$ALICE" "$BOB"
  after "a second run" "$ADMIN" "$ALICE" "$BOB"
  : >/etc/passwd
  after "no account at all" "$ALICE" "$BOB"
  holds "the bus looks them up" /run/kova_members.conf '<busconfig>' '  <policy user="alice"/>' \
    '  <policy user="bob"/>' '</busconfig>'
}

truncated_lines_are_no_accounts() {
  begin
  accounts "$ADMIN" 'alice:*:10'
  after "a truncated line" "$ADMIN" 'alice:*:10' "$ALICE" "$BOB"
}

administrator_may_take_a_member_name() {
  begin
  accounts 'bob:hash:0:0:Administrator:/etc/persistent:/bin/sh'
  after "the administrator named like a member" 'bob:hash:0:0:Administrator:/etc/persistent:/bin/sh' "$ALICE"
  accounts "$ADMIN"
  after "the administrator renamed again" "$ADMIN" "$ALICE" "$BOB"
}

former_members_are_dropped() {
  begin
  group bob
  accounts "$ADMIN"
  after "one member removed" "$ADMIN" "$BOB"
  group ''
  accounts "$ADMIN"
  after "all members removed" "$ADMIN"
  [ ! -e /etc/kova_members ] || { echo "FAILED: an empty record is kept" && failed=1; }
}

invalid_names_are_ignored() {
  begin
  group '<x>,,root,a b,*,../x'
  accounts "$ADMIN" '<x>:x:1:1::/:' 'a b:x:2:2::/:' 'root:*:0:0::/:' ':x:3:3::/:'
  after "invalid names" "$ADMIN" '<x>:x:1:1::/:' 'a b:x:2:2::/:' 'root:*:0:0::/:' ':x:3:3::/:'
  holds "none is looked up" /run/kova_members.conf '<busconfig>' '</busconfig>'
}

missing_accounts_are_restored
truncated_lines_are_no_accounts
administrator_may_take_a_member_name
former_members_are_dropped
invalid_names_are_ignored
exit "$failed"
