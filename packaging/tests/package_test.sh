#!/usr/bin/env bash
# package_test.sh PACKAGES: installs the packages in the folder PACKAGES into a fresh Debian 12 and tests them under
# runit, under systemd, and as the programs of a virtual camera. The Debian is a private root with separate processes
# and network; the host does not change, except for a control group while systemd runs.
#
# Needs root (to unpack a Debian with its owners), bubblewrap, mmdebstrap, and a Debian archive. The downloaded Debian
# is kept in PACKAGES/test; with it, a run needs no network. Where no control group can be created, the test under
# systemd is skipped with a message; with KOVA_DEMAND_SYSTEMD=1 it fails instead.
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
packages=$(realpath "$1")
readonly here packages cache=$packages/test
readonly root=$cache/root base=$cache/base.tar archives=$cache/archives
# Parts of a camera's firmware: service supervisors, a system log, and the system bus for requests to systemd.
readonly BOARD=busybox,dbus,runit,systemd
readonly MAX_AGE_DAYS=7 # of the downloaded Debian, to keep its packages current

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
  if [ -n "$(find "$base" -mtime "-$MAX_AGE_DAYS" -newer "$0" 2>/dev/null)" ]; then return; fi
  local sources
  sources=$(list_archives)
  [ -n "$sources" ] || die "apt has no Debian 12 archive here"
  say "Fetching a minimal Debian 12"
  rm -rf "$archives"
  mkdir -p "$archives/partial"
  mmdebstrap --quiet --mode=root --variant=minbase --include="$BOARD" --skip=cleanup/apt/lists \
    bookworm "$cache/new.tar" - <<<"$sources" || die "cannot download it"
  mv "$cache/new.tar" "$base"
}

unpack_base() {
  rm -rf --one-file-system "$root"
  mkdir -p "$root"
  tar -C "$root" -xf "$base"
  mkdir "$root/packages"
  # The root is deleted after the test: skip fsync(2).
  echo force-unsafe-io >"$root/etc/dpkg/dpkg.cfg.d/unsafe-io"
  install_board
}

# Installs the rest of a camera's firmware, with tools that only log their calls to /var/lib/tools.
install_board() {
  local tool
  install -D -m 644 "$here/../camera_info.json" "$root/usr/share/kova/camera_info.json"
  printf 'resolv.host.1.name=Before\nusers.1.name=admin\nusers.1.password=secret\n' >"$root/etc/system.cfg"
  # shellcheck disable=SC2016 # for the tool
  for tool in bin/cfgmtd bin/kova_cmd_apply_camera_name.sh usr/bin/reboot; do
    printf '#!/bin/sh\necho "$0 $*" >>/var/lib/tools\n' >"$root/$tool"
    chmod 755 "$root/$tool"
  done
}

# The capabilities that dpkg(1) and the services need. They exclude clock, network, modules and reboot.
readonly CAPABILITIES=(CHOWN DAC_OVERRIDE DAC_READ_SEARCH FOWNER FSETID KILL SETGID SETUID SETPCAP SETFCAP SYS_CHROOT
  MKNOD)
# Further capabilities for systemd, which mounts and confines.
readonly SYSTEMD_CAPABILITIES=(SYS_ADMIN SYS_PTRACE SYS_RESOURCE SYS_BOOT SYSLOG NET_ADMIN AUDIT_WRITE)

# in_root ARGUMENT... -- CMD...: runs CMD in the private root; passes ARGUMENTs to bubblewrap.
in_root() {
  local arguments=() capability
  while [ "$1" != -- ]; do
    arguments+=("$1")
    shift
  done
  shift
  for capability in "${CAPABILITIES[@]}"; do arguments+=(--cap-add "CAP_$capability"); done
  bwrap --unshare-pid --unshare-ipc --unshare-uts --hostname camera --die-with-parent --cap-drop ALL \
    --bind "$root" / --dev /dev --proc /proc --ro-bind /proc/sys /proc/sys --ro-bind /sys /sys \
    --ro-bind "$packages" /packages --bind "$archives" /var/cache/apt/archives --clearenv \
    --setenv PATH /usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin --setenv HOME /root \
    --setenv DEBIAN_FRONTEND noninteractive --setenv LC_ALL C "${arguments[@]}" "$@"
}

# Downloads the dependencies of the packages and of debian/tests.
download() {
  # shellcheck disable=SC2046 # one word per package
  set -- $("$here/autopkgtest_depends.sh" "$here/../..")
  # shellcheck disable=SC2016 # for the inner shell
  in_root --ro-bind-try /etc/resolv.conf /etc/resolv.conf -- sh -c \
    'apt-get -qq -o APT::Sandbox::User=root install --download-only --no-install-recommends "$@" /packages/*.deb' \
    download "$@"
}

readonly OFFLINE=(--unshare-net --ro-bind "$here" /packages-test --ro-bind "$here/../../camera/samples" /samples)

test_under_runit() {
  say "Testing under runit, without a network"
  in_root "${OFFLINE[@]}" -- /packages-test/runit_test.sh
}

# Resolves the report of the crash that runit_test.sh has caused, with the -dbgsym package.
test_crash_report() {
  say "Resolving the crash report"
  "$here/../resolve" "$root/run/test/kova_crash" "$packages"/dbgsym/kova-ctlserver-dbgsym_*.deb >"$cache/crash"
  if ! grep -E "^ *[0-9]+  .*(loop|main).* at kova_ctlserver/src/main\.cpp:[0-9]+\$" "$cache/crash"; then
    cat "$cache/crash" >&2
    die "the resolved report does not name the daemon's loop"
  fi
}

# The virtual camera makes a private root within this one, which takes systemd's capabilities.
test_virtual_camera() {
  local arguments=() capability
  for capability in "${SYSTEMD_CAPABILITIES[@]}"; do arguments+=(--cap-add "CAP_$capability"); done
  say "Testing debian/tests, without a network"
  unpack_base
  mkdir "$root/source"
  in_root "${OFFLINE[@]}" "${arguments[@]}" --ro-bind "$here/../.." /source -- /packages-test/autopkgtest_test.sh
}

# make_cgroup: creates a cgroup v2 for systemd and sets `cgroup` to its folder.
make_cgroup() {
  local mounted
  mounted=$(findmnt --noheadings --first-only --types cgroup2 --output TARGET) || return 1
  cgroup=$mounted/kova_package_test.$$
  mkdir "$cgroup" 2>/dev/null
}

remove_cgroup() { find "$cgroup" -depth -type d -exec rmdir {} +; }

# The test is the last unit of the boot; systemd exits with it.
install_test_unit() {
  cat >"$root/etc/systemd/system/test.service" <<'TEXT'
[Unit]
After=multi-user.target
Wants=multi-user.target
SuccessAction=exit
FailureAction=exit
[Service]
Type=oneshot
ExecStart=/packages-test/systemd_test.sh
Environment=DEBIAN_FRONTEND=noninteractive LC_ALL=C
StandardOutput=file:/var/log/test
StandardError=inherit
TEXT
}

boot_systemd() {
  local arguments=() capability
  for capability in "${SYSTEMD_CAPABILITIES[@]}"; do arguments+=(--cap-add "CAP_$capability"); done
  # In a subshell, which stays in the control group until it exits.
  (
    echo "$BASHPID" >"$cgroup/cgroup.procs"
    in_root "${OFFLINE[@]}" "${arguments[@]}" --unshare-cgroup --as-pid-1 --tmpfs /run --setenv container bubblewrap -- \
      sh -c 'mount -t cgroup2 cgroup2 /sys/fs/cgroup && exec /lib/systemd/systemd --unit=test.service --show-status=no'
  )
}

test_under_systemd() {
  local cgroup
  if ! make_cgroup; then
    [ -z "${KOVA_DEMAND_SYSTEMD:-}" ] || die "cannot create a control group (v2) for systemd"
    say "SKIPPED under systemd: cannot create a control group (v2)"
    return
  fi
  say "Testing under systemd, without a network"
  unpack_base
  install_test_unit
  boot_systemd >"$cache/systemd.log" 2>&1 || true # the output of the test decides
  remove_cgroup
  cat "$root/var/log/test" || die "systemd did not boot: see $cache/systemd.log"
  [ "$(tail -n 1 "$root/var/log/test")" = "0 failed" ]
}

# Files that are kept must belong to the owner of the packages, not to root.
clean_up() {
  rm -rf --one-file-system "$root"
  chown -R --reference="$packages" "$cache"
}

main() {
  [ "$(id -u)" -eq 0 ] || die "needs root, to unpack a Debian with its owners"
  mkdir -p "$cache"
  exec 9>"$cache/lock"
  flock --nonblock 9 || die "another test is running in $cache"
  trap clean_up EXIT
  make_base
  unpack_base
  say "Downloading dependencies that are not yet in $archives"
  download
  test_under_runit
  test_crash_report
  test_under_systemd
  test_virtual_camera
}

main
