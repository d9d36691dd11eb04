#!/usr/bin/env bash
# powercut_test.sh: cuts the power of the emulated camera at every write to its flash, and at random. Exit status 77:
# QEMU is not installed. KOVA_BUILD is the folder of the programs, built for 64-bit ARM.
#
# KOVA_POWER_CUTS  number of real cuts (default: 20)
# KOVA_LOST        random choices of lost writes after each write (default: 3)
# KOVA_SEED        seed of the random choices (default: 1)
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
# shellcheck source=machine/tests/harness.sh
. "$here/harness.sh"
readonly CUTS=${KOVA_POWER_CUTS:-20} LOST=${KOVA_LOST:-3} SEED=${KOVA_SEED:-1}
readonly CARELESS_SAVERS=(in_place unflushed)

# print_state: prints the camera's current state in the format of machine/tests/replay.
print_state() {
  # shellcheck disable=SC2016 # expanded inside
  inside sh -c 'cd /etc
    for file in system.cfg passwd persistent/user_logo persistent/user_logo.md5; do
      if [ -e "$file" ]; then echo "$file=$(sha256sum <"$file" | cut -d " " -f 1)"; fi
    done'
  print_rest
}

# print_rest: prints the stored state other than the configuration.
print_rest() {
  # shellcheck disable=SC2016 # expanded inside
  inside sh -c 'digest() { sha256sum <"$1" | cut -d " " -f 1; }
    if [ -s /mnt/flash/env ]; then echo "env=$(digest /mnt/flash/env)"; fi
    if [ -e /mnt/flash/firmware.bin ]; then echo "firmware=$(digest /mnt/flash/firmware.bin)"; fi'
}

# done_with OPERATION [STATE]: attributes the writes since the last mark to OPERATION; the function STATE prints the
# camera's state after it.
done_with() { "${2:-print_state}" | "$here/replay" mark "$one/state/writes" "$1"; }

save() { inside kovactl save --sync >/dev/null; }

set_environment() { inside kovactl settings sound-on-boot=on; }

change_account() {
  inside sh -c "printf '%s\n' admin correct-horse-battery | kovactl user passwd --stdin" && save
}

flash_firmware() { inside kovactl firmware "$url/$1" --timeout 60 --wait; }

rename() { inside kovactl settings "name=$1" >/dev/null && save; }

# be_careless NAME: replaces the tool that saves or flashes with a version that is not safe against power cuts.
be_careless() {
  local script tool=cfgmtd
  # shellcheck disable=SC2016 # expanded inside
  case $1 in
    flashing) # overwrites the stored firmware in place
      tool=fwupdate
      script='image=/tmp/fwupdate.bin stored=/mnt/flash/firmware.bin
        head -c 40000 $image >$stored; sync; tail -c +40001 $image >>$stored; sync' ;;
    in_place) # overwrites the stored configuration in place
      script='slot=/mnt/flash/$(readlink /mnt/flash/etc); rm -rf "$slot"; sync; cp -a /etc "$slot"; sync' ;;
    unflushed) # writes to the other slot, but does not flush the files
      script='slot=etc.a; [ "$(readlink /mnt/flash/etc)" != etc.a ] || slot=etc.b; cd /mnt/flash
        rm -rf $slot; cp -a /etc $slot; ln -s $slot etc.new; mv -T etc.new etc; sync /mnt/flash' ;;
  esac
  printf '#!/bin/sh\n%s\n' "$script" >"$work/careless"
  put_inside "$work/careless" /tmp/careless
  inside sh -c "umount /bin/$tool 2>/dev/null; mount -o bind /tmp/careless /bin/$tool"
}

records_what_it_writes() {
  local boot name
  make_image
  expect "the machine records its writes" start_machine --record
  done_with begin print_rest
  mkdir "$work/served"
  cp "$here/../../camera/samples/logo.png" "$work/served/"
  for name in 2.0.0 3.0.0; do
    "$here/../../camera/mkfirmware" "$work/served/$name" --board 42264 --version "$name"
  done
  start_server
  put_inside "$work/served/logo.png" /tmp/logo.local
  save
  done_with save
  expect "the account can be changed" change_account
  done_with account
  expect "the camera can be renamed" rename Porch
  done_with rename
  expect "the environment can be set" set_environment
  done_with environment
  expect "a logo can be installed" put_logo "$url/logo.png"
  expect "the logo can be saved" save
  done_with logo
  expect "firmware can be flashed" flash_firmware 2.0.0
  done_with firmware
  be_careless flashing
  expect "firmware can be flashed by a careless tool" flash_firmware 3.0.0
  done_with flashing
  stop_server
  boot=$(boot_count)
  expect "the camera can be reset" inside kovactl reset-defaults --yes
  expect "the camera comes back" run_machine wait "$one" "$((boot + 1))"
  done_with reset print_rest
  rename Garden
  done_with again
  for name in "${CARELESS_SAVERS[@]}"; do
    be_careless "$name"
    rename "Careless $name"
    inside sync
    done_with "$name"
  done
  expect "the machine can be stopped" run_machine stop "$one"
}

# count OPERATION KEY: prints a count from the output of replay.
count() { sed -n "s/^$1 .*\b$2=\([0-9]*\).*/\1/p" "$work/judged"; }

# The cuts must have hit the operation both before and after it took effect; otherwise nothing was tested.
was_whole() {
  [ "$(count "$1" writes)" -gt 0 ] && [ "$(count "$1" old)" -gt 0 ] && [ "$(count "$1" new)" -gt 0 ] &&
    [ "$(count "$1" broken)" -eq 0 ] && [ "$(count "$1" volatile)" -eq 0 ]
}

is_whole_after_each_write() {
  local name begin=$SECONDS
  expect "all cuts are judged" timeout 3000 "$here/replay" judge "$one/state/writes" "$LOST" "$SEED"
  cp "$work/output" "$work/judged"
  sed 's/^/figure /' "$work/judged"
  figure "judging" "$((SECONDS - begin)) s, with $LOST choices of lost writes, seed $SEED"
  for name in save account rename environment logo firmware reset again; do
    expect "consistent after each write: $name" was_whole "$name"
  done
  expect "all operations are reached" test "$(count all unreached)" = 0
  for name in flashing "${CARELESS_SAVERS[@]}"; do
    expect "a careless tool is detected: $name" test "$(($(count "$name" broken) + $(count "$name" volatile)))" -gt 0
  done
  rm -rf "$one"
}

# churn NUMBER: saves NUMBER + 1 and so on, each as the camera's name and an account's hash and together with a new file
# and its digest, and prints each acknowledged number. The padding after the number flushes it through
# machine/lib/inside, which holds back the last bytes.
churn() {
  # shellcheck disable=SC2016 # expanded inside
  inside sh -c 'number=$1
    while :; do
      number=$((number + 1))
      sed -i "/^churn:/d" /etc/passwd && echo "churn:$number:1000:1000::/:/bin/false" >>/etc/passwd
      head -c 100000 /dev/urandom >/etc/persistent/blob && md5sum </etc/persistent/blob >/etc/persistent/blob.md5
      kovactl settings "name=$number" >&2 && kovactl save --sync >&2 || break
      printf "%d\n%064d\n" "$number" 0
    done' sh "$1"
}
acknowledged() { grep '^[1-9]' "$work/acknowledged" | tail -n 1; }

# saved_number: prints the number restored from flash, if name, account and file belong to the same save.
saved_number() {
  # shellcheck disable=SC2016 # expanded inside
  inside sh -c 'name=$(sed -n "s/^resolv\.host\.1\.name=//p" /etc/system.cfg)
    [ "$name" = "$(sed -n "s/^churn:\([0-9]*\):.*/\1/p" /etc/passwd)" ] &&
    [ "$(md5sum </etc/persistent/blob)" = "$(cat /etc/persistent/blob.md5)" ] && echo "$name"'
}

# cut_while_saving NUMBER: cuts the power during saves from NUMBER + 1 on; sets `saved` to the last acknowledged number.
cut_while_saving() {
  local churning
  : >"$work/acknowledged"
  churn "$1" >"$work/acknowledged" 2>"$work/churn.log" &
  churning=$!
  eventually acknowledged || return
  sleep "$((RANDOM % 3)).$((RANDOM % 9))"
  run_machine cut "$one" >/dev/null
  wait "$churning" || true # the power cut loses its exit status
  saved=$(acknowledged)
}

survives_real_cuts() {
  local cut found=0 saved=0 whole=0 begin=$SECONDS
  make_image
  RANDOM=$SEED
  expect "a new camera boots" start_machine
  for ((cut = 1; cut <= CUTS; cut++)); do
    cut_while_saving "$found" || break
    expect "cut $cut: the camera boots" start_machine
    found=$(saved_number) || break
    # The last acknowledged save, or the one that the cut interrupted.
    if [ "$found" = "$saved" ] || [ "$found" = "$((saved + 1))" ]; then whole=$((whole + 1)); fi
    echo "      acknowledged $saved, found $found"
  done
  figure "real cuts" "$whole of $CUTS consistent, $found saves, in $((SECONDS - begin)) s"
  expect "consistent after each real cut" test "$whole" -eq "$CUTS"
}

[ $# -gt 0 ] || set -- records_what_it_writes is_whole_after_each_write survives_real_cuts
run_parts "$@"
