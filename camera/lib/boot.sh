# shellcheck shell=bash disable=SC2034,SC2154 # variables are shared, see use_camera
# The work of hardware and boot loader before the first process: clears the RAM file systems and restores the
# configuration from flash or from the factory default.

prepare_ram() {
  local folder
  for folder in etc tmp run; do
    rm -rf --one-file-system -- "${root:?}/$folder"
    mkdir -p "$root/$folder"
  done
  chmod 1777 "$root/tmp"
  restore_configuration
  fill_run "$1"
  if [ "$1" = chroot ]; then make_devices; fi
}

# Root inside the camera controls the flash, so its content is untrusted: follow no link except the one to the slot,
# which is compared by its text, and evaluate nothing.
is_plain() { [ -f "$1" ] && [ ! -h "$1" ]; }

# Removes slots without a link: they were being written or erased when the power failed.
restore_configuration() {
  local source=$root/usr/share/factory/etc slot stored
  stored=$(readlink -- "$flash/etc") || true
  for slot in etc.a etc.b; do
    if [ "$slot" != "$stored" ]; then
      rm -rf --one-file-system -- "${flash:?}/$slot"
    elif [ -d "$flash/$slot" ] && [ ! -h "$flash/$slot" ]; then
      source=$flash/$slot
    fi
  done
  cp -a "$source/." "$root/etc/"
}

fill_run() {
  mkdir -p "$root"/run/{kova,sv,tools,gpio/reset_button}
  echo 1 >"$root/run/gpio/reset_button/value"
  cat /etc/resolv.conf >"$root/run/resolv.conf" 2>/dev/null || true # the host may have no name servers
  ln "$control" "$root/run/initctl"
  count_boot
  firmware_version >"$root/run/firmware_version"
  if [ "$1" != chroot ]; then : >"$root/run/private_hostname"; fi
}

count_boot() {
  local boots=
  if is_plain "$flash/boots"; then boots=$(head -c 10 "$flash/boots" | tr -d '\0'); fi
  if [[ ! $boots =~ ^[1-9][0-9]{0,8}$ ]]; then boots=0; fi
  rm -f -- "$flash/boots.new"
  echo $((boots + 1)) | write_atomically "$flash/boots"
  cp "$flash/boots" "$root/run/boot_count"
}

firmware_version() {
  if is_plain "$flash/firmware.bin"; then
    head -c 512 "$flash/firmware.bin" | sed -n 's/^version=//p'
  else
    cat "$root/usr/share/kova/version"
  fi
}

make_devices() {
  rm -rf --one-file-system -- "${root:?}/dev"
  mkdir -p "$root/dev/shm"
  chmod 1777 "$root/dev/shm"
  local name numbers
  while read -r name numbers; do
    # shellcheck disable=SC2086  # two numbers
    mknod -m 666 "$root/dev/$name" c $numbers
  done <<<'null 1 3
zero 1 5
full 1 7
random 1 8
urandom 1 9
tty 5 0'
}
