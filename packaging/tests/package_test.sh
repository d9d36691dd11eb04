#!/usr/bin/env bash
# package_test.sh PACKAGES: installs the packages in the folder PACKAGES into a fresh Debian 12 and holds them to what they
# promise. The Debian is a private root with processes and a network of its own; nothing of the host changes.
#
# Needs root (to unpack a Debian with its owners), bubblewrap, mmdebstrap, and a Debian archive. Debian's part is kept in
# PACKAGES/test: with it a run needs no network.
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
packages=$(realpath "$1")
readonly here packages cache=$packages/test
readonly root=$cache/root base=$cache/base.tar archives=$cache/archives
# Of a camera's own firmware: a service supervisor, and a system log.
readonly BOARD=busybox,runit
readonly MAX_AGE_DAYS=7 # of Debian's part; its packages are replaced by newer ones now and then

say() { printf 'package test: %s\n' "$*"; }
die() {
  say "$*" >&2
  exit 1
}

# list_archives: prints the configured archives of Debian as lines of sources.list(5).
list_archives() {
  # shellcheck disable=SC2016 # apt's own variables
  apt-get indextargets --format '$(ORIGIN)|$(SITE)|$(CODENAME)|$(COMPONENT)' 'Created-By: Packages' |
    sed -nE 's/^Debian\|([^|]*)\|(bookworm[^|]*)\|(main)$/deb \1 \2 \3/p' | sort -u
}

make_base() {
  if [ -n "$(find "$base" -mtime "-$MAX_AGE_DAYS" 2>/dev/null)" ]; then return; fi
  local sources
  sources=$(list_archives)
  [ -n "$sources" ] || die "apt knows no archive of Debian 12 here"
  say "Fetching a minimal Debian 12"
  rm -rf "$archives"
  mkdir -p "$archives/partial"
  mmdebstrap --quiet --mode=root --variant=minbase --include="$BOARD" --skip=cleanup/apt/lists \
    bookworm "$cache/new.tar" - <<<"$sources" || die "it cannot be had"
  mv "$cache/new.tar" "$base"
}

unpack_base() {
  rm -rf --one-file-system "$root"
  mkdir -p "$root"
  tar -C "$root" -xf "$base"
  mkdir "$root/packages"
  # It is thrown away after the test: no need to wait for the disk.
  echo force-unsafe-io >"$root/etc/dpkg/dpkg.cfg.d/unsafe-io"
  install_board
}

# What a camera's firmware has besides. The tools' calls stand in /run/tools.
install_board() {
  local tool
  install -D -m 644 "$here/../camera_info.json" "$root/usr/share/kova/camera_info.json"
  echo "resolv.host.1.name=Before" >"$root/etc/system.cfg"
  # shellcheck disable=SC2016 # for the tool
  for tool in bin/cfgmtd bin/kova_cmd_apply_camera_name.sh usr/bin/reboot; do
    printf '#!/bin/sh\necho "$0 $*" >>/run/tools\n' >"$root/$tool"
    chmod 755 "$root/$tool"
  done
}

# in_root ARGUMENT... -- CMD...: runs CMD in the private root; ARGUMENTs are bubblewrap's. Of root's rights it has what
# dpkg(1) and the services need: not the clock, the network, the modules, or a reboot.
in_root() {
  local arguments=() capability
  while [ "$1" != -- ]; do
    arguments+=("$1")
    shift
  done
  shift
  for capability in CHOWN DAC_OVERRIDE DAC_READ_SEARCH FOWNER FSETID KILL SETGID SETUID SETPCAP SETFCAP SYS_CHROOT MKNOD; do
    arguments+=(--cap-add "CAP_$capability")
  done
  bwrap --unshare-pid --unshare-ipc --unshare-uts --hostname camera --die-with-parent --cap-drop ALL \
    --bind "$root" / --dev /dev --proc /proc --ro-bind /proc/sys /proc/sys --ro-bind /sys /sys \
    --ro-bind "$packages" /packages --bind "$archives" /var/cache/apt/archives --clearenv \
    --setenv PATH /usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin --setenv HOME /root \
    --setenv DEBIAN_FRONTEND noninteractive --setenv LC_ALL C "${arguments[@]}" "$@"
}

# As the packages are named in it, apt sees to it that what they depend on is there.
download() {
  # shellcheck disable=SC2016 # for the inner shell
  in_root --ro-bind-try /etc/resolv.conf /etc/resolv.conf -- sh -c \
    'apt-get -qq -o APT::Sandbox::User=root install --download-only --no-install-recommends /packages/*.deb'
}

main() {
  [ "$(id -u)" -eq 0 ] || die "needs root, to unpack a Debian with its owners"
  mkdir -p "$cache"
  exec 9>"$cache/lock"
  flock --nonblock 9 || die "another one runs in $cache"
  trap 'rm -rf --one-file-system "$root"' EXIT
  make_base
  say "Unpacking it"
  unpack_base
  say "Fetching what the packages depend on, as far as it is not in $archives"
  download
  say "Testing in it, without a network"
  in_root --unshare-net --ro-bind "$here" /packages-test --ro-bind "$here/../../camera/samples" /samples -- \
    /packages-test/installed_test.sh
}

main
