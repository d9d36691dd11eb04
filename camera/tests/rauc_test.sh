#!/usr/bin/env bash
# rauc_test.sh: tests the RAUC adapters with a fake RAUC. Runs in tests/private-root, since the adapters use absolute
# paths. machine/tests test them with the real RAUC on the emulated computer.
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

# program NAME: installs the script on standard input as a program in the PATH of the adapters.
program() {
  { echo '#!/bin/sh' && cat; } >"$work/bin/$1"
  chmod 755 "$work/bin/$1"
}

# run NAME OPTION: sets `status`; the output is in $work/out and $work/err.
run() {
  status=0
  PATH=$work/bin:$PATH "$adapters/$1" "${@:2}" >"$work/out" 2>"$work/err" </dev/null || status=$?
}

# bundle COMPATIBLE CLASS SIZE: sets the output of "rauc info".
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
  check "a bundle for another model is refused" is_refused FW_CHECK_INCOMPAT_HW "made for another model"
  bundle model system 901
  run fwupdate.real -c
  check "an image larger than one of its slots is refused" is_refused FW_CHECK_FAILED ".*larger than its slot"
  bundle model firmware 1
  run fwupdate.real -c
  check "an image without a slot is refused" is_refused FW_CHECK_FAILED "no slot for firmware"
  bundle model "a b" 1
  run fwupdate.real -c
  check "an invalid image class is refused" is_refused FW_CHECK_FAILED ".*no proper name"
  printf "RAUC_MF_COMPATIBLE='model'\n" >"$work/info"
  run fwupdate.real -c
  check "a bundle without an image is refused" is_refused FW_CHECK_FAILED "no image"
  bundle model system 900
  rm "$work/size.b"
  run fwupdate.real -c
  check "a bundle for an unreadable slot is refused" is_refused FW_CHECK_FAILED ".*cannot be read"
  echo 900 >"$work/size.b"
  touch "$work/refuses"
  run fwupdate.real -c
  check "a bundle that RAUC refuses is refused" is_refused FW_CHECK_FAILED "RAUC refuses it"
  check "RAUC's messages are logged" grep -qx "chatter" "$work/log"
  rm "$work/refuses"
}

follows_no_link() {
  mv "$image" "$work/elsewhere"
  ln -s "$work/elsewhere" "$image"
  : >"$work/calls"
  run fwupdate.real -c
  check "a symbolic link fails the check" is_refused FW_CHECK_FAILED "no image"
  run fwupdate -m
  check "a symbolic link is not installed" test "$status" -ne 0
  check "RAUC is not run for a symbolic link" test ! -s "$work/calls"
  rm "$image"
  touch "$image"
}

installs_bundles() {
  : >"$work/calls"
  run fwupdate -m
  check "a bundle is installed" test "$status" -eq 0
  check "RAUC installs it" grep -qx "install $image" "$work/calls"
  touch "$work/refuses"
  run fwupdate -m
  check "a failed installation is an error" test "$status" -eq 1
  check "RAUC's messages about the failure are logged" grep -q "fwupdate: chatter" "$work/log"
  check "RAUC is asked for its status" grep -qx "status" "$work/calls"
  rm "$work/refuses"
}

bounds_the_log() {
  : >"$work/log"
  program rauc <<<"head -c 100000 /dev/zero | tr '\0' x >&2; exit 1"
  run fwupdate.real -c
  check "the log of a flood of output is truncated" test "$(stat -c %s "$work/log")" -le 1001
  check "its end is logged" test -s "$work/log"
}

# called CALL...: whether exactly these calls of RAUC and sleep(1) were made.
called() { [ "$(<"$work/calls")" = "$(printf '%s\n' "$@")" ]; }

marks_serving_slot() {
  : >"$work/calls"
  run mark_good
  check "a slot is marked once the daemon serves" called waited "status mark-good"
  rm "$work/serves"
  : >"$work/calls"
  program kovactl <<<"[ -e $work/serves ] && echo \"\$*\" >>$work/asked"
  program busctl <<<"exit 1"
  run mark_good
  check "kovactl is preferred over busctl" called waited "status mark-good"
  check "kovactl runs with a time-out" grep -qx -- "--timeout 5 stats uptime" "$work/asked"
}

# marked_with ORDER LEFT_A LEFT_B: runs mark_good with these variables of the boot loader.
marked_with() {
  : >"$work/calls"
  printf '%s\n' "BOOT_ORDER=$1" "BOOT_A_LEFT=$2" "BOOT_B_LEFT=$3" >"$work/env"
  run mark_good
}

prefers_serving_slot() {
  marked_with "B A" 3 0
  check "the running slot replaces a failed slot as first" \
    called "status mark-good" "status mark-active booted"
  marked_with "B A" 3 3
  check "a freshly installed slot stays first" called "status mark-good"
  marked_with "A" 3 0
  check "a slot stays first while the other is written" called "status mark-good"
}

# RAUC fails 12 times, each time with a different message.
logs_repeated_failures() {
  : >"$work/log"
  : >"$work/calls"
  program rauc <<<"echo x >>$work/tries; tries=\$(wc -l <$work/tries); echo \"broken \$tries\"; [ \$tries -gt 12 ]"
  run mark_good
  check "the tenth failure is logged with its message" \
    test "$(head -n 1 "$work/log")" = '"rauc status mark-good" has failed 10 times: broken 10'
  check "other failures are not logged" test "$(grep -c failed "$work/log")" -eq 1
  check "the command is retried until it succeeds" grep -q "its slot is good" "$work/log"
}

# mkbundle must pass the image itself to RAUC, not a symbolic link to it.
follows_the_image() {
  echo system >"$work/image"
  ln -s image "$work/latest"
  program rauc <<<"while [ \$# -gt 2 ]; do shift; done; find \$1 -name system.ext4 -printf %y >$work/type
    cat \$1/system.ext4 >$work/bundled; : >\$2"
  run mkbundle "$work/bundle" --image "$work/latest" --version 1 --cert cert --key key
  check "mkbundle follows a link to the image" test "$status,$(<"$work/bundled"),$(<"$work/type")" = 0,system,f
}

# U-Boot's setexpr counts in hexadecimal, its test in decimal.
has_attempts_of_one_digit() {
  check "boot-attempts has one digit" test "$(grep -cxE 'boot-attempts(-primary)?=[1-9]' "$adapters/system.conf")" -eq 2
}

if [ ! -d /etc/persistent ] || [ -n "$(ls -A /etc/persistent)" ] || [ -e /etc/rauc ]; then
  echo "runs in tests/private-root only"
  exit 2
fi
prepare
checks_bundles
follows_no_link
installs_bundles
marks_serving_slot
prefers_serving_slot
logs_repeated_failures
bounds_the_log
follows_the_image
has_attempts_of_one_digit
[ "$failures" -eq 0 ] || { echo "$failures expectations failed" && exit 1; }
