#!/usr/bin/env bash
# tidy_test.sh: tests kova_tidy with files that a killed kova_ctlserver may leave. It rewrites /etc: run it only through
# tests/private-root.
set -euo pipefail

if [ "$(hostname)" != kova-test ] || [ "$(stat -fc %T /etc)" != tmpfs ]; then
  echo "runs only through tests/private-root" >&2
  exit 125
fi

# shellcheck disable=SC2016 # the hash contains "$"
readonly HASH='$6$salt$0123456789/abcdefghij.KLMNOPQRSTUVWXYZ' OLD='$6$old$9876543210/zyxwvutsrq.KLMNOPQRSTUVWXYZ'
readonly REST=:0:0:Administrator:/etc/persistent:/bin/sh
failed=0

tidy() { "$(dirname "$0")/../kova_tidy" 2>/tmp/said; }

# store LINE..., accounts LINE...: set the content of system.cfg and of /etc/passwd.
store() { printf '%s\n' "$@" >/etc/system.cfg; }
accounts() { printf '%s\n' "$@" >/etc/passwd; }

# is WHAT FILE LINE...: runs kova_tidy and checks that the file has these lines and that no temporary file is left.
is() {
  local what=$1 file=$2 want
  shift 2
  want=$(printf '%s\n' "$@")
  tidy
  if [ "$(cat "$file")" != "$want" ] || compgen -G '/etc/.kova-*' >/dev/null; then
    printf 'FAILED: %s\n  want %s\n  have %s\n' "$what" "$want" "$(cat "$file")"
    failed=1
  fi
}
# untouched WHAT: runs kova_tidy and checks that it neither changes /etc/passwd nor prints anything.
untouched() {
  local before
  before=$(sha256sum /etc/passwd)
  tidy
  if [ "$(sha256sum /etc/passwd)" != "$before" ] || [ -s /tmp/said ]; then
    printf 'FAILED: %s: %s\n  have %s\n' "$1" "$(cat /tmp/said)" "$(cat /etc/passwd)"
    failed=1
  fi
}

a_rename_is_completed() {
  store 'resolv.host.1.name=Camera' 'users.1.name=chief' "users.1.password=$HASH"
  accounts "admin:$OLD$REST"
  chmod 640 /etc/passwd
  is "an interrupted rename" /etc/passwd "chief:$HASH$REST"
  [ "$(stat -c %a /etc/passwd)" = 640 ] || { echo "FAILED: the mode has changed" && failed=1; }
  grep -q "gave the account" /tmp/said || { echo "FAILED: no message" && failed=1; }
  untouched "a second run"

  accounts "admin:x$REST"
  is "an account with its hash in /etc/shadow" /etc/passwd "chief:$HASH$REST"
  store 'users.1.name=chief' "users.1.password=!$HASH"
  accounts "admin:!$OLD$REST"
  is "a locked account" /etc/passwd "chief:!$HASH$REST"
  accounts 'root:*:0:0:root:/root:/bin/sh' "admin:$OLD$REST" 'nobody:*:65534:65534:nobody:/:/bin/false'
  is "an account among others" /etc/passwd 'root:*:0:0:root:/root:/bin/sh' "chief:!$HASH$REST" \
    'nobody:*:65534:65534:nobody:/:/bin/false'
  store 'users.1.name=a.b' "users.1.password=$HASH"
  accounts "axb:$OLD$REST"
  is "a name with a dot" /etc/passwd "a.b:$HASH$REST"
}

consistent_files_stay() {
  store 'users.1.name=admin' "users.1.password=$HASH"
  accounts "admin:$OLD$REST"
  untouched "another hash for the same name"
  accounts "admin:!$OLD$REST"
  untouched "a locked account"
  accounts "admin:x$REST"
  untouched "a hash in /etc/shadow"
  accounts 'admin:x:1000:1000::/home:/bin/sh' "root:$OLD$REST"
  untouched "the name in a line of another form"
}

odd_files_stay() {
  local name
  accounts "admin:$OLD$REST"
  for name in '' 'a:b' 'a b' '-x' '1a' '../x' 'a*' "$(printf 'a\tb')" "$(printf 'n%.0s' {1..33})"; do
    store "users.1.name=$name" "users.1.password=$HASH"
    untouched "the name \"$name\""
  done
  for name in '' x '!' '*' '!x' 'short' 'has:colon:and:more' "${HASH} blank" "!!$HASH"; do
    store 'users.1.name=chief' "users.1.password=$name"
    untouched "the hash \"$name\""
  done
  store 'users.1.name=chief'
  untouched "no hash"
  store "users.1.password=$HASH"
  untouched "no name"
  store '#users.1.name=chief' "users.1.password=$HASH"
  untouched "a comment"
  store 'usersx1.name=chief' "users.1.password=$HASH"
  untouched "another key"
  store 'users.1.name=chief' 'users.1.name=other' "users.1.password=$HASH"
  untouched "two names"
  store 'users.1.name=chief' "users.1.password=$HASH"
  accounts "admin:$OLD$REST" "second:$OLD$REST"
  untouched "two administrators"
  accounts 'root:*:0:0:root:/root:/bin/sh'
  untouched "no administrator"
  : >/etc/passwd
  untouched "no account"
  accounts "admin:$OLD$REST"
  rm /etc/system.cfg
  untouched "no store"
  store 'users.1.name=chief' "users.1.password=$HASH"
  mv /etc/passwd /etc/elsewhere && ln -s elsewhere /etc/passwd
  untouched "a link"
  rm /etc/passwd
  tidy
  [ ! -e /etc/passwd ] || { echo "FAILED: /etc/passwd was created" && failed=1; }
  mv /etc/elsewhere /etc/passwd
}

# stays FILE: runs kova_tidy; whether this file in /etc/persistent still exists.
# shellcheck disable=SC2317 # called through expect
stays() { tidy && [ -e "/etc/persistent/$1" ]; }
expect() { "$@" || { echo "FAILED: $*" && failed=1; }; }
expect_not() { if "$@"; then echo "FAILED: not $*" && failed=1; fi; }

stale_digests_are_removed() {
  local kind
  for kind in user_logo user_sound; do
    printf content >"/etc/persistent/$kind"
    printf content | md5sum | head -c 32 >"/etc/persistent/$kind.md5"
    expect stays "$kind.md5"
    printf other >"/etc/persistent/$kind"
    expect_not stays "$kind.md5"
    expect stays "$kind"
    rm "/etc/persistent/$kind"
    printf content | md5sum | head -c 32 >"/etc/persistent/$kind.md5"
    expect_not stays "$kind.md5"
    mkdir "/etc/persistent/$kind.md5"
    expect stays "$kind.md5"
    rmdir "/etc/persistent/$kind.md5"
  done
}

# Any user can fill /tmp with matching names.
many_names_do_not_prevent_the_cleanup() {
  seq -f '/tmp/.kova-%016.0f' 70000 | xargs touch
  mkdir /tmp/.kova-0123456789abcdef
  touch /etc/.kova-0123456789abcdef
  tidy
  expect_not test -e /etc/.kova-0123456789abcdef
  expect test "$(find /tmp -name '.kova-*' | wc -l)" -eq 1
  rmdir /tmp/.kova-0123456789abcdef
}

a_rename_is_completed
consistent_files_stay
odd_files_stay
stale_digests_are_removed
many_names_do_not_prevent_the_cleanup
exit "$failed"
