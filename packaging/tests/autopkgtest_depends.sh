#!/bin/sh
# autopkgtest_depends.sh SOURCE: prints what debian/tests needs besides the packages themselves.
sed -n 's/^Depends: //p' "$1/debian/tests/control" | tr ',' '\n' | tr -d ' ' | grep -v '^@$'
