#!/usr/bin/env bash
# dev_test.sh SOURCE: tests how ./dev handles Debian packages, in a copy with nothing to compile and with an apt-get
# that installs nothing.
set -euo pipefail

readonly SOURCE=$1

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# shellcheck source=packaging/tests/expect.sh
. "$(dirname "$(readlink -f "$0")")/expect.sh"

readonly copy=$work/copy bin=$work/bin calls=$work/calls

# fake NAME: replaces a program of the machine with a script that logs its calls; its body comes from standard input.
fake() {
  rm -f "$bin/$1"
  { printf '#!/bin/sh\necho "%s $*" >>"%s"\n' "$1" "$calls" && cat; } >"$bin/$1"
  chmod 755 "$bin/$1"
}

# Makes a package with the emulator and another program.
make_package() {
  mkdir -p "$work/package/DEBIAN" "$work/package/usr/bin"
  printf '#!/bin/sh\n' | tee "$work/package/usr/bin/qemu-aarch64-static" >"$work/package/usr/bin/other"
  chmod 755 "$work/package/usr/bin"/*
  printf 'Package: qemu-user-static\nVersion: 1\nArchitecture: all\nMaintainer: test\nDescription: test\n' \
    >"$work/package/DEBIAN/control"
  dpkg-deb --root-owner-group --build "$work/package" "$work/qemu-user-static_1_all.deb" >/dev/null
}

# Links the programs of the machine into `bin`, except for those that must be missing.
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

# have_packages STATUS: sets the status that dpkg reports for every package.
have_packages() { fake dpkg-query <<<"printf '%s' '$1'"; }

# The fake apt-get installs nothing, and fails if FAIL is its command.
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
expect_not "build arm64 fails if packages cannot be installed" dev FAIL=install "$copy/dev" build arm64
expect_not "  before it does anything else" called "(sysroot|cmake)"
expect_not "machine fails if packages cannot be installed" dev FAIL=install "$copy/dev" machine start "$work/machine"
expect_not "  before it does anything else" called "(sysroot|cmake)"
expect_not "camera fails if packages cannot be installed" dev FAIL=install "$copy/dev" camera start "$work/camera"
expect "  it installs the packages of the camera" called "apt-get install .*busybox"
expect_not "  it installs no packages of the tests" called "apt-get install .*python3"
expect_not "package arm64 fails if packages cannot be installed" dev FAIL=install "$copy/dev" package arm64
expect_not "  before it does anything else" called "(sysroot|cmake)"
expect_not "KOVA_NO_INSTALL makes it fail if packages are missing" dev KOVA_NO_INSTALL=1 "$copy/dev" build arm64
expect_not "  it does not run apt-get" called "apt-get"
expect "board-check runs over ssh" dev "$copy/dev" board-check ssh:board
expect "  it installs ssh" called "apt-get install .*openssh-client"
expect "board-check runs on a folder" dev "$copy/dev" board-check /nowhere
expect_not "  it does not install ssh" called "apt-get"

have_packages installed
expect_not "build arm64 fails if a package cannot be downloaded" dev FAIL=download "$copy/dev" build arm64
expect "  it retries after apt-get update" called "apt-get update"
expect_not "  it leaves no files" test -e "$copy/build/qemu-user"
expect_not "KOVA_NO_INSTALL makes it fail without the emulator" dev KOVA_NO_INSTALL=1 "$copy/dev" build arm64
expect_not "  it does not run apt-get" called "apt-get"
expect "the emulator is downloaded" dev "$copy/dev" build arm64
expect_not "  it is not installed" called "apt-get install"
expect "  only the emulator is unpacked" \
  test "$(cd "$copy/build/qemu-user" && find . -type f)" = ./usr/bin/qemu-aarch64-static
expect "  it is executable" test -x "$copy/build/qemu-user/usr/bin/qemu-aarch64-static"
expect "the emulator is reused" dev "$copy/dev" build arm64
expect_not "  it is not downloaded again" called "apt-get"
expect_not "no group installs a program that ./dev unpacks" grep -E 'nginx|qemu-user|openssh-server' \
  <(. "$SOURCE/packaging/packages.sh" && kova_packages build camera tests arm64 machine asan lint bench package)
mkdir "$work/out"
expect_not "concurrent package builds are refused" \
  flock "$work/out/lock" timeout 20 "$SOURCE/packaging/package" "$SOURCE" "$work/out"
cp "$work/output" "$work/said"
expect "  the message names the folder" grep "another build is running in $work/out" "$work/said"

# A project of its own, for the real cmake.
readonly project=$work/project
mkdir -p "$project/packaging"
cp "$SOURCE/dev" "$project"
cp "$SOURCE/packaging/packages.sh" "$project/packaging"
printf 'cmake_minimum_required(VERSION 3.25)\nproject(small LANGUAGES CXX)\n' >"$project/CMakeLists.txt"
cat >"$project/CMakePresets.json" <<'TEXT'
{"version": 6, "configurePresets": [{"name": "debug", "generator": "Ninja", "binaryDir": "${sourceDir}/build/debug",
 "cacheVariables": {"CMAKE_CXX_COMPILER": "c++", "SETTING": "kept"}}]}
TEXT
expect "a build folder of another compiler is made" \
  env -C "$project" cmake --preset debug -DCMAKE_CXX_COMPILER=g++
expect "  it is configured for the compiler of the preset" env KOVA_NO_INSTALL=1 "$project/dev" build debug
expect "  the other settings of the preset are kept" grep -F "SETTING:UNINITIALIZED=kept" "$project/build/debug/CMakeCache.txt"
report
