#!/usr/bin/env bash
# build_depends_test.sh SOURCE: compares the build dependencies in debian/control with the packages that ./dev installs.
set -euo pipefail
cd "$1"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# shellcheck source=packaging/tests/expect.sh
. packaging/tests/expect.sh
# shellcheck source=packaging/packages.sh
. packaging/packages.sh

# build_depends: prints the build dependencies without versions. All packages depend on build-essential.
build_depends() {
  echo build-essential
  sed -n '/^Build-Depends:/,/^[A-Z]/s/^ \([a-z0-9.+-]*\).*/\1/p' debian/control | sed 's/^debhelper-compat$/debhelper/'
}

# Packages that only ./dev needs, and the compiler, which Debian's build-essential implies.
readonly NOT_THE_PACKAGES='^(ca-certificates|git|ccache|g\+\+|libcpp-httplib-dev)$'

expect "./dev installs all build dependencies" \
  test -z "$(comm -23 <(build_depends | sort) <(kova_packages build package))"
expect "debian/control lists all packages that ./dev installs for a build" \
  test -z "$(comm -13 <(build_depends | sort) <(kova_packages build | grep -vE "$NOT_THE_PACKAGES"))"
expect "the list of build dependencies is not empty" test "$(build_depends | wc -l)" -gt 10
report
