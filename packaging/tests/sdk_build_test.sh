#!/usr/bin/env bash
# sdk_build_test.sh SOURCE: configures a build as docs/porting.md has it for an SDK, whose compiler flags are hardened, and
# compiles a library with it.
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

expect "it is configured" configure sdk
expect_not "a warning of another compiler is no error" compiles_with sdk -Werror
expect "unless that is asked for" configure strict -DKOVA_WERROR=ON
expect "as an error" compiles_with strict -Werror
expect "the fortification of the flags is no warning" cmake --build "$work/strict" --target kova_logger
report
