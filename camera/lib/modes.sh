# shellcheck shell=bash disable=SC2034,SC2154 # variables are shared, see use_camera
# How the camera gets a root of its own. Three ways, tried in this order:
#   namespaces       root: bubblewrap with mount, PID, UTS and IPC namespaces
#   user-namespaces  anyone who may make user namespaces: the same, inside one where the caller is uid 0
#   chroot           root without the right to make namespaces: chroot(2) into copied files
# KOVA_CAMERA_MODE=bwrap allows only the first two, KOVA_CAMERA_MODE=chroot only the last.

# What root of the camera may do. Not among them: setting the host's clock, its network, its modules, rebooting it.
readonly CAPABILITIES=(CHOWN DAC_OVERRIDE DAC_READ_SEARCH FOWNER FSETID KILL SETGID SETUID SETPCAP SETFCAP
  NET_BIND_SERVICE NET_RAW SYS_CHROOT SYS_PTRACE SYS_NICE SYS_RESOURCE MKNOD AUDIT_WRITE)
# Mounting and naming the host: harmless in namespaces of one's own only.
readonly NAMESPACE_CAPABILITIES=("${CAPABILITIES[@]}" SYS_ADMIN)

readonly PROBE=(--unshare-pid --unshare-uts --unshare-ipc --ro-bind / / --proc /proc --dev /dev true)

# choose_mode: prints the mode to use, or says on standard error what each way lacks and fails.
choose_mode() {
  local wanted=${KOVA_CAMERA_MODE:-any} lacking=()
  case $wanted in any | bwrap | chroot) ;; *) die "KOVA_CAMERA_MODE is \"$wanted\": bwrap or chroot" ;; esac
  if [ "$wanted" != chroot ]; then
    if try_bubblewrap; then return; fi
    lacking+=("bubblewrap: $bubblewrap_lacks")
  fi
  if [ "$wanted" != bwrap ]; then
    if try_chroot; then return; fi
    lacking+=("chroot: $chroot_lacks")
  fi
  printf 'camera: no way to give the camera a root of its own here\n' >&2
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
    chroot_lacks="device nodes cannot be made, or not be opened, in $dir"
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

# bounding_set CAPABILITY...: prints the argument that setpriv(1) wants.
bounding_set() {
  local names=("${@,,}")
  local list
  list=$(printf ',+%s' "${names[@]}")
  echo "-all$list"
}

# confine: fills `confined` with the words in front of "ROOT CMD..." that run CMD in ROOT.
confine() {
  confined=(setpriv --inh-caps=-all "--bounding-set=$(bounding_set "${CAPABILITIES[@]}")" chroot)
}

# The environment of everything that runs inside.
camera_environment() {
  printf '%s\n' PATH=/bin:/sbin:/usr/bin:/usr/sbin HOME=/etc/persistent LANG=C
  local name
  for name in TERM ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS; do
    if [ -n "${!name:-}" ]; then printf '%s=%s\n' "$name" "${!name}"; fi
  done
}

# bubblewrap_arguments MODE: prints them, each ended by a NUL.
bubblewrap_arguments() {
  local arguments capability source target
  arguments=(--unshare-pid --unshare-uts --unshare-ipc --die-with-parent --hostname camera --cap-drop ALL)
  if [ "$1" = user-namespaces ]; then arguments+=(--unshare-user --uid 0 --gid 0); fi
  for capability in "${NAMESPACE_CAPABILITIES[@]}"; do arguments+=(--cap-add "CAP_$capability"); done
  arguments+=(--bind "$root" / --bind "$flash" /mnt/flash --proc /proc --dev /dev --ro-bind /sys /sys)
  # Most of it is the host's, and root of the host may write it.
  if [ "$1" = namespaces ]; then arguments+=(--ro-bind /proc/sys /proc/sys); fi
  while IFS=$'\t' read -r source target; do
    arguments+=(--ro-bind "$source" "$target")
  done <"$manifest"
  printf '%s\0' "${arguments[@]}"
}

# launch_init MODE: starts the camera's first process as a child of this shell, which it leaves in `child_pid`, and in
# `init_pid` the process, as the host counts it, through which the camera is entered.
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
