#!/usr/bin/env bash
# build_depends_test.sh SOURCE: what debian/control says that a build needs is what ./dev installs for one.
set -euo pipefail
cd "$1"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# shellcheck source=packaging/tests/expect.sh
. packaging/tests/expect.sh
# shellcheck source=packaging/packages.sh
. packaging/packages.sh

# build_depends: prints the packages, without versions.
build_depends() { sed -n '/^Build-Depends:/,/^[A-Z]/s/^ \([a-z0-9.+-]*\).*/\1/p' debian/control | sed 's/^debhelper-compat$/debhelper/'; }

# What ./dev has besides to build: its own tools, and the compiler, which Debian takes for granted.
readonly NOT_THE_PACKAGES='^(ca-certificates|git|ccache|g\+\+|libcpp-httplib-dev)$'

expect "it is installed by ./dev" \
  test -z "$(comm -23 <(build_depends | sort) <(kova_packages build package))"
expect "and is all that a build needs" \
  test -z "$(comm -13 <(build_depends | sort) <(kova_packages build | grep -vE "$NOT_THE_PACKAGES"))"
expect "it is something" test "$(build_depends | wc -l)" -gt 10
report
