# U-Boot's boot script: boots the first slot in BOOT_ORDER that has attempts left and takes one from it. When no slot
# has any left, all get theirs back and the board resets. RAUC and the camera store these variables in the partition
# "env", whose first 4096 bytes are a U-Boot environment. "env export" drops variables that it does not name. An invalid
# environment counts as empty; an unreadable one resets the board, or the defaults would overwrite it.
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
  # Nested, since U-Boot reads "&&" at the end of a line as ";": booti would then run the previous boot's kernel from
  # RAM.
  if load virtio ${disk}:${partition} ${kernel_addr_r} /boot/kernel; then
    if load virtio ${disk}:${partition} ${ramdisk_addr_r} /boot/initrd; then
      booti ${kernel_addr_r} ${ramdisk_addr_r}:${filesize} ${fdtcontroladdr}
    fi
  fi
fi
reset
