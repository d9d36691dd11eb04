#!/usr/bin/env bash
# loader_test.sh: tests which slot U-Boot boots by camera/adapters/rauc/boot.cmd, and what it then writes to its environment.
# The slots are empty, so that each boot ends with a reset. Exit status 77: QEMU or U-Boot is not installed.
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
# shellcheck source=machine/tests/harness.sh
. "$here/harness.sh"
readonly LOADER=/usr/lib/u-boot/qemu_arm64/u-boot.bin SCRIPT=$here/../../camera/adapters/rauc/boot.cmd
readonly ENVIRONMENT=$((1 << 20)) SIZE=4096 # in the disk
disk=$work/slots.img
[ -e "$LOADER" ] || skip "U-Boot for QEMU is not installed"

makes_a_disk() {
  truncate -s 8M "$disk"
  PATH=$PATH:/usr/sbin:/sbin
  expect "a disk with slots is made" sfdisk --quiet "$disk" <<TEXT
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

# Its variables in one line, or "invalid".
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

# boot [OPTION...]: until the reset. The options are those of the disk, for QEMU. Sets `booted` to the slot, or "none".
boot() {
  timeout "$((60 * KOVA_TIME_FACTOR))" qemu-system-aarch64 -M virt,acpi=off,pflash1=nor -cpu cortex-a53 -m 256 \
    -nodefaults -no-user-config -display none -action reboot=shutdown -serial "file:$work/console" -bios "$LOADER" \
    -blockdev "driver=file,filename=$work/nor.img,node-name=nor,read-only=on" \
    -blockdev "driver=file,filename=$disk,node-name=file" -blockdev "${1:-driver=raw,file=file},node-name=slots" \
    -device virtio-blk-device,drive=slots </dev/null || { echo "U-Boot does not end" && return 1; }
  booted=$(sed -n 's/.*Booting slot \([AB]\).*/\1/p' "$work/console")
  booted=${booted:-none}
}

# boots SLOT ENVIRONMENT [OPTION...]: and leaves that environment.
boots() {
  local booted
  boot "${@:3}" || return
  [ "$booted,$(environment)" = "$1,$2" ] || { echo "booted $booted, left $(environment)" && cat "$work/console" && return 1; }
}

takes_an_attempt() {
  expect "a new disk boots its first slot" boots A "BOOT_A_LEFT=2 BOOT_B_LEFT=3 BOOT_ORDER=A B"
  write_environment "BOOT_ORDER=B A" BOOT_A_LEFT=3 BOOT_B_LEFT=1 kova_audioplay=on other=1
  expect "the first in the order is booted" boots B "BOOT_A_LEFT=3 BOOT_B_LEFT=0 BOOT_ORDER=B A kova_audioplay=on"
  expect "and without attempts left the next one" boots A "BOOT_A_LEFT=2 BOOT_B_LEFT=0 BOOT_ORDER=B A kova_audioplay=on"
}

# What is in RAM may be the kernel of another slot. Only booti speaks of a kernel's magic number.
boots_nothing_else() {
  write_environment "BOOT_ORDER=A B" BOOT_A_LEFT=3 BOOT_B_LEFT=3
  expect "a slot without a kernel is tried" boots A "BOOT_A_LEFT=2 BOOT_B_LEFT=3 BOOT_ORDER=A B"
  expect_not "and not what is in RAM" grep -i "magic" "$work/console"
}

gives_new_attempts() {
  write_environment "BOOT_ORDER=B A" BOOT_A_LEFT=0 BOOT_B_LEFT=0
  expect "without any left, all get theirs" boots none "BOOT_A_LEFT=3 BOOT_B_LEFT=3 BOOT_ORDER=B A"
  write_environment BOOT_ORDER=A BOOT_A_LEFT=0 BOOT_B_LEFT=0
  expect "also a slot that is being written" boots none "BOOT_A_LEFT=3 BOOT_B_LEFT=3 BOOT_ORDER=A"
  write_environment BOOT_ORDER=A BOOT_A_LEFT=0 BOOT_B_LEFT=3
  expect "which is not booted" boots none "BOOT_A_LEFT=3 BOOT_B_LEFT=3 BOOT_ORDER=A"
}

# B runs, and A was being written.
keeps_what_it_cannot_read() {
  local sector=$((ENVIRONMENT / 512)) kept="BOOT_A_LEFT=0 BOOT_B_LEFT=3 BOOT_ORDER=B"
  write_environment BOOT_ORDER=B BOOT_A_LEFT=0 BOOT_B_LEFT=3
  expect "an environment that cannot be read boots nothing, and is kept" \
    boots none "$kept" "driver=blkdebug,image=file,inject-error.0.event=none,inject-error.0.iotype=read,inject-error.0.sector=$sector"
  expect "until it can be read" boots B "BOOT_A_LEFT=0 BOOT_B_LEFT=2 BOOT_ORDER=B"
  damage_environment
  expect "one that is not valid counts as empty" boots A "BOOT_A_LEFT=2 BOOT_B_LEFT=3 BOOT_ORDER=A B"
}

[ $# -gt 0 ] || set -- makes_a_disk takes_an_attempt boots_nothing_else gives_new_attempts keeps_what_it_cannot_read
run_parts "$@"
