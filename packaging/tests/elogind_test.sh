#!/usr/bin/env bash
# elogind_test.sh SOURCE BUILD: builds the D-Bus programs in the folder BUILD against libelogind, the sd-bus library of
# systems without systemd. Debian's package is unpacked in BUILD/libelogind, not installed: it conflicts with
# libsystemd.
set -euo pipefail

source=$(realpath "$1")
mkdir -p "$2/libelogind"
build=$(realpath "$2")
readonly source build work=$build/libelogind
readonly libraries=$work/root
# shellcheck source=packaging/tests/expect.sh
. "$(dirname "$(readlink -f "$0")")/expect.sh"

# Under the lock that ./dev holds during installations: apt does not support concurrent runs.
download() { flock "$source" apt-get download libelogind0 libelogind-dev; }

# The archive may have replaced the version in the package lists.
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

# Rewrites the paths in the .pc file, which are those of an installed package.
point_pkg_config() {
  find "$libraries" -name libelogind.pc -exec sed -i -e "s,^prefix=.*,prefix=$libraries/usr," \
    -e "s,^libdir=,libdir=$libraries," -e "s,^includedir=,includedir=$libraries," {} +
  pkg_config=$(dirname "$(find "$libraries" -name libelogind.pc)")
  # The package's development link points to /lib.
  library=$(dirname "$(find "$libraries" -name 'libelogind.so.0')")
  ln -sf libelogind.so.0 "$library/libelogind.so"
}

# As shipped, so that ccache has all but what includes sd-bus.h.
build() {
  PKG_CONFIG_PATH=$pkg_config cmake --preset release -S "$source" -B "$build" -DKOVA_SDBUS=libelogind \
    -DBUILD_TESTING=OFF -DKOVA_IMAGEPROBE=OFF &&
    cmake --build "$build" --target kovactl kova_ctlserver
}

# needs PROGRAM LIBRARY
needs() { objdump -p "$build/$1/$1" | grep "NEEDED  *$2"; }

# has_all PROGRAM: whether all symbols resolve. Does not run the program: the daemon would administer this machine.
has_all() {
  LD_LIBRARY_PATH=$library ldd -r "$build/$1/$1" >"$work/libraries" 2>&1 && cat "$work/libraries" &&
    ! grep -E "undefined symbol|not found" "$work/libraries"
}

expect "libelogind can be downloaded" fetch
point_pkg_config
expect "the programs can be built with it" build
for program in kovactl kova_ctlserver; do
  expect "$program is linked to libelogind" needs "$program" libelogind
  expect_not "$program is not linked to libsystemd" needs "$program" libsystemd
  expect "$program has no undefined symbols" has_all "$program"
done
expect "kovactl runs" env LD_LIBRARY_PATH="$library" "$build/kovactl/kovactl" --version
report
