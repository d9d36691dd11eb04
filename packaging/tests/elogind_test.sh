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

fetch() {
  cd "$work"
  compgen -G "libelogind0_*.deb" >/dev/null || apt-get download libelogind0 libelogind-dev
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

# Compiled as the release is: of files that do not speak on the bus ccache knows the result from there.
build() {
  PKG_CONFIG_PATH=$pkg_config cmake --preset release -S "$source" -B "$build" -DKOVA_SDBUS=libelogind \
    -DBUILD_TESTING=OFF -DKOVA_IMAGEPROBE=OFF &&
    cmake --build "$build" --target kovactl
}

# needs LIBRARY
needs() { objdump -p "$build/kovactl/kovactl" | grep "NEEDED  *$1"; }

expect "libelogind is there" fetch
point_pkg_config
expect "kovactl is built with it" build
expect "it needs libelogind" needs libelogind
expect_not "and no libsystemd" needs libsystemd
expect "it runs" env LD_LIBRARY_PATH="$library" "$build/kovactl/kovactl" --version
report
