#!/usr/bin/env bash
# sdk_build_test.sh SOURCE: configures a build as docs/porting.md describes for an SDK, with hardened compiler flags,
# and compiles a library.
set -euo pipefail

readonly SOURCE=$1

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# shellcheck source=packaging/tests/expect.sh
. "$(dirname "$(readlink -f "$0")")/expect.sh"

# configure FOLDER ARGUMENT...
configure() {
  cmake -S "$SOURCE" -B "$work/$1" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKOVA_HARDEN=ON -DBUILD_TESTING=OFF \
    -DKOVA_IMAGEPROBE=OFF "-DCMAKE_CXX_FLAGS=-O2 -Wp,-D_FORTIFY_SOURCE=2 -D_FORTIFY_SOURCE=2" "${@:2}"
}

compiles_with() { grep -q -- "$2" "$work/$1/compile_commands.json"; }

expect "an SDK build can be configured" configure sdk
expect_not "warnings are not errors by default" compiles_with sdk -Werror
expect "KOVA_WERROR can be set" configure strict -DKOVA_WERROR=ON
expect "KOVA_WERROR makes warnings errors" compiles_with strict -Werror
expect "_FORTIFY_SOURCE in the SDK's flags causes no warning" cmake --build "$work/strict" --target kova_logger
report
