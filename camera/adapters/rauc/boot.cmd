# What U-Boot runs: boots the first slot in BOOT_ORDER that has attempts left, and takes one of them from it. When none is
# left, all get theirs anew. RAUC and the camera keep these variables in the partition "env", whose first 4096 bytes are
# an environment of U-Boot. A variable that is to survive must be named at the export. An environment that is not valid counts
# as an empty one; one that cannot be read does not, since the defaults would be written over it.
virtio scan
for number in 0 1 2 3; do
  if part start virtio ${number} env env_start; then setenv disk ${number}; fi
done
virtio dev ${disk}
virtio read ${loadaddr} ${env_start} 8 || reset
env import -c ${loadaddr} 1000 BOOT_ORDER BOOT_A_LEFT BOOT_B_LEFT kova_audioplay
test -n "${BOOT_ORDER}" || setenv BOOT_ORDER "A B"
test -n "${BOOT_A_LEFT}" || setenv BOOT_A_LEFT 3
test -n "${BOOT_B_LEFT}" || setenv BOOT_B_LEFT 3
setenv take_A 'if test ${BOOT_A_LEFT} -gt 0; then setexpr BOOT_A_LEFT ${BOOT_A_LEFT} - 1; setenv slot A; fi'
setenv take_B 'if test ${BOOT_B_LEFT} -gt 0; then setexpr BOOT_B_LEFT ${BOOT_B_LEFT} - 1; setenv slot B; fi'
setenv slot
for candidate in "${BOOT_ORDER}"; do
  if test -z "${slot}"; then run take_${candidate}; fi
done
if test -z "${slot}"; then
  echo "No slot has an attempt left"
  setenv BOOT_A_LEFT 3
  setenv BOOT_B_LEFT 3
fi
env export -c -s 1000 ${loadaddr} BOOT_ORDER BOOT_A_LEFT BOOT_B_LEFT kova_audioplay
virtio write ${loadaddr} ${env_start} 8
if test -n "${slot}"; then
  echo "Booting slot ${slot}"
  part number virtio ${disk} ${slot} partition
  setenv bootargs "console=ttyAMA0 quiet panic=-1 rauc.slot=${slot} ${options}"
  # Not "&&" at the end of a line, which U-Boot takes for ";": RAM may hold the kernel of the boot before.
  if load virtio ${disk}:${partition} ${kernel_addr_r} /boot/kernel; then
    if load virtio ${disk}:${partition} ${ramdisk_addr_r} /boot/initrd; then
      booti ${kernel_addr_r} ${ramdisk_addr_r}:${filesize} ${fdtcontroladdr}
    fi
  fi
fi
reset
