# shellcheck shell=bash disable=SC2154 # variables are shared, see use_camera
# Runs programs of this project that are built for another processor in a user-mode emulator. All other programs are
# the host's.
#
# KOVA_CAMERA_EMULATOR  a statically linked emulator, such as /usr/bin/qemu-aarch64-static
# KOVA_CAMERA_SYSROOT   the folder with their loader and libraries

# Inside the camera. It contains a copy of the emulator for each program, named like it, so that processes have the
# expected names.
readonly EMULATORS=/usr/libexec/emulators EMULATED_PROGRAMS=/usr/libexec/emulated

is_emulated() { [ -n "${KOVA_CAMERA_EMULATOR:-}" ]; }

check_emulator() {
  [ -x "$KOVA_CAMERA_EMULATOR" ] || die "KOVA_CAMERA_EMULATOR: no such program: \"$KOVA_CAMERA_EMULATOR\""
  [ -d "${KOVA_CAMERA_SYSROOT:-}/lib" ] ||
    die "KOVA_CAMERA_SYSROOT: no libraries for the emulated programs in \"${KOVA_CAMERA_SYSROOT:-}\""
}

# list_emulated_program SOURCE TARGET: prints "source<TAB>path in the camera" of the files that run SOURCE as TARGET:
# the program and a script that starts it.
list_emulated_program() {
  local name=${2##*/}
  local script=$state/emulated/$name
  mkdir -p "$state/emulated"
  printf '#!/bin/sh\nexec %s %s "$@"\n' "$EMULATORS/$name" "$EMULATED_PROGRAMS/$name" >"$script"
  chmod 755 "$script"
  printf '%s\t%s\n' "$1" "$EMULATED_PROGRAMS/$name" "$script" "$2" \
    "$(readlink -f "$KOVA_CAMERA_EMULATOR")" "$EMULATORS/$name"
}

# list_emulated_libraries PROGRAM...: prints the same for the loader and shared libraries of the programs.
list_emulated_libraries() {
  local loader program
  loader=$(find "$KOVA_CAMERA_SYSROOT/lib/" -maxdepth 1 -name 'ld-linux-*.so.*' -print -quit)
  [ -n "$loader" ] || die "no loader in \"$KOVA_CAMERA_SYSROOT/lib\""
  {
    echo "/lib/${loader##*/}"
    for program in "$@"; do
      # The loader rejects programs of the host.
      { "$KOVA_CAMERA_EMULATOR" -L "$KOVA_CAMERA_SYSROOT" "$loader" --list "$program" 2>/dev/null || true; } |
        sed -nE 's,^[[:space:]]*(.* => )?(/[^ ]+) \(0x.*,\2,p'
    done
    (cd "$KOVA_CAMERA_SYSROOT" && find lib/ -name "${RUNTIME_LIBRARIES[0]}" -printf '/%p\n')
  } | sed "s,^$KOVA_CAMERA_SYSROOT,," | sort -u | resolve_paths "$KOVA_CAMERA_SYSROOT"
}
