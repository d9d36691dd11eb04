# shellcheck shell=bash disable=SC2034,SC2154 # variables are shared, see use_camera
# Lists the files of the host and of the build that a camera contains in addition to its skeleton.

# Programs of the host, installed in /usr/bin.
readonly HOST_PROGRAMS=(dbus-daemon busctl runsvdir runsv sv chpst setpriv)
readonly OPTIONAL_HOST_PROGRAMS=(dbus-send dbus-monitor strace)
# Loaded at run time by glibc's backtrace and thread cancellation, so ldd(1) does not list it.
readonly RUNTIME_LIBRARIES=(libgcc_s.so.1)

# busybox_path: prints the path of BusyBox, the same on the host and in the camera.
busybox_path() { readlink -f "$(command -v busybox || echo /nonexistent/busybox)"; }

# built_program NAME: prints the path of a program of this project, or nothing if it is not built.
built_program() { find "$build" -maxdepth 4 -name "$1" -type f -perm -u+x -not -path '*/emulated/*' -print -quit; }

# list_programs: prints "source<TAB>path in the camera" of every program.
list_programs() {
  local name path
  for name in "${HOST_PROGRAMS[@]}"; do
    path=$(command -v "$name") || die "the program $name is not installed"
    printf '%s\t/usr/bin/%s\n' "$(readlink -f "$path")" "$name"
  done
  for name in "${OPTIONAL_HOST_PROGRAMS[@]}"; do
    ! path=$(command -v "$name") || printf '%s\t/usr/bin/%s\n' "$(readlink -f "$path")" "$name"
  done
  path=$(busybox_path)
  [ -x "$path" ] || die "the program busybox is not installed"
  printf '%s\t%s\n' "$path" "$path"
  list_built_programs
}

list_built_programs() {
  local name path
  for name in kova_ctlserver kovactl; do
    path=$(built_program "$name")
    [ -n "$path" ] || die "$name is not built in \"$build\" (run ./dev build, or set KOVA_BUILD)"
    list_built_program "$path" "/usr/bin/$name"
  done
  path=$(built_program kova_imageprobe)
  [ -z "$path" ] || list_built_program "$path" /usr/libexec/kova_imageprobe
}

list_built_program() {
  if is_emulated; then list_emulated_program "$@"; else printf '%s\t%s\n' "$@"; fi
}

# list_libraries PROGRAM...: prints "source<TAB>path" of their shared libraries and loader.
list_libraries() {
  local name
  {
    { ldd "$@" 2>/dev/null || true; } | # fails for scripts, static programs and other processors
      sed -nE 's,^[[:space:]]*(.* => )?(/[^ ]+) \(0x.*,\2,p'
    for name in "${RUNTIME_LIBRARIES[@]}"; do
      ldconfig_path "$name"
    done
  } | sort -u | resolve_paths
}

# resolve_paths [SYSROOT]: prints "source<TAB>path" for each path on standard input; source is the path in SYSROOT with
# all links resolved, whether or not there is such a file.
resolve_paths() {
  local paths
  mapfile -t paths
  [ ${#paths[@]} -eq 0 ] || paste <(readlink -m -- "${paths[@]/#/"${1:-}"}") <(printf '%s\n' "${paths[@]}")
}

ldconfig_path() { PATH=$PATH:/sbin:/usr/sbin ldconfig -p | sed -n "s,^[[:space:]]*$1 .* => ,,p" | sed -n 1p; }

# write_manifest: writes the list of all these files.
write_manifest() {
  local programs paths
  if is_emulated; then check_emulator; fi
  programs=$(list_programs)
  mapfile -t paths < <(cut -f 1 <<<"$programs")
  {
    printf '%s\n' "$programs"
    list_libraries "${paths[@]}"
    if is_emulated; then list_emulated_libraries "${paths[@]}"; fi
    printf '/usr/share/zoneinfo\t/usr/share/zoneinfo\n'
  } | write_atomically "$manifest"
}
