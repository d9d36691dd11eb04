# shellcheck shell=bash disable=SC2034,SC2154 # shared with the test
# Helpers of the camera tests: expectations, the camera under test in `one`, and its user.

readonly SKIPPED=77 # exit status of a test that cannot run here

failures=0
work=$(mktemp -d)
one=$work/one

pass() { printf 'ok    %s\n' "$1"; }
fail() {
  printf 'FAIL  %s\n' "$1"
  failures=$((failures + 1))
}

# expect TEXT CMD...: checks that the command succeeds; expect_not: that it fails.
expect() {
  local text=$1
  shift
  if "$@" >"$work/output.new" 2>&1; then pass "$text"; else
    fail "$text"
    sed 's/^/      | /' "$work/output.new"
  fi
  mv "$work/output.new" "$work/output"
}
expect_not() {
  local text=$1
  shift
  if "$@" >"$work/output.new" 2>&1; then fail "$text"; else pass "$text"; fi
  mv "$work/output.new" "$work/output"
}

# eventually CMD...: polls until the command succeeds, for at most 30 s times KOVA_TIME_FACTOR.
eventually() {
  local deadline=$((SECONDS + 30 * ${KOVA_TIME_FACTOR:-1}))
  until "$@" >/dev/null 2>&1; do
    [ "$SECONDS" -lt "$deadline" ] || return 1
    sleep 0.05
  done
}

# as_caller CMD...: runs it as the user of the chosen mode.
as_caller() {
  if [ -n "$caller" ]; then
    setpriv --reuid "$caller" --regid "$caller" --clear-groups -- "$@"
  else
    "$@"
  fi
}

cam() { as_caller "$camera" "$@"; }
inside() { cam exec "$one" -- "$@"; }
log() { cat "$one/root/var/log/messages"; }
boot_count() { cat "$one/root/run/boot_count"; }

# reboot_and_wait [CMD...]: runs CMD inside, then reboots.
reboot_and_wait() {
  local next=$(($(boot_count) + 1))
  inside reboot
  cam wait "$one" "$next" && return
  tail -n 15 "$one/state/supervisor.log" "$one/root/var/log/messages"
  return 1
}

exit_status() {
  local wanted=$1 status=0
  shift
  "$@" || status=$?
  [ "$status" -eq "$wanted" ] || { echo "exit status $status instead of $wanted" && return 1; }
}

# isolate_host SCRIPT ARGUMENT...: restarts the script in namespaces with a private host name, where copy_etc then makes
# /etc private. Returns for users other than root, who cannot change these, or where namespaces are unavailable.
isolate_host() {
  [ -z "${KOVA_PRIVATE_HOST:-}" ] && [ "$(id -u)" -eq 0 ] && unshare --mount --uts true 2>/dev/null || return 0
  rm -rf "$work"
  export KOVA_PRIVATE_HOST=1
  exec unshare --mount --uts --propagation private "$@"
}

copy_etc() {
  [ -n "${KOVA_PRIVATE_HOST:-}" ] || return 0
  mount -t tmpfs -o mode=755 etc /mnt
  cp -a /etc/. /mnt/
  mount --move /mnt /etc
}

# The state of the host that a camera could damage: its name, and each file in /etc with inode, owner and times.
host_state() {
  uname -n
  find /etc -xdev -printf '%P %i %m %u:%g %s %T@ %C@ %l\n' | sort
}

choose_way() {
  way=$1 caller=
  export KOVA_CAMERA_MODE=bwrap
  case $way in
    namespaces) [ "$(id -u)" -eq 0 ] || skip "needs root" ;;
    user) [ "$(id -u)" -ne 0 ] || caller=65534 ;;
    chroot)
      export KOVA_CAMERA_MODE=chroot
      [ "$(id -u)" -eq 0 ] || skip "needs root"
      ;;
    *) echo "usage: camera_test.sh namespaces|user|chroot" >&2 && exit 2 ;;
  esac
  if [ -n "$caller" ]; then
    chown "$caller:$caller" "$work"
    as_caller test -x "$KOVA_BUILD" -a -x "$camera" || skip "user $caller cannot read the build"
  fi
}

skip() {
  echo "skipped: $1"
  exit "$SKIPPED"
}

clean_up() {
  local folder
  for folder in "$work"/one "$work"/two.d/*; do
    [ ! -e "$folder/state" ] || cam stop "$folder" >/dev/null || true
  done
  rm -rf "$work"
}
