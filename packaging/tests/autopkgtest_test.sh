#!/usr/bin/env bash
# autopkgtest_test.sh: installs the packages below /packages into the Debian that it runs in, and what debian/tests asks
# for, and runs the tests there as autopkgtest(1) does. Only for the private root that package_test.sh makes.
set -euo pipefail

if [ ! -d /packages-test ]; then echo "only by way of package_test.sh" >&2 && exit 2; fi

work=/run/test
# shellcheck source=packaging/tests/expect.sh
. /packages-test/expect.sh
# shellcheck source=packaging/tests/installed.sh
. /packages-test/installed.sh

# runs TEST: in the folder of the sources, with a folder of its own.
runs() {
  mkdir -p "$work/$1"
  cd /source
  AUTOPKGTEST_TMP=$work/$1 "debian/tests/$1"
}

mapfile -t needed < <(/packages-test/autopkgtest_depends.sh /source)
expect "what debian/tests needs is installed" apt install "${needed[@]}" /packages/*.deb
while read -r test; do
  expect "$test" runs "$test"
done < <(sed -n 's/^Tests: //p' /source/debian/tests/control)
report
