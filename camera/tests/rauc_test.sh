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
  program logger <<<"cat >>$work/log"
  program busctl <<<"[ -e $work/serves ]"
  program sleep <<<"echo waited >>$work/calls; touch $work/serves"
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
  check "nor what RAUC refuses" is_refused FW_CHECK_FAILED "not signed for this camera"
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
  rm "$work/refuses"
}

marks_what_serves() {
  : >"$work/calls"
  run mark_good
  check "a slot is marked once the daemon serves" test "$(tr '\n' ' ' <"$work/calls")" = "waited status mark-good "
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
[ "$failures" -eq 0 ] || { echo "$failures expectations failed" && exit 1; }
