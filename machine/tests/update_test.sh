#!/usr/bin/env bash
# update_test.sh: updates the emulated camera with RAUC and U-Boot: valid bundles, bundles that it must refuse, systems
# that do not come up, and power cuts during the installation. Exit status 77: QEMU, U-Boot or RAUC is not installed.
# KOVA_BUILD is the folder of the programs, built for 64-bit ARM.
#
# KOVA_POWER_CUTS  number of power cuts (default: 20)
# KOVA_SEED        seed of their random moments (default: 1)
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

# make_key NAME: makes a key and a self-signed certificate, for this test only.
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

# make_failing NAME VERSION PATH SCRIPT: makes a bundle of a system in which the script replaces the program PATH.
make_failing() {
  printf '#!/bin/sh\n%s\n' "$4" >"$work/$1"
  make_slot "$2" --replace "$3" "$work/$1"
  make_bundle "$1" "$2" signer
}

# Copies the good bundle and changes a byte in its middle.
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
  expect "the signer's key is made" make_key signer
  expect "an unknown signer's key is made" make_key stranger
  expect "the factory system is made" make_slot 1.0.0
  expect "its successor is made" make_slot 2.0.0
  expect "a bundle of the successor is made" make_bundle good 2.0.0 signer
  expect "a bundle of the factory system is made" make_bundle factory 1.0.0 signer
  figure "bundle" "$(stat -c %s "$work/served/good") bytes, of an image of $(stat -c %s "$work/2.0.0.ext4")"
  expect "a bundle of an unknown signer is made" make_bundle forged 2.0.0 stranger
}

# --- the camera -----------------------------------------------------------------------------------------------------

variable() { inside fw_printenv -n "$1"; }
# variables: prints the boot loader's variables on one line.
variables() { inside fw_printenv | sort | tr '\n' ' '; }
running_slot() { inside sed -n 's/.*rauc\.slot=\([AB]\).*/\1/p' /proc/cmdline; }
runs() { [ "$(running_slot) $(inside cat /run/firmware_version)" = "$1 $2" ]; }
is_good() { [ "$(variable "BOOT_$1_LEFT")" = 3 ] && logged "its slot is good"; }
# A slow machine's clock may be behind, before the certificates are valid.
set_clock() { inside date -s "@$(date +%s)" >/dev/null; }
update() { inside kovactl firmware "$url/$1" --timeout 600 --wait; }
# Runs this build's kovactl on this computer, through the forwarded port.
update_from_outside() {
  "$KOVA_BUILD/emulated/kovactl" --bus "unixexec:path=busybox,argv1=nc,argv2=127.0.0.1,argv3=$port" \
    firmware "$url/$1" --timeout 600 --wait
}
free_port() {
  python3 -c 'import socket; taken = socket.create_server(("127.0.0.1", 0)); print(taken.getsockname()[1])'
}
reboot_from() { inside kovactl reboot >/dev/null && run_machine wait "$one" "$(($1 + 1))"; }
attempts() { grep -c "Booting slot $1" "$one/console.log" || true; } # since the machine's start

# holds SLOT VERSION: whether the slot starts with the complete image of this system.
holds() { cmp -n "$(stat -c %s "$work/$2.ext4")" -i "$(($(start_of "$1") * MIB)):0" "$slots" "$work/$2.ext4"; }
start_of() { if [ "$1" = A ]; then echo 2; else echo 130; fi; } # in MiB, as machine/machine makes the disk

starts_from_its_factorys_slot() {
  port=$(free_port)
  expect "a camera with slots starts" start_machine --slots "$work/1.0.0.ext4" --bus "$port"
  expect "it boots from slot A" runs A 1.0.0
  expect "slot A is marked as good once the daemon serves" eventually is_good A
  serve http
  inside kovactl settings name=Porch >/dev/null
  expect "its settings are saved" inside kovactl save --sync
}

# refuses WHAT BUNDLE REASON: expects that an update is refused and changes nothing.
refuses() {
  local before
  before=$(variables && inside sync && sha256sum <"$slots")
  expect_not "$1 is refused" update "$2"
  expect "the reason is $3" grep -q "the transfer failed: $3" "$work/output"
  expect "slots and variables are unchanged" test "$(variables && inside sync && sha256sum <"$slots")" = "$before"
}

refuses_a_stranger() { refuses "a bundle of an unknown signer" forged FW_CHECK_FAILED; }

refuses_what_it_must() {
  make_refused_bundles
  refuses "a modified bundle" tampered FW_CHECK_FAILED
  refuses "random data" noise FW_CHECK_FAILED
  refuses "a bundle for another model" foreign FW_CHECK_INCOMPAT_HW
  refuses "an image larger than its slot" wide FW_CHECK_FAILED
  refuses "a bundle larger than 50 MiB" long TRANSFER_TOOLARGE
}

installs_a_good_bundle() {
  local boot begin
  boot=$(boot_count)
  begin=$(date +%s%N)
  expect "a good bundle is installed on a request from outside" update_from_outside good
  figure "download, check and installation" "$((($(date +%s%N) - begin) / 1000000)) ms"
  expect "the outcome is reported to the client outside" grep -q "^OK" "$work/output"
  expect "slot B holds the new system" holds B 2.0.0
  expect "slot B is first in the boot order" test "$(variable BOOT_ORDER)" = "B A"
  expect "slot A is still running" runs A 1.0.0
  expect "the camera reboots" reboot_from "$boot"
  expect "it boots the new system" runs B 2.0.0
  expect "slot B is marked as good once the daemon serves" eventually is_good B
  expect "the settings are kept" inside grep -qx "resolv.host.1.name=Porch" /etc/system.cfg
}

# falls_back WHAT BUNDLE BOOTS: expects three attempts at the new system, then the old one. BOOTS of the attempts get
# far enough to be counted by the camera.
falls_back() {
  local boot before slot version other
  slot=$(running_slot) version=$(inside cat /run/firmware_version) other=${OTHER[$slot]}
  set_clock
  expect "a system that $1 is installed" update "$2"
  boot=$(boot_count)
  before=$(attempts "$other")
  inside kovactl reboot >/dev/null
  expect "the camera comes back" comes_back "$((boot + $3 + 1))"
  expect "it runs the previous system" runs "$slot" "$version"
  expect "the new system was tried three times" test "$(($(attempts "$other") - before))" = 3
  expect "it has no attempts left" test "$(variable "BOOT_${other}_LEFT")" = 0
}

# Waits twice: several boots may exceed the time-out of "machine wait".
comes_back() { run_machine wait "$one" "$1" || run_machine wait "$one" "$1"; }

falls_back_from_panics() {
  make_failing panics 3.0.0 /usr/libexec/machine/boot 'exit 1'
  falls_back "panics" panics 0
}

falls_back_from_what_does_not_serve() {
  make_failing silent 4.0.0 /usr/bin/kova_ctlserver 'exec sleep 1000000'
  expect "the camera stops" run_machine stop "$one"
  expect "it starts with a watchdog" start_machine --watchdog "$WATCHDOG_S"
  falls_back "does not serve" silent 3
  expect "it stops again" run_machine stop "$one"
  expect "it starts without a watchdog" start_machine
}

is_first() { [ "$(variable BOOT_ORDER)" = "$1 ${OTHER[$1]}" ]; }

# U-Boot can read kernel and initrd, but the kernel refuses a file system that is larger than its slot.
falls_back_from_what_does_not_mount() {
  make_slot 5.0.0
  PATH=$PATH:/usr/sbin:/sbin debugfs -w -R "set_super_value blocks_count 1000000" "$work/5.0.0.ext4" 2>/dev/null
  make_bundle unmountable 5.0.0 signer
  falls_back "does not mount" unmountable 0
  expect "the console shows that the mount failed" grep -q "init: the firmware cannot be mounted" "$one/console.log"
  expect "the running slot is first in the boot order again" eventually is_first "$(running_slot)"
}

# Without the lock, RAUC, the daemon and mark_good could overwrite each other's changes.
locks_the_boot_loaders_variables() {
  expect "fw_printenv waits for the lock of the boot loader's variables" \
    exit_status 143 inside chpst -l /var/lock/fw_printenv.lock timeout 2 fw_printenv
}

# --- comparison with its peer ---------------------------------------------------------------------------------------

# median WHAT NAME: prints the median of the measurements.
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
    figure "$name: start until it owns its name" "$(median start "$name") us of virtual time, median of $STARTS"
    figure "$name: resident memory, idle" "$(median memory "$name") KiB"
  done
  expect "each was started $STARTS times" test "$(grep -c '^start .* [0-9.]*$' "$work/measured")" -eq $((2 * STARTS))
  expect "the daemon starts within $START_RATIO times the peer's time" \
    at_most "$(median start "$OURS")" "$(times "$(median start "$PEER")" "$START_RATIO")"
  expect "its resident memory is at most $MEMORY_KIB KiB" at_most "$(median memory "$OURS")" "$MEMORY_KIB"
  expect "the daemon serves again" run_machine wait "$one"
}

# --- power cuts -----------------------------------------------------------------------------------------------------

# wipe SLOT: punches a hole for the slot, so that parts that an installation does not reach before the cut read as zero.
# Safe while the machine runs, since the kernel inside has not read the slot.
wipe() { fallocate --punch-hole --offset "$(($(start_of "$1") * MIB))" --length "$((128 * MIB))" "$slots"; }
written() { stat -c %b "$slots"; } # in sectors of 512 bytes
has_written() { [ "$(written)" -ge "$1" ] || ! kill -0 "$updating" 2>/dev/null; }

# cut_while_installing BUNDLE VERSION [SECONDS]: kills QEMU when a random part of the image is written, or SECONDS
# later.
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
  wait "$updating" || true # the power cut loses its exit status
}

# left_in SLOT VERSION: prints how much of the system the cut has left in the slot.
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
    [ $((cut % 4)) -gt 0 ] || later=0.$((RANDOM % 10)) # may hit the write of the boot order
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
  figure "power cuts" "$booted of $CUTS booted a complete system, $new the new one; $parts left a partly written slot"
  figure "power cuts took" "$((SECONDS - begin)) s, seed $SEED"
  expect "each cut leaves the old or the new system bootable" test "$booted" -eq "$CUTS"
  expect "at least a quarter of the cuts leave a partly written slot" test "$parts" -ge $((CUTS / 4))
}

[ $# -gt 0 ] || set -- makes_systems_and_bundles starts_from_its_factorys_slot refuses_a_stranger \
  refuses_what_it_must costs_no_more_than_its_peer installs_a_good_bundle \
  locks_the_boot_loaders_variables falls_back_from_what_does_not_mount \
  falls_back_from_panics falls_back_from_what_does_not_serve survives_cuts_while_it_installs
run_parts "$@"
