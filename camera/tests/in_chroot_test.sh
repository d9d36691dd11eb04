#!/usr/bin/env bash
# in_chroot_test.sh mounted|plain: boots a camera inside a chroot like those of schroot(1) and pbuilder(8). "mounted":
# the root of the chroot is a mount point, so the camera uses namespaces. "plain": it is a folder, so the camera uses a
# chroot. Exit status 77: not possible on this machine. KOVA_BUILD is the folder of the programs.
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
if [ -z "${KOVA_IN_NAMESPACE:-}" ]; then
  [ "$(id -u)" -eq 0 ] || { echo "skipped: needs root" && exit 77; }
  unshare --mount true || { echo "skipped: cannot create a mount namespace" && exit 77; }
  exec env KOVA_IN_NAMESPACE=1 unshare --mount --propagation private "$0" "$@"
fi
# shellcheck source=camera/tests/harness.sh
. "$here/harness.sh"
checkout=$(cd "$here/../.." && pwd)
readonly checkout
readonly jail=$work/jail

# Unmounts first: the removal must not reach the mounted files.
remove_jail() {
  in_jail stop /tmp/cam >/dev/null || true # there may be no camera
  mapfile -t mounts < <(awk -v jail="$jail" 'index($5, jail) == 1 { print $5 }' /proc/self/mountinfo | sort -r)
  [ ${#mounts[@]} -eq 0 ] || umount -l "${mounts[@]}"
  rm -rf --one-file-system "$work"
}

make_jail() {
  local folder
  mkdir "$jail"
  [ "$1" = plain ] || mount -t tmpfs -o mode=755 jail "$jail"
  mkdir -p "$jail"/{tmp,run,etc,checkout,build,of-the-jail}
  for folder in /bin /sbin /lib /lib32 /lib64; do
    if [ -L "$folder" ]; then cp -a "$folder" "$jail/"; fi
  done
  for folder in /usr /proc /sys /dev; do
    mkdir "$jail$folder"
    mount --rbind "$folder" "$jail$folder"
  done
  cp -a /etc/ld.so.cache /etc/alternatives "$jail/etc/"
  mount --bind "$checkout" "$jail/checkout"
  mount --bind "$KOVA_BUILD" "$jail/build"
}

in_jail() { chroot "$jail" /bin/env KOVA_BUILD=/build PATH="$PATH" /checkout/camera/camera "$@"; }
inside() { in_jail exec /tmp/cam -- "$@"; }
mode_is() { in_jail status /tmp/cam | grep -x "mode=$1"; }
next_boot() { inside reboot && in_jail wait /tmp/cam 2; }

main() {
  local mode=namespaces
  [ "$1" = mounted ] || mode=chroot
  unset KOVA_CAMERA_MODE
  trap remove_jail EXIT
  make_jail "$1"
  expect "a camera starts in the chroot" in_jail start /tmp/cam
  expect "it uses mode $mode" mode_is "$mode"
  expect "exec runs inside the camera" inside grep -q '^admin:' /etc/passwd
  expect "exec starts in the camera's root" test "$(inside pwd)" = /
  expect_not "files of the chroot are invisible" inside test -e /of-the-jail
  expect_not "files outside the chroot are invisible" inside test -e "$checkout/dev"
  expect "the daemon answers" inside kovactl stats
  expect "the camera reboots" next_boot
  expect "the camera stops" in_jail stop /tmp/cam
  expect_not "status reports that it is off" in_jail status /tmp/cam
  echo "$failures failed"
  [ "$failures" -eq 0 ]
}

case ${1:-} in
  mounted | plain) main "$1" ;;
  *) echo "usage: in_chroot_test.sh mounted|plain" >&2 && exit 2 ;;
esac
