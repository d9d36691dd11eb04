#!/usr/bin/env bash
# rauc_test.sh: tests the adapters to RAUC with a RAUC that says what it is told to. Runs in tests/private-root, since the
# adapters know their files by absolute paths. What RAUC itself does is tested on the emulated computer, in machine/tests.
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
adapters=$here/../adapters/rauc
image=/tmp/fwupdate.bin
work=/tmp/work
failures=0

check() { # TEXT COMMAND...
  local text=$1
  shift
  if "$@"; then printf 'ok    %s\n' "$text" && return; fi
  printf 'FAIL  %s\n' "$text"
  sed 's/^/      | /' "$work/out" "$work/err"
  failures=$((failures + 1))
}

# program NAME: what is on standard input becomes a program that the adapters find.
program() {
  { echo '#!/bin/sh' && cat; } >"$work/bin/$1"
  chmod 755 "$work/bin/$1"
}

# run NAME OPTION: sets `status`; the output is in $work/out and $work/err.
run() {
  status=0
  PATH=$work/bin:$PATH "$adapters/$1" "${@:2}" >"$work/out" 2>"$work/err" </dev/null || status=$?
}

# bundle COMPATIBLE CLASS SIZE: what RAUC tells of it.
bundle() {
  printf "RAUC_MF_COMPATIBLE='%s'\nRAUC_MF_VERSION='2.0.0'\nRAUC_MF_IMAGES=1\n" "$1" >"$work/info"
  printf "RAUC_IMAGE_NAME_0='system.ext4'\nRAUC_IMAGE_CLASS_0='%s'\nRAUC_IMAGE_SIZE_0=%s\n" "$2" "$3" >>"$work/info"
}

prepare() {
  mkdir -p "$work/bin" /etc/rauc
  touch "$image"
  printf '%s\n' '[system]' compatible=model '[slot.system.0]' device=/dev/a '[slot.system.1]' device=/dev/b \
    '[slot.data.0]' device=/dev/data >/etc/rauc/system.conf
  echo 1000 >"$work/size.a"
  echo 900 >"$work/size.b"
  echo 10 >"$work/size.data"
  program blockdev <<<"cat $work/size.\${2##*/}"
  program rauc <<<"echo chatter >&2; echo \"\$*\" >>$work/calls; [ ! -e $work/refuses ] || exit 1; [ \$1 != info ] || cat $work/info"
  program logger <<<"shift 2; if [ \$# -gt 0 ]; then echo \"\$*\"; else cat; fi >>$work/log"
  program busctl <<<"[ -e $work/serves ]"
  program sleep <<<"echo waited >>$work/calls; touch $work/serves"
  program fw_printenv <<<"sed -n \"s/^\$2=//p\" $work/env"
  printf '%s\n' "BOOT_ORDER=A B" BOOT_A_LEFT=3 BOOT_B_LEFT=0 >"$work/env"
}

is_accepted() { [ "$status" -eq 0 ] && [ "$(<"$work/out")" = '{"status":"ok","version":"2.0.0"}' ] && [ ! -s "$work/err" ]; }
is_refused() { [ "$status" -ne 0 ] && grep -q "\"reason\":\"$1\",\"detail\":\"$2\"" "$work/out"; }

checks_bundles() {
  bundle model system 900
  run fwupdate.real -c
  check "a good bundle is accepted" is_accepted
  bundle other system 900
  run fwupdate.real -c
  check "another model's is not" is_refused FW_CHECK_INCOMPAT_HW "made for another model"
  bundle model system 901
  run fwupdate.real -c
  check "nor what is too large for one of the slots" is_refused FW_CHECK_FAILED ".*larger than its slot"
  bundle model firmware 1
  run fwupdate.real -c
  check "nor what has no slot" is_refused FW_CHECK_FAILED "no slot for firmware"
  bundle model "a b" 1
  run fwupdate.real -c
  check "nor a class without a proper name" is_refused FW_CHECK_FAILED ".*no proper name"
  printf "RAUC_MF_COMPATIBLE='model'\n" >"$work/info"
  run fwupdate.real -c
  check "nor one without an image" is_refused FW_CHECK_FAILED "no image"
  bundle model system 900
  rm "$work/size.b"
  run fwupdate.real -c
  check "nor one whose slot cannot be read" is_refused FW_CHECK_FAILED ".*cannot be read"
  echo 900 >"$work/size.b"
  touch "$work/refuses"
  run fwupdate.real -c
  check "nor what RAUC refuses" is_refused FW_CHECK_FAILED "RAUC refuses it"
  check "and its words are in the log" grep -qx "chatter" "$work/log"
  rm "$work/refuses"
}

follows_no_link() {
  mv "$image" "$work/elsewhere"
  ln -s "$work/elsewhere" "$image"
  : >"$work/calls"
  run fwupdate.real -c
  check "a link is not checked" is_refused FW_CHECK_FAILED "no image"
  run fwupdate -m
  check "nor installed" test "$status" -ne 0
  check "nor shown to RAUC" test ! -s "$work/calls"
  rm "$image"
  touch "$image"
}

installs_bundles() {
  : >"$work/calls"
  run fwupdate -m
  check "a bundle is installed" test "$status" -eq 0
  check "by RAUC" grep -qx "install $image" "$work/calls"
  touch "$work/refuses"
  run fwupdate -m
  check "what RAUC cannot install is an error" test "$status" -eq 1
  check "and its words are in the log" grep -q "fwupdate: chatter" "$work/log"
  check "and its status" grep -qx "status" "$work/calls"
  rm "$work/refuses"
}

# What was logged of a bundle that RAUC says a lot of.
bounds_what_it_logs() {
  : >"$work/log"
  program rauc <<<"head -c 100000 /dev/zero | tr '\0' x >&2; exit 1"
  run fwupdate.real -c
  check "a flood of words is cut off" test "$(stat -c %s "$work/log")" -le 1001
  check "at its beginning" test -s "$work/log"
}

# called CALL...: whether RAUC and sleep(1) were called so, and no more.
called() { [ "$(<"$work/calls")" = "$(printf '%s\n' "$@")" ]; }

marks_what_serves() {
  : >"$work/calls"
  run mark_good
  check "a slot is marked once the daemon serves" called waited "status mark-good"
  rm "$work/serves"
  : >"$work/calls"
  program kovactl <<<"[ -e $work/serves ] && echo \"\$*\" >>$work/asked"
  program busctl <<<"exit 1"
  run mark_good
  check "of which kovactl is asked where there is one" called waited "status mark-good"
  check "within a time" grep -qx -- "--timeout 5 stats uptime" "$work/asked"
}

# marked_with ORDER LEFT_A LEFT_B: what RAUC is asked for then.
marked_with() {
  : >"$work/calls"
  printf '%s\n' "BOOT_ORDER=$1" "BOOT_A_LEFT=$2" "BOOT_B_LEFT=$3" >"$work/env"
  run mark_good
}

prefers_what_serves() {
  marked_with "B A" 3 0
  check "a slot that took the place of one that failed is booted first" \
    called "status mark-good" "status mark-active booted"
  marked_with "B A" 3 3
  check "one that was just installed stays first" called "status mark-good"
  marked_with "A" 3 0
  check "as does one while the other is written" called "status mark-good"
}

# RAUC fails 12 times, each time with other words.
tells_what_fails() {
  : >"$work/log"
  : >"$work/calls"
  program rauc <<<"echo x >>$work/tries; tries=\$(wc -l <$work/tries); echo \"broken \$tries\"; [ \$tries -gt 12 ]"
  run mark_good
  check "what fails ten times is logged with its last words" \
    test "$(head -n 1 "$work/log")" = '"rauc status mark-good" has failed 10 times: broken 10'
  check "once" test "$(grep -c failed "$work/log")" -eq 1
  check "and tried until it succeeds" grep -q "its slot is good" "$work/log"
}

# What RAUC is asked to make a bundle of, and that it can be made of a link to an image.
follows_the_image() {
  echo system >"$work/image"
  ln -s image "$work/latest"
  program rauc <<<"while [ \$# -gt 2 ]; do shift; done; find \$1 -name system.ext4 -printf %y >$work/type
    cat \$1/system.ext4 >$work/bundled; : >\$2"
  run mkbundle "$work/bundle" --image "$work/latest" --version 1 --cert cert --key key
  check "a link to an image is followed" test "$status,$(<"$work/bundled"),$(<"$work/type")" = 0,system,f
}

# U-Boot counts in hexadecimal.
has_attempts_of_one_digit() {
  check "attempts have one digit" test "$(grep -cxE 'boot-attempts(-primary)?=[1-9]' "$adapters/system.conf")" -eq 2
}

if [ ! -d /etc/persistent ] || [ -n "$(ls -A /etc/persistent)" ] || [ -e /etc/rauc ]; then
  echo "runs in tests/private-root only"
  exit 2
fi
prepare
checks_bundles
follows_no_link
installs_bundles
marks_what_serves
prefers_what_serves
tells_what_fails
bounds_what_it_logs
follows_the_image
has_attempts_of_one_digit
[ "$failures" -eq 0 ] || { echo "$failures expectations failed" && exit 1; }
