#!/usr/bin/env bash
# resolve_test.sh SOURCE OBJCOPY PROGRAM COMMAND: makes PROGRAM crash, by running COMMAND, and checks the output of
# packaging/resolve against the source of PROGRAM. OBJCOPY supports the processor that PROGRAM is compiled for.
set -euo pipefail

readonly SOURCE=$1 OBJCOPY=$2 PROGRAM=$3 COMMAND=$4
readonly CODE=platform/utils/crash/tests/report/main.cpp

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# shellcheck source=packaging/tests/expect.sh
. "$(dirname "$(readlink -f "$0")")/expect.sh"

readonly reports=$work/reports debug=$work/debug report=$work/report

# crash: makes the program crash and stores its report in `report`.
crash() {
  rm -rf "$reports" && mkdir "$reports"
  "$COMMAND" "$reports" || true
  mv "$reports"/kova_crash.* "$report"
}

resolve() { "$SOURCE/packaging/resolve" "$@"; }

# line_of COMMENT: prints the number of the source line with this comment.
line_of() { grep -n "// $1" "$SOURCE/$CODE" | cut -d : -f 1; }

# says TEXT ARGUMENT...: whether resolve succeeds with these arguments and its output contains TEXT.
says() { resolve "${@:2}" >"$work/said" && grep -F -- "$1" "$work/said"; }

# refuses TEXT ARGUMENT...: expects that resolve fails with TEXT in a one-line message.
refuses() { expect "resolve fails: $1" fails_with "$@"; }
fails_with() {
  local status=0
  resolve "${@:2}" >"$work/out" 2>"$work/said" || status=$?
  cat "$work/said"
  [ "$status" -eq 1 ] && [ "$(wc -l <"$work/said")" -eq 1 ] && grep -F -- "$1" "$work/said"
}

# make_package NAME ID: makes a package with debugging information, as debhelper does.
make_package() {
  local root=$work/root
  rm -rf "$root"
  mkdir -p "$root/DEBIAN" "$root/usr/lib/debug/.build-id/${2:0:2}"
  printf 'Package: test\nVersion: 1\nArchitecture: all\nMaintainer: test\nDescription: test\n' >"$root/DEBIAN/control"
  cp "$debug" "$root/usr/lib/debug/.build-id/${2:0:2}/${2:2}.debug"
  dpkg-deb --root-owner-group --build "$root" "$work/$1"
}

# as_log: prints the report as part of a system log, between lines of other processes and after another report.
as_log() {
  echo "Nov 22 10:00:00 camera crit other[7]: Crashed by signal 6 (Aborted), program counter 0x1"
  while read -r line; do
    echo "Nov 22 10:00:01 camera crit test[42]: $line"
    echo "Nov 22 10:00:01 camera info other[43]: /bin/other(+0x1)[0x1] program+0x1"
  done <"$report"
}

crash
id=$(sed -n 's/^Build-id of the program: //p' "$report")
"$OBJCOPY" --only-keep-debug "$PROGRAM" "$debug"
"$OBJCOPY" --strip-all "$PROGRAM" "$work/stripped"
make_package test-dbgsym.deb "$id" >/dev/null
make_package other-dbgsym.deb 0123456789abcdef >/dev/null

expect "the report has the build-id of the program" grep -F "Build ID: $id" <(readelf -n "$PROGRAM")
crashes=$CODE:$(line_of 'crashes here')
called=$CODE:$(line_of 'called here')
expect "the program resolves the crash" says " 0  (anonymous namespace)::readNowhere() at $crashes" "$report" "$PROGRAM"
expect "the caller is resolved" grep -F " 1  (anonymous namespace)::callIt() at $called" "$work/said"
expect "the caller's caller is resolved" grep -F " 2  main at $CODE:" "$work/said"
expect_not "the crash handler is left out" grep -F onFatalSignal "$work/said"
expect "a file with debugging information resolves the crash" says "$crashes" "$report" "$debug"
expect "a -dbgsym package resolves the crash" says "$crashes" "$report" "$work/test-dbgsym.deb"
expect "a report in a log is resolved" says "$crashes" - "$debug" < <(as_log)
expect_not "log lines of other processes are ignored" grep -F /bin/other "$work/said"

# Reports and debugging information must not control the terminal. The replacements keep the length of the texts.
shows() { "$@" && ! grep -q "$escape" "$work/said"; }
readonly escape=$'\033'
sed "s/(Segmentation fault)/(${escape}[2J)/" "$report" >"$work/hostile"
sed "s,report/main\.cpp,report/${escape}[2J.cpp,g;s,readNowhere,read${escape}[2Jher,g" "$debug" >"$work/hostile.debug"
expect "control characters in a report are replaced" shows says "by signal 11 (?[2J)" "$work/hostile" "$debug"
expect "control characters in function names are replaced" shows says "read?[2Jher" "$report" "$work/hostile.debug"
expect "control characters in file names are replaced" grep -F "report/?[2J.cpp:" "$work/said"
sed "s/program+0x[0-9a-f]*$//;2,\$s/^.*\[0x/${escape}[2J\[0x/" "$report" >"$work/hostile"
refuses "has no lines" "$work/hostile" "$debug"
expect "control characters in symbols are replaced" grep -F "0  ?[2J" "$work/out"
expect_not "no control characters are left" grep "$escape" "$work/out"

refuses "the build-id does not match: the report is of $id" "$report" "$(command -v dpkg)"
refuses "of 0123456789abcdef" "$report" "$work/other-dbgsym.deb"
refuses "has no lines for these addresses" "$report" "$work/stripped"
printf '!<arch>\nnothing of the kind' >"$work/broken.deb"
refuses "broken.deb cannot be unpacked" "$report" "$work/broken.deb"
refuses "there is no file $work/missing" "$report" "$work/missing"
refuses "there is no file $work/?[2J" "$report" "$work/${escape}[2J"
sed "s/$id/0123456789abcdef0123/" "$report" >"$work/foreign"
refuses "nothing here has the build-id 0123456789abcdef0123" "$work/foreign"
refuses "the build-id does not match: the report is of 0123456789abcdef0123" "$work/foreign" "$debug"
refuses "contains no crash report" "$PROGRAM" "$debug"
refuses "contains no crash report" - "$debug" </dev/null
refuses "contains no crash report" - < <(head -c 100000 /dev/urandom)
refuses "contains no build-id" - < <(grep -v Build-id "$report")
refuses "without a build-id" - < <(sed "s/$id/none/" "$report")
refuses "is longer than" - < <(cat "$report" && head -c 2000000 /dev/zero)
mkfifo "$work/pipe"
refuses "is not a regular file" "$work/pipe"
refuses "No such file" "$work/nowhere"
report
