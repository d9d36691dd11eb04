#!/usr/bin/env bash
# loader_test.sh: tests which slot camera/adapters/rauc/boot.cmd boots under U-Boot, and what it writes to the
# environment. The slots are empty, so each boot ends with a reset. Exit status 77: QEMU or U-Boot is not installed.
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
# shellcheck source=machine/tests/harness.sh
. "$here/harness.sh"
readonly LOADER=/usr/lib/u-boot/qemu_arm64/u-boot.bin SCRIPT=$here/../../camera/adapters/rauc/boot.cmd
readonly ENVIRONMENT=$((1 << 20)) SIZE=4096 # position on the disk
disk=$work/slots.img
[ -e "$LOADER" ] || skip "U-Boot for QEMU is not installed"

makes_a_disk() {
  truncate -s 8M "$disk"
  PATH=$PATH:/usr/sbin:/sbin
  expect "a disk with slots can be made" sfdisk --quiet "$disk" <<TEXT
label: gpt
start=1MiB, size=1MiB, name=env
size=2MiB, name=A
size=2MiB, name=B
TEXT
  "$here/../lib/nor" "$work/nor.img" "$SCRIPT" ""
}

# write_environment VARIABLE...
write_environment() {
  python3 - "$disk" "$ENVIRONMENT" "$SIZE" "$@" <<'TEXT'
import sys, zlib
path, at, size, *variables = sys.argv[1:]
data = "".join(f"{variable}\0" for variable in variables).encode().ljust(int(size) - 4, b"\0")
with open(path, "r+b") as disk:
    disk.seek(int(at))
    disk.write(zlib.crc32(data).to_bytes(4, "little") + data)
TEXT
}

# environment: prints the variables on one line, or "invalid".
environment() {
  python3 - "$disk" "$ENVIRONMENT" "$SIZE" <<'TEXT'
import sys, zlib
path, at, size = sys.argv[1:]
with open(path, "rb") as disk:
    disk.seek(int(at))
    block = disk.read(int(size))
valid = zlib.crc32(block[4:]) == int.from_bytes(block[:4], "little")
print(" ".join(sorted(block[4:].decode().strip("\0").split("\0"))) if valid else "invalid")
TEXT
}

damage_environment() { printf x | dd of="$disk" bs=1 seek=$((ENVIRONMENT + 100)) conv=notrunc status=none; }

# boot [OPTION]: runs U-Boot until it resets; OPTION configures the disk in QEMU. Sets `booted` to the slot or "none".
boot() {
  timeout "$((60 * KOVA_TIME_FACTOR))" qemu-system-aarch64 -M virt,acpi=off,pflash1=nor -cpu cortex-a53 -m 256 \
    -nodefaults -no-user-config -display none -action reboot=shutdown -serial "file:$work/console" -bios "$LOADER" \
    -blockdev "driver=file,filename=$work/nor.img,node-name=nor,read-only=on" \
    -blockdev "driver=file,filename=$disk,node-name=file" -blockdev "${1:-driver=raw,file=file},node-name=slots" \
    -device virtio-blk-device,drive=slots </dev/null || { echo "U-Boot does not reset" && return 1; }
  booted=$(sed -n 's/.*Booting slot \([AB]\).*/\1/p' "$work/console")
  booted=${booted:-none}
}

# boots SLOT ENVIRONMENT [OPTION]: whether U-Boot boots this slot and leaves this environment.
boots() {
  local booted
  boot "${@:3}" || return
  [ "$booted,$(environment)" = "$1,$2" ] || { echo "booted $booted, left $(environment)" && cat "$work/console" && return 1; }
}

takes_an_attempt() {
  expect "a new disk boots its first slot" boots A "BOOT_A_LEFT=2 BOOT_B_LEFT=3 BOOT_ORDER=A B"
  write_environment "BOOT_ORDER=B A" BOOT_A_LEFT=3 BOOT_B_LEFT=1 kova_audioplay=on other=1
  expect "the first slot in the order is booted" boots B "BOOT_A_LEFT=3 BOOT_B_LEFT=0 BOOT_ORDER=B A kova_audioplay=on"
  expect "a slot without attempts is skipped" boots A "BOOT_A_LEFT=2 BOOT_B_LEFT=0 BOOT_ORDER=B A kova_audioplay=on"
}

# If loading fails, RAM may still hold the kernel of another slot. Only booti prints messages about a magic number.
boots_nothing_else() {
  write_environment "BOOT_ORDER=A B" BOOT_A_LEFT=3 BOOT_B_LEFT=3
  expect "a slot without a kernel is tried" boots A "BOOT_A_LEFT=2 BOOT_B_LEFT=3 BOOT_ORDER=A B"
  expect_not "the content of RAM is not booted" grep -i "magic" "$work/console"
}

gives_new_attempts() {
  write_environment "BOOT_ORDER=B A" BOOT_A_LEFT=0 BOOT_B_LEFT=0
  expect "when no attempts are left, all slots get theirs back" boots none "BOOT_A_LEFT=3 BOOT_B_LEFT=3 BOOT_ORDER=B A"
  write_environment BOOT_ORDER=A BOOT_A_LEFT=0 BOOT_B_LEFT=0
  expect "a slot that is being written gets them, too" boots none "BOOT_A_LEFT=3 BOOT_B_LEFT=3 BOOT_ORDER=A"
  write_environment BOOT_ORDER=A BOOT_A_LEFT=0 BOOT_B_LEFT=3
  expect "a slot outside the boot order is not booted" boots none "BOOT_A_LEFT=3 BOOT_B_LEFT=3 BOOT_ORDER=A"
}

# In this environment, B was running while A was being written.
keeps_what_it_cannot_read() {
  local sector=$((ENVIRONMENT / 512)) kept="BOOT_A_LEFT=0 BOOT_B_LEFT=3 BOOT_ORDER=B"
  write_environment BOOT_ORDER=B BOOT_A_LEFT=0 BOOT_B_LEFT=3
  expect "an unreadable environment boots nothing and is kept" \
    boots none "$kept" "driver=blkdebug,image=file,inject-error.0.event=none,inject-error.0.iotype=read,inject-error.0.sector=$sector"
  expect "once readable, it is used" boots B "BOOT_A_LEFT=0 BOOT_B_LEFT=2 BOOT_ORDER=B"
  damage_environment
  expect "an invalid environment counts as empty" boots A "BOOT_A_LEFT=2 BOOT_B_LEFT=3 BOOT_ORDER=A B"
}

[ $# -gt 0 ] || set -- makes_a_disk takes_an_attempt boots_nothing_else gives_new_attempts keeps_what_it_cannot_read
run_parts "$@"
