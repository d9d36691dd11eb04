#!/bin/sh
# autopkgtest_depends.sh SOURCE: prints the dependencies of debian/tests other than the packages themselves.
sed -n 's/^Depends: //p' "$1/debian/tests/control" | tr ',' '\n' | tr -d ' ' | grep -v '^@$'
