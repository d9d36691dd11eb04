# shellcheck shell=bash disable=SC2154 # variables are shared, see use_camera
# Programs of this project that are compiled for another processor: the camera runs them under a user-mode emulator,
# all else of it stays the host's.
#
# KOVA_CAMERA_EMULATOR  the emulator, linked statically, such as /usr/bin/qemu-aarch64-static
# KOVA_CAMERA_SYSROOT   where their loader and libraries come from

# In the camera. The emulator lies there once for each program and under its name, by which the process is then found.
readonly EMULATORS=/usr/libexec/emulators EMULATED_PROGRAMS=/usr/libexec/emulated

is_emulated() { [ -n "${KOVA_CAMERA_EMULATOR:-}" ]; }

check_emulator() {
  [ -x "$KOVA_CAMERA_EMULATOR" ] || die "KOVA_CAMERA_EMULATOR: there is no program \"$KOVA_CAMERA_EMULATOR\""
  [ -d "${KOVA_CAMERA_SYSROOT:-}/lib" ] ||
    die "KOVA_CAMERA_SYSROOT: no libraries for the emulated programs in \"${KOVA_CAMERA_SYSROOT:-}\""
}

# list_emulated_program SOURCE TARGET: prints "source<TAB>path in the camera" of what makes the program SOURCE run as
# TARGET: itself, and a script in its place.
list_emulated_program() {
  local name=${2##*/}
  local script=$state/emulated/$name
  mkdir -p "$state/emulated"
  printf '#!/bin/sh\nexec %s %s "$@"\n' "$EMULATORS/$name" "$EMULATED_PROGRAMS/$name" >"$script"
  chmod 755 "$script"
  printf '%s\t%s\n' "$1" "$EMULATED_PROGRAMS/$name" "$script" "$2" \
    "$(readlink -f "$KOVA_CAMERA_EMULATOR")" "$EMULATORS/$name"
}

# list_emulated_libraries PROGRAM...: prints the same of the loader and the shared libraries that the programs need.
list_emulated_libraries() {
  local loader program path
  loader=$(find "$KOVA_CAMERA_SYSROOT/lib/" -maxdepth 1 -name 'ld-linux-*.so.*' -print -quit)
  [ -n "$loader" ] || die "no loader in \"$KOVA_CAMERA_SYSROOT/lib\""
  {
    echo "/lib/${loader##*/}"
    for program in "$@"; do
      # It refuses those that are the host's own.
      { "$KOVA_CAMERA_EMULATOR" -L "$KOVA_CAMERA_SYSROOT" "$loader" --list "$program" 2>/dev/null || true; } |
        sed -nE 's,^[[:space:]]*(.* => )?(/[^ ]+) \(0x.*,\2,p'
    done
    (cd "$KOVA_CAMERA_SYSROOT" && find lib/ -name "${RUNTIME_LIBRARIES[0]}" -printf '/%p\n')
  } | sed "s,^$KOVA_CAMERA_SYSROOT,," | sort -u | while read -r path; do
    printf '%s\t%s\n' "$(readlink -f "$KOVA_CAMERA_SYSROOT$path")" "$path"
  done
}
