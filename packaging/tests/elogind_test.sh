#!/usr/bin/env bash
# elogind_test.sh SOURCE BUILD: builds what speaks on the bus against libelogind, which systems without systemd have, in the
# folder BUILD. Debian's package is unpacked in BUILD/libelogind, not installed: it excludes libsystemd.
set -euo pipefail

source=$(realpath "$1")
mkdir -p "$2/libelogind"
build=$(realpath "$2")
readonly source build work=$build/libelogind
readonly libraries=$work/root
# shellcheck source=packaging/tests/expect.sh
. "$(dirname "$(readlink -f "$0")")/expect.sh"

# Under the lock that ./dev holds while it installs: apt works for one only.
download() { flock "$source" apt-get download libelogind0 libelogind-dev; }

# The archive may have replaced the version that apt-get knows.
update() {
  if [ "$(id -u)" -eq 0 ]; then flock "$source" apt-get update -qq; else flock "$source" sudo apt-get update -qq; fi
}

fetch() {
  cd "$work"
  compgen -G "libelogind0_*.deb" >/dev/null || download || { update && download; } || return 1
  rm -rf "$libraries"
  local package
  for package in libelogind*.deb; do dpkg-deb -x "$package" "$libraries"; done
}

# Its files name the folders of an installed package.
point_pkg_config() {
  find "$libraries" -name libelogind.pc -exec sed -i -e "s,^prefix=.*,prefix=$libraries/usr," \
    -e "s,^libdir=,libdir=$libraries," -e "s,^includedir=,includedir=$libraries," {} +
  pkg_config=$(dirname "$(find "$libraries" -name libelogind.pc)")
  # The name that programs are linked by leads to the library in /lib.
  library=$(dirname "$(find "$libraries" -name 'libelogind.so.0')")
  ln -sf libelogind.so.0 "$library/libelogind.so"
}

# In batches: file by file it would take four times as long.
build() {
  PKG_CONFIG_PATH=$pkg_config cmake --preset debug -S "$source" -B "$build" -DKOVA_BATCHES=ON -DKOVA_SDBUS=libelogind \
    -DBUILD_TESTING=OFF -DKOVA_IMAGEPROBE=OFF &&
    cmake --build "$build" --target kovactl kova_ctlserver
}

# needs PROGRAM LIBRARY
needs() { objdump -p "$build/$1/$1" | grep "NEEDED  *$2"; }

# has_all PROGRAM: it is not run, since the daemon would administer this machine.
has_all() {
  LD_LIBRARY_PATH=$library ldd -r "$build/$1/$1" >"$work/libraries" 2>&1 && cat "$work/libraries" &&
    ! grep -E "undefined symbol|not found" "$work/libraries"
}

expect "libelogind is there" fetch
point_pkg_config
expect "the programs are built with it" build
for program in kovactl kova_ctlserver; do
  expect "$program needs libelogind" needs "$program" libelogind
  expect_not "and no libsystemd" needs "$program" libsystemd
  expect "which has all that it calls" has_all "$program"
done
expect "kovactl runs" env LD_LIBRARY_PATH="$library" "$build/kovactl/kovactl" --version
report
