# shellcheck shell=bash disable=SC2034,SC2154 # variables are shared, see use_camera
# The modes of the private root, in order of preference:
#   namespaces       root: bubblewrap with mount, PID, UTS and IPC namespaces
#   user-namespaces  users allowed to create user namespaces: the same, inside one in which the caller is uid 0
#   chroot           root without permission to create namespaces: chroot(2) into copied files
# KOVA_CAMERA_MODE=bwrap allows only the first two, KOVA_CAMERA_MODE=chroot only the last.

# The capabilities of root in the camera. They exclude the host's clock, network, modules and reboot.
readonly CAPABILITIES=(CHOWN DAC_OVERRIDE DAC_READ_SEARCH FOWNER FSETID KILL SETGID SETUID SETPCAP SETFCAP
  NET_BIND_SERVICE NET_RAW SYS_CHROOT SYS_PTRACE SYS_NICE SYS_RESOURCE MKNOD AUDIT_WRITE)
# Mounts and the host name: harmless only in separate namespaces.
readonly NAMESPACE_CAPABILITIES=("${CAPABILITIES[@]}" SYS_ADMIN)

readonly PROBE=(--unshare-pid --unshare-uts --unshare-ipc --ro-bind / / --proc /proc --dev /dev true)

# choose_mode: prints the mode to use, or fails and prints what each mode lacks to standard error.
choose_mode() {
  local wanted=${KOVA_CAMERA_MODE:-any} lacking=()
  case $wanted in any | bwrap | chroot) ;; *) die "KOVA_CAMERA_MODE is \"$wanted\": use bwrap or chroot" ;; esac
  if [ "$wanted" != chroot ]; then
    if try_bubblewrap; then return; fi
    lacking+=("bubblewrap: $bubblewrap_lacks")
  fi
  if [ "$wanted" != bwrap ]; then
    if try_chroot; then return; fi
    lacking+=("chroot: $chroot_lacks")
  fi
  printf 'camera: no mode for the private root is available\n' >&2
  printf '  %s\n' "${lacking[@]}" >&2
  return 1
}

try_bubblewrap() {
  if ! command -v bwrap >/dev/null; then
    bubblewrap_lacks="the program bwrap is not installed (package bubblewrap)"
  elif [ "$(id -u)" -eq 0 ] && bwrap "${PROBE[@]}" 2>/dev/null; then
    echo namespaces
    return
  elif bubblewrap_lacks=$(bwrap --unshare-user --uid 0 --gid 0 "${PROBE[@]}" 2>&1); then
    echo user-namespaces
    return
  fi
  return 1
}

try_chroot() {
  if [ "$(id -u)" -ne 0 ]; then
    chroot_lacks="needs root"
  elif confine && ! chroot_lacks=$("${confined[@]}" / true 2>&1); then
    :
  elif ! can_make_devices; then
    chroot_lacks="cannot create or open device nodes in $dir"
  else
    echo chroot
    return
  fi
  return 1
}

can_make_devices() {
  local node=$state/probe.null
  rm -f "$node"
  mknod "$node" c 1 3 2>/dev/null && true 2>/dev/null <"$node"
  local result=$?
  rm -f "$node"
  return "$result"
}

# bounding_set CAPABILITY...: prints the argument of setpriv(1).
bounding_set() {
  local names=("${@,,}")
  local list
  list=$(printf ',+%s' "${names[@]}")
  echo "-all$list"
}

# confine: sets `confined` to the words that, followed by ROOT CMD..., run CMD in ROOT.
confine() {
  confined=(setpriv --inh-caps=-all "--bounding-set=$(bounding_set "${CAPABILITIES[@]}")" chroot)
}

# The environment of all processes in the camera.
camera_environment() {
  printf '%s\n' PATH=/bin:/sbin:/usr/bin:/usr/sbin HOME=/etc/persistent LANG=C
  local name
  for name in TERM ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS; do
    if [ -n "${!name:-}" ]; then printf '%s=%s\n' "$name" "${!name}"; fi
  done
}

# bubblewrap_arguments MODE: prints the arguments, terminated by NUL.
bubblewrap_arguments() {
  local arguments capability source target
  arguments=(--unshare-pid --unshare-uts --unshare-ipc --die-with-parent --hostname camera --cap-drop ALL)
  if [ "$1" = user-namespaces ]; then arguments+=(--unshare-user --uid 0 --gid 0); fi
  for capability in "${NAMESPACE_CAPABILITIES[@]}"; do arguments+=(--cap-add "CAP_$capability"); done
  arguments+=(--bind "$root" / --bind "$flash" /mnt/flash --proc /proc --dev /dev --ro-bind /sys /sys)
  # Read-only, since most files are the host's and writable for its root.
  if [ "$1" = namespaces ]; then arguments+=(--ro-bind /proc/sys /proc/sys); fi
  while IFS=$'\t' read -r source target; do
    arguments+=(--ro-bind "$source" "$target")
  done <"$manifest"
  printf '%s\0' "${arguments[@]}"
}

# launch_init MODE: starts the first process of the camera as a child of this shell. Sets `child_pid` and, to the
# process of the host through which commands enter the camera, `init_pid`. Closes descriptors 8 and 9: the lock would
# outlive the supervisor if the camera inherited it.
launch_init() {
  local environment
  mapfile -t environment < <(camera_environment)
  if [ "$1" = chroot ]; then
    confine
    "${confined[@]}" "$root" /bin/env -i "${environment[@]}" /sbin/init 8>&- 9>&- &
    child_pid=$! init_pid=$!
  else
    bubblewrap_arguments "$1" >"$state/bwrap.arguments"
    rm -f "$state/bwrap.json"
    mkfifo "$state/bwrap.json"
    env -i "${environment[@]}" "$(command -v bwrap)" --args 6 --info-fd 7 /sbin/init \
      6<"$state/bwrap.arguments" 7>"$state/bwrap.json" 8>&- 9>&- &
    child_pid=$!
    init_pid=$(sed -n 's/.*"child-pid": *\([0-9]*\).*/\1/p' <"$state/bwrap.json")
    rm -f "$state/bwrap.json"
    [ -n "$init_pid" ]
  fi
}
