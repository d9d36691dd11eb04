#!/usr/bin/env bash
# update_test.sh: updates the emulated camera by RAUC and U-Boot, with bundles that it must refuse, systems that do not
# come up, and power cuts while it installs. Exit status 77: QEMU is not installed. KOVA_BUILD is the folder of the
# programs, built for 64-bit ARM.
#
# KOVA_POWER_CUTS  power cuts (default: 20)
# KOVA_SEED        of their moments (default: 1)
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
# shellcheck source=machine/tests/harness.sh
. "$here/harness.sh"
readonly CUTS=${KOVA_POWER_CUTS:-20} SEED=${KOVA_SEED:-1}
readonly ADAPTERS=$here/../../camera/adapters/rauc
readonly WATCHDOG_S=20 MAX_DOWNLOAD=52428800 MIB=1048576
readonly OURS=kova.kova_ctlserver PEER=de.pengutronix.rauc STARTS=5 START_RATIO=1.5 MEMORY_KIB=12288 # as bench/daemon
declare -rA OTHER=([A]=B [B]=A) SUCCESSOR=([1.0.0]=2.0.0 [2.0.0]=1.0.0) BUNDLE=([1.0.0]=factory [2.0.0]=good)
slots=$one/slots.img
[ -e /usr/lib/u-boot/qemu_arm64/u-boot.bin ] || skip "U-Boot for QEMU is not installed"
command -v rauc >/dev/null || skip "RAUC is not installed"

# --- bundles --------------------------------------------------------------------------------------------------------

# They exist for this test only.
make_key() {
  openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj "/CN=$1" \
    -keyout "$work/$1.key" -out "$work/$1.crt" 2>/dev/null
}

make_slot() { "$here/../mkslot" "$work/$1.ext4" --keyring "$work/signer.crt" --version "$1" "${@:2}"; }

# make_bundle NAME IMAGE SIGNER [OPTION...]
make_bundle() {
  "$ADAPTERS/mkbundle" "$work/served/$1" --image "$work/$2.ext4" --version "$2" --cert "$work/$3.crt" \
    --key "$work/$3.key" "${@:4}"
}

# make_failing NAME VERSION PATH SCRIPT: a system with the script in place of the program.
make_failing() {
  printf '#!/bin/sh\n%s\n' "$4" >"$work/$1"
  make_slot "$2" --replace "$3" "$work/$1"
  make_bundle "$1" "$2" signer
}

# The good one, with another byte in its middle.
tamper() {
  local at byte
  cp "$work/served/good" "$work/served/tampered"
  at=$(($(stat -c %s "$work/served/good") / 2))
  byte=$(od -An -tu1 -j "$at" -N 1 "$work/served/good")
  printf '%b' "\\0$(printf %o $((byte ^ 255)))" |
    dd of="$work/served/tampered" bs=1 seek="$at" conv=notrunc status=none
}

make_refused_bundles() {
  make_bundle foreign 2.0.0 signer --compatible other-machine
  tamper
  cp --sparse=always "$work/2.0.0.ext4" "$work/9.0.0.ext4"
  truncate -s 129M "$work/9.0.0.ext4"
  make_bundle wide 9.0.0 signer
  truncate -s "$((MAX_DOWNLOAD + 1))" "$work/served/long"
  head -c "$MIB" /dev/urandom >"$work/served/noise"
}

makes_systems_and_bundles() {
  make_image
  mkdir "$work/served"
  expect "a key is made" make_key signer
  expect "and a stranger's" make_key stranger
  expect "a factory's system is made" make_slot 1.0.0
  expect "and its successor" make_slot 2.0.0
  expect "and a bundle of it" make_bundle good 2.0.0 signer
  expect "and of the factory's" make_bundle factory 1.0.0 signer
  figure "bundle" "$(stat -c %s "$work/served/good") bytes, of an image of $(stat -c %s "$work/2.0.0.ext4")"
  expect "and one of a stranger" make_bundle forged 2.0.0 stranger
}

# --- the camera -----------------------------------------------------------------------------------------------------

variable() { inside fw_printenv -n "$1"; }
# Of the boot loader's variables, in one line.
variables() { inside fw_printenv | sort | tr '\n' ' '; }
running_slot() { inside sed -n 's/.*rauc\.slot=\([AB]\).*/\1/p' /proc/cmdline; }
runs() { [ "$(running_slot) $(inside cat /run/firmware_version)" = "$1 $2" ]; }
is_good() { [ "$(variable "BOOT_$1_LEFT")" = 3 ] && logged "its slot is good"; }
# The signatures are younger than a busy machine's clock.
set_clock() { inside date -s "@$(date +%s)" >/dev/null; }
update() { inside kovactl firmware "$url/$1" --timeout 600 --wait; }
# The same program of this build, on this computer, through the forwarded port.
update_from_outside() {
  "$KOVA_BUILD/emulated/kovactl" --bus "unixexec:path=busybox,argv1=nc,argv2=127.0.0.1,argv3=$port" \
    firmware "$url/$1" --timeout 600 --wait
}
free_port() {
  python3 -c 'import socket; taken = socket.create_server(("127.0.0.1", 0)); print(taken.getsockname()[1])'
}
reboot_from() { inside kovactl reboot >/dev/null && run_machine wait "$one" "$(($1 + 1))"; }
attempts() { grep -c "Booting slot $1" "$one/console.log" || true; } # since it was started

# holds SLOT VERSION: whether the slot has all of that system, and nothing else.
holds() { cmp -n "$(stat -c %s "$work/$2.ext4")" -i "$(($(start_of "$1") * MIB)):0" "$slots" "$work/$2.ext4"; }
start_of() { if [ "$1" = A ]; then echo 2; else echo 130; fi; } # in MiB, as machine/machine makes the disk

starts_from_its_factorys_slot() {
  port=$(free_port)
  expect "a camera with slots starts" start_machine --slots "$work/1.0.0.ext4" --bus "$port"
  expect "from the first" runs A 1.0.0
  expect "which is good once the daemon serves" eventually is_good A
  serve http
  inside kovactl settings name=Porch >/dev/null
  expect "its settings are saved" inside kovactl save --sync
}

# refuses WHAT BUNDLE REASON: and changes nothing.
refuses() {
  local before
  before=$(variables && inside sync && sha256sum <"$slots")
  expect_not "$1 is refused" update "$2"
  expect "as $3" grep -q "the transfer failed: $3" "$work/output"
  expect "and nothing is changed" test "$(variables && inside sync && sha256sum <"$slots")" = "$before"
}

refuses_a_stranger() { refuses "a bundle of a stranger" forged FW_CHECK_FAILED; }

refuses_what_it_must() {
  make_refused_bundles
  refuses "a bundle that was changed" tampered FW_CHECK_FAILED
  refuses "noise" noise FW_CHECK_FAILED
  refuses "a bundle for another model" foreign FW_CHECK_INCOMPAT_HW
  refuses "an image larger than its slot" wide FW_CHECK_FAILED
  refuses "a bundle larger than 50 MiB" long TRANSFER_TOOLARGE
}

installs_a_good_bundle() {
  local boot begin
  boot=$(boot_count)
  begin=$(date +%s%N)
  expect "a good bundle is installed, as asked from outside" update_from_outside good
  figure "download, check and installation" "$((($(date +%s%N) - begin) / 1000000)) ms"
  expect "as it tells there" grep -q "^OK" "$work/output"
  expect "in the other slot" holds B 2.0.0
  expect "which is to be booted next" test "$(variable BOOT_ORDER)" = "B A"
  expect "while the first runs on" runs A 1.0.0
  expect "it reboots" reboot_from "$boot"
  expect "into the new system" runs B 2.0.0
  expect "which is good once the daemon serves" eventually is_good B
  expect "and has the settings" inside grep -qx "resolv.host.1.name=Porch" /etc/system.cfg
}

# falls_back WHAT BUNDLE BOOTS: after three attempts, of which BOOTS are counted inside.
falls_back() {
  local boot before slot version other
  slot=$(running_slot) version=$(inside cat /run/firmware_version) other=${OTHER[$slot]}
  set_clock
  expect "a system that $1 is installed" update "$2"
  boot=$(boot_count)
  before=$(attempts "$other")
  inside kovactl reboot >/dev/null
  expect "the camera comes back" comes_back "$((boot + $3 + 1))"
  expect "with the system before it" runs "$slot" "$version"
  expect "after three attempts" test "$(($(attempts "$other") - before))" = 3
  expect "none is left" test "$(variable "BOOT_${other}_LEFT")" = 0
}

# After several boots.
comes_back() { run_machine wait "$one" "$1" || run_machine wait "$one" "$1"; }

falls_back_from_panics() {
  make_failing panics 3.0.0 /usr/libexec/machine/boot 'exit 1'
  falls_back "panics" panics 0
}

# Its daemon does nothing.
falls_back_from_what_does_not_serve() {
  make_failing silent 4.0.0 /usr/bin/kova_ctlserver 'exec sleep 1000000'
  expect "the camera is stopped" run_machine stop "$one"
  expect "and gets a watchdog" start_machine --watchdog "$WATCHDOG_S"
  falls_back "does not serve" silent 3
  expect "the camera is stopped" run_machine stop "$one"
  expect "and starts without a watchdog" start_machine
}

# --- beside its peer ------------------------------------------------------------------------------------------------

# median WHAT NAME: of what was measured.
median() {
  awk -v what="$1" -v name="$2" '$1 == what && $2 == name { print $3 }' "$work/measured" | sort -n |
    awk '{ value[NR] = $1 } END { if (NR) print value[int((NR + 1) / 2)] }'
}
at_most() { awk -v value="$1" -v limit="$2" 'BEGIN { exit !(value != "" && limit != "" && value <= limit) }'; }
times() { awk -v value="$1" -v factor="$2" 'BEGIN { print value * factor }'; }

costs_no_more_than_its_peer() {
  local name
  put_inside "$KOVA_BUILD/bench/daemon/bench_start_times" /tmp/start_times
  put_inside "$here/../../bench/daemon/bus.conf" /tmp/bus.conf
  put_inside "$here/beside_rauc" /tmp/beside_rauc
  expect "daemon and peer are measured" inside /tmp/beside_rauc "$STARTS"
  cp "$work/output" "$work/measured"
  for name in "$OURS" "$PEER"; do
    figure "$name: start until it owns its name" "$(median start "$name") us of the clock inside, median of $STARTS"
    figure "$name: resident memory, idle" "$(median memory "$name") KiB"
  done
  expect "each has started $STARTS times" test "$(grep -c '^start .* [0-9.]*$' "$work/measured")" -eq $((2 * STARTS))
  expect "the daemon starts within $START_RATIO times its peer's" \
    at_most "$(median start "$OURS")" "$(times "$(median start "$PEER")" "$START_RATIO")"
  expect "and has no more than $MEMORY_KIB KiB" at_most "$(median memory "$OURS")" "$MEMORY_KIB"
  expect "it serves again" run_machine wait "$one"
}

# --- power cuts -----------------------------------------------------------------------------------------------------

# wipe SLOT: whatever an installation has not written there by the cut is a hole in the file, and zero. The kernel inside
# has read none of it.
wipe() { fallocate --punch-hole --offset "$(($(start_of "$1") * MIB))" --length "$((128 * MIB))" "$slots"; }
written() { stat -c %b "$slots"; } # in sectors of 512 bytes
has_written() { [ "$(written)" -ge "$1" ] || ! kill -0 "$updating" 2>/dev/null; }

# cut_while_installing BUNDLE VERSION [SECONDS]: when a random part of the image is in the slot, or so much later.
cut_while_installing() {
  local goal updating size process
  set_clock
  wipe "${OTHER[$(running_slot)]}"
  size=$(stat -c %s "$work/$2.ext4")
  goal=$(($(written) + 8 + size * (RANDOM % 100) / 100 / 512))
  process=$(qemu_process)
  update "$1" >"$work/update.log" 2>&1 &
  updating=$!
  until has_written "$goal"; do sleep 0.005; done
  sleep "${3:-0}"
  kill -KILL "$process"
  run_machine cut "$one" >/dev/null
  wait "$updating" || true # its outcome is lost with the power
}

# left_in SLOT VERSION: what the cut has left there of that system.
left_in() {
  if holds "$1" "$2" >/dev/null 2>&1; then echo "all"; elif is_empty "$1"; then echo "none"; else echo "a part"; fi
}
is_empty() {
  [ "$(dd if="$slots" bs=1M skip="$(start_of "$1")" count=128 2>/dev/null | tr -d '\0' | head -c 1 | wc -c)" -eq 0 ]
}

survives_cuts_while_it_installs() {
  local cut slot version next left later booted=0 new=0 parts=0 begin=$SECONDS
  RANDOM=$SEED
  for ((cut = 1; cut <= CUTS; cut++)); do
    eventually is_good "$(running_slot)" || break
    slot=$(running_slot) version=$(inside cat /run/firmware_version)
    next=${SUCCESSOR[$version]}
    later=0
    [ $((cut % 4)) -gt 0 ] || later=0.$((RANDOM % 10)) # as the boot order is written
    cut_while_installing "${BUNDLE[$next]}" "$next" "$later"
    left=$(left_in "${OTHER[$slot]}" "$next")
    [ "$left" != "a part" ] || parts=$((parts + 1))
    expect "cut $cut: the camera boots" start_machine
    if runs "$slot" "$version" && holds "$slot" "$version"; then
      booted=$((booted + 1))
      echo "      the old system, $left of the new one was written"
    elif runs "${OTHER[$slot]}" "$next" && holds "${OTHER[$slot]}" "$next"; then
      booted=$((booted + 1)) new=$((new + 1))
      echo "      the new system"
    fi
  done
  figure "power cuts" "$booted of $CUTS booted a whole system, $new the new one; $parts left a part of it in its slot"
  figure "power cuts took" "$((SECONDS - begin)) s, seed $SEED"
  expect "it always boots the old system or the new" test "$booted" -eq "$CUTS"
  expect "a quarter of the cuts or more left a part of a system" test "$parts" -ge $((CUTS / 4))
}

[ $# -gt 0 ] || set -- makes_systems_and_bundles starts_from_its_factorys_slot refuses_a_stranger \
  refuses_what_it_must costs_no_more_than_its_peer installs_a_good_bundle \
  falls_back_from_panics falls_back_from_what_does_not_serve survives_cuts_while_it_installs
run_parts "$@"
