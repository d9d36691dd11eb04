#!/usr/bin/env bash
# dev_test.sh SOURCE: holds what ./dev does with Debian's packages to its promises, in a copy that has nothing to compile
# and with an apt-get that installs nothing.
set -euo pipefail

readonly SOURCE=$1

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# shellcheck source=packaging/tests/expect.sh
. "$(dirname "$(readlink -f "$0")")/expect.sh"

readonly copy=$work/copy bin=$work/bin calls=$work/calls

# fake NAME: a program of the machine that this one stands for; its body comes from standard input.
fake() {
  rm -f "$bin/$1"
  { printf '#!/bin/sh\necho "%s $*" >>"%s"\n' "$1" "$calls" && cat; } >"$bin/$1"
  chmod 755 "$bin/$1"
}

# A package whose script would be noticed if it was installed.
make_package() {
  mkdir -p "$work/package/DEBIAN" "$work/package/usr/bin"
  printf '#!/bin/sh\n' | tee "$work/package/usr/bin/qemu-aarch64-static" >"$work/package/usr/bin/other"
  chmod 755 "$work/package/usr/bin"/*
  printf 'Package: qemu-user-static\nVersion: 1\nArchitecture: all\nMaintainer: test\nDescription: test\n' \
    >"$work/package/DEBIAN/control"
  dpkg-deb --root-owner-group --build "$work/package" "$work/qemu-user-static_1_all.deb" >/dev/null
}

# Programs of the machine, without those that are to be missing.
make_machine() {
  mkdir -p "$bin" "$copy/cmake/arm64" "$copy/packaging" "$copy/tests/board"
  ln -s /usr/bin/* /bin/sh "$bin" 2>/dev/null || true
  rm -f "$bin"/{ssh,qemu-aarch64-static}
  fake sudo <<<'exec "$@"'
  fake cmake </dev/null
  cp "$SOURCE/dev" "$copy"
  cp "$SOURCE/packaging/packages.sh" "$copy/packaging"
  printf '#!/bin/sh\necho sysroot >>"%s"\n' "$calls" >"$copy/cmake/arm64/sysroot"
  printf '#!/bin/sh\necho board-check >>"%s"\n' "$calls" >"$copy/tests/board/board-check"
  chmod 755 "$copy/cmake/arm64/sysroot" "$copy/tests/board/board-check"
}

# have_packages STATUS: what dpkg knows of every package.
have_packages() { fake dpkg-query <<<"printf '%s' '$1'"; }

# apt-get installs nothing, and fails when FAIL is its command.
write_apt() {
  fake apt-get <<TEXT
case \$1 in
  install | update) [ "\$1" != "\${FAIL:-}" ] ;;
  download) [ "\${FAIL:-}" != download ] && cp "$work"/qemu-user-static_1_all.deb . ;;
esac
TEXT
}

dev() {
  : >"$calls"
  env -u KOVA_NO_INSTALL PATH="$bin" "$@"
}
called() { grep -E "^$1" "$calls"; }

make_package
make_machine
write_apt

have_packages not-installed
expect_not "packages that cannot be installed end it" dev FAIL=install "$copy/dev" build arm64
expect_not "  before anything else" called "(sysroot|cmake)"
expect_not "also for a machine" dev FAIL=install "$copy/dev" machine start "$work/machine"
expect_not "  before anything else" called "(sysroot|cmake)"
expect_not "also for a camera" dev FAIL=install "$copy/dev" camera start "$work/camera"
expect "  which needs what it is made of" called "apt-get install .*busybox"
expect_not "  and nothing of the tests" called "apt-get install .*python3"
expect_not "also for packages of arm64" dev FAIL=install "$copy/dev" package arm64
expect_not "  before anything else" called "(sysroot|cmake)"
expect_not "nothing is installed if that is forbidden" dev KOVA_NO_INSTALL=1 "$copy/dev" build arm64
expect_not "  really" called "apt-get"
expect "a board is looked at over ssh" dev "$copy/dev" board-check ssh:board
expect "  with an ssh that is installed" called "apt-get install .*openssh-client"
expect "a folder is looked at" dev "$copy/dev" board-check /nowhere
expect_not "  without one" called "apt-get"

have_packages installed
expect_not "a failed download ends it" dev FAIL=download "$copy/dev" build arm64
expect "  after a look at what is new" called "apt-get update"
expect_not "  and nothing is left" test -e "$copy/build/qemu-user"
expect_not "none is fetched if that is forbidden" dev KOVA_NO_INSTALL=1 "$copy/dev" build arm64
expect_not "  really" called "apt-get"
expect "the emulator is fetched" dev "$copy/dev" build arm64
expect_not "  and not installed" called "apt-get install"
expect "  alone" test "$(cd "$copy/build/qemu-user" && find . -type f)" = ./usr/bin/qemu-aarch64-static
expect "  to be run" test -x "$copy/build/qemu-user/usr/bin/qemu-aarch64-static"
expect "it is kept" dev "$copy/dev" build arm64
expect_not "  and not fetched again" called "apt-get"
expect_not "none is installed by a group" grep -E 'nginx|qemu-user|openssh-server' \
  <(. "$SOURCE/packaging/packages.sh" && kova_packages build camera tests arm64 machine fuzz lint bench package)
mkdir "$work/out"
expect_not "packages are not made twice at once" \
  flock "$work/out/lock" timeout 20 "$SOURCE/packaging/package" "$SOURCE" "$work/out"
cp "$work/output" "$work/said"
expect "  and that is said" grep "another one runs in $work/out" "$work/said"
report
