#!/usr/bin/env bash
# autopkgtest_test.sh: installs the packages below /packages and the dependencies of debian/tests, and runs these tests
# as autopkgtest(1) does. Only for the private root of package_test.sh.
set -euo pipefail

if [ ! -d /packages-test ]; then echo "runs only through package_test.sh" >&2 && exit 2; fi

work=/run/test
# shellcheck source=packaging/tests/expect.sh
. /packages-test/expect.sh
# shellcheck source=packaging/tests/installed.sh
. /packages-test/installed.sh

# runs TEST: runs a test in the source folder, with a separate temporary folder.
runs() {
  mkdir -p "$work/$1"
  cd /source
  AUTOPKGTEST_TMP=$work/$1 "debian/tests/$1"
}

mapfile -t needed < <(/packages-test/autopkgtest_depends.sh /source)
expect "packages and test dependencies can be installed" apt install "${needed[@]}" /packages/*.deb
while read -r test; do
  expect "$test" runs "$test"
done < <(sed -n 's/^Tests: //p' /source/debian/tests/control)
report
