#!/usr/bin/env bash
# supervise.sh DIR IMAGE MODULES WATCHDOG RECORD OWNER BUS: the power supply of a machine, with the options of "machine
# start", which may be empty. Runs QEMU until the machine halts, its folder is deleted, the process OWNER exits, the
# record of its writes is full, or a byte arrives in the pipe DIR/state/control, which cuts the power. The machine lives
# only as long as this process.
#
# Each boot starts a new QEMU: after a reset of the board, QEMU 7.2 takes minutes to unpack the initrd instead of a
# moment.
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
# shellcheck source=machine/lib/common.sh
. "$here/common.sh"

readonly LANES=(0 1 2 3) # see machine/lib/inside
readonly MEMORY=512      # MiB
readonly BOOT_LOADER=/usr/lib/u-boot/qemu_arm64/u-boot.bin
readonly TICK=0.2        # seconds between checks of a silent machine
readonly MAX_RECORD_MIB=${KOVA_MAX_RECORD:-1024}

note() { printf '%s %s\n' "$(date '+%F %T')" "$*"; }

close_inherited_descriptors() {
  local path fd
  for path in /proc/self/fd/*; do
    fd=${path##*/}
    if [ "$fd" -gt 2 ]; then eval "exec $fd>&-"; fi
  done
}

# Descriptor 8 is the lock, 9 the control pipe, opened read-write so that neither end blocks.
take_machine() {
  exec 8>>"$lock"
  flock --timeout 2 8 || die "$dir is already running" # others hold it briefly to check it
  rm -f "$control"
  mkfifo -m 600 "$control"
  exec 9<>"$control"
  trap 'echo cut >&9' TERM INT HUP
  take_image
}

# Pins the current image for all boots, even if machine/mkimage replaces it: descriptor 7 is its folder, inherited by
# QEMU, with a shared lock that keeps mkimage from deleting it. Retries, since a replacement is not atomic.
take_image() {
  local tries=50
  until { exec 7<"$image" && flock --shared 7 && [ -e /dev/fd/7/inputs ]; } 2>/dev/null; do
    tries=$((tries - 1))
    [ "$tries" -gt 0 ] || die "there is no image in \"$image\""
    sleep 0.1
  done
  image=/dev/fd/7
}

# add_lane NUMBER: a lane is two ports; the second is for standard error only. Uses pipes, which are always connected,
# unlike sockets: the machine blocks in read(2) until data comes.
add_lane() {
  local port
  for port in "agent$1" "agent$1.errors"; do
    rm -f "$port.in" "$port.out"
    mkfifo -m 600 "$port.in" "$port.out"
    arguments+=(-chardev "pipe,id=$port,path=$port" -device "virtserialport,chardev=$port,name=$port")
  done
}

# The processor is a simple model, which is cheaper to emulate. With -icount, each instruction takes one nanosecond of
# virtual time, however long the emulation takes, so time limits inside hold on a busy computer. While the processor is
# idle, virtual time runs at the speed of real time.
collect_arguments() {
  local lane
  arguments=(-M "virt,gic-version=2" -cpu cortex-a53 -accel "tcg,tb-size=128" -icount "shift=0,sleep=on"
    -m "$MEMORY" -smp 1
    -nodefaults -no-user-config -display none -name kova
    -sandbox "on,obsolete=deny,elevateprivileges=deny,spawn=deny,resourcecontrol=deny"
    -chardev "file,id=console,path=$console,append=on" -serial chardev:console -action reboot=shutdown
    -qmp "unix:monitor,server=on,wait=off" -qtest "unix:qtest,server=on,wait=off" -qtest-log none
    -netdev "user,id=net${bus:+,hostfwd=tcp:127.0.0.1:$bus-:1900}" -device "virtio-net-device,netdev=net"
    -device virtio-rng-device -device virtio-serial-device)
  for lane in "${LANES[@]}"; do add_lane "$lane"; done
  # Randomized addresses double the boot time: QEMU must retranslate code that moves to another address, and a kernel
  # with KASLR isolates its page tables, so QEMU must flush its TLB at each switch.
  add_system "nokaslr norandmaps kova.modules=$modules kova.watchdog=$watchdog kova.bus=$bus"
  if [ -n "$watchdog" ]; then arguments+=(-device i6300esb -action watchdog=reset); fi
  if [ -n "$record" ]; then record_writes; else arguments+=(-blockdev "driver=file,filename=$flash,node-name=flash"); fi
  arguments+=(-device "virtio-blk-device,drive=flash,serial=flash")
}

# add_system OPTIONS: boots the image directly or, with slots, the system that U-Boot selects.
add_system() {
  if [ -e "$slots" ]; then
    "$here/nor" nor.img "$MACHINE_HOME/../camera/adapters/rauc/boot.cmd" "$1"
    arguments+=(-bios "$BOOT_LOADER" -machine "pflash1=nor,acpi=off"
      -blockdev "driver=file,filename=nor.img,node-name=nor,read-only=on"
      -blockdev "driver=file,filename=$slots,node-name=slots" -device "virtio-blk-device,drive=slots,serial=slots")
  else
    arguments+=(-kernel "$image/kernel" -initrd "$image/initrd" -append "console=ttyAMA0 quiet panic=-1 $1"
      -blockdev "driver=file,filename=$image/system.ext4,node-name=system,read-only=on"
      -device "virtio-blk-device,drive=system,serial=system")
  fi
}

# Records for each boot: the flash at power-on and a log of all writes since. machine/tests/replay reads them.
record_writes() {
  local boot
  mkdir -p writes
  boot=$(($(find writes -name '*.img' | wc -l) + 1))
  cp --sparse=always "$flash" "writes/$boot.img"
  : >"writes/$boot.log"
  arguments+=(-blockdev "driver=file,filename=$flash,node-name=flash-file"
    -blockdev "driver=file,filename=writes/$boot.log,node-name=flash-log"
    -blockdev "driver=blklogwrites,file=flash-file,log=flash-log,node-name=flash")
}

# Starts QEMU, which must not outlive this process (pdeathsig) and must not inherit the lock and the control pipe.
power_on() {
  cd "$state"
  rm -f monitor qtest
  collect_arguments
  setpriv --pdeathsig KILL -- qemu-system-aarch64 "${arguments[@]}" 8>&- 9>&- &
  qemu=$!
  note "on, process $qemu"
}

# Whether the lock is still in DIR; false if DIR was deleted or replaced.
has_folder() { [ "$lock" -ef /proc/self/fd/8 ]; }

# Tells a halt from a reset by the kernel's last message; a reset prints none.
has_halted() { tail -n 1 "$console" | grep "reboot: Power down" >/dev/null; }

# start_time PID: prints the start time of a process, or nothing if it has exited; detects reuse of the PID. The process
# name in parentheses may contain anything, so parse after the last ")".
start_time() {
  local fields
  { IFS= read -r -d '' fields <"/proc/$1/stat"; } 2>/dev/null || true
  read -r -a fields <<<"${fields##*) }"
  if [ "${fields[0]:-Z}" != Z ]; then echo "${fields[19]}"; fi
}

has_owner() { [ -z "$owner" ] || { [ -n "$owner_began" ] && [ "$(start_time "$owner")" = "$owner_began" ]; }; }

has_room() {
  local used
  [ -n "$record" ] || return 0
  used=$(du -sm writes 2>/dev/null | cut -f 1)
  [ "${used:-0}" -lt "$MAX_RECORD_MIB" ]
}

# next_event: waits for the control pipe, the exit of QEMU or of the owner, a full record or the deletion of DIR; sets
# `event`.
next_event() {
  event=
  until [ -n "$event" ]; do
    if read -r -n 1 -t "$TICK" -u 9 _; then event="cut"; fi
    if ! has_room; then event="full record"; fi
    if ! has_folder; then event=deleted; fi
    if ! has_owner; then event=orphaned; fi
    if [ -z "$event" ] && ! kill -0 "$qemu" 2>/dev/null; then event=ended; fi
  done
}

# Sets `event` to "reboot" if the machine must be powered on again.
power_off() {
  local status=0
  if [ "$event" != ended ]; then kill -KILL "$qemu" 2>/dev/null || true; fi # it may have exited meanwhile
  wait "$qemu" || status=$?
  if [ "$event" = ended ] && [ "$status" -eq 0 ]; then
    if has_halted; then event=halt; else event=reboot; fi
  fi
  note "off ($event, exit status $status)"
}

close_inherited_descriptors
use_machine "$1"
image=$2 modules=$3 watchdog=$4 record=$5 owner=$6 bus=$7 event=reboot
owner_began=$([ -z "$owner" ] || start_time "$owner")
take_machine
: >"$console"
[ -z "$record" ] || rm -rf "$state/writes"
while [ "$event" = reboot ]; do
  power_on
  next_event
  power_off
done
