# shellcheck shell=bash disable=SC2154 # work is the test's
# Helpers of the packaging tests. `work` is the temporary folder of the test.

failures=0
mkdir -p "$work"

# expect TEXT CMD...: checks that the command succeeds; expect_not: that it fails. Otherwise, prints the end of its
# output.
expect() {
  local text=$1
  shift
  if "$@" >"$work/output" 2>&1; then printf 'ok    %s\n' "$text"; else fail "$text"; fi
}
expect_not() {
  local text=$1
  shift
  if "$@" >"$work/output" 2>&1; then fail "$text"; else printf 'ok    %s\n' "$text"; fi
}
fail() {
  printf 'FAIL  %s\n' "$1"
  tail -n 10 "$work/output" | sed 's/^/      | /'
  failures=$((failures + 1))
}

# eventually CMD...: polls until the command succeeds, for at most 30 s.
eventually() {
  local deadline=$((SECONDS + 30))
  until "$@"; do
    [ "$SECONDS" -lt "$deadline" ] || return 1
    sleep 0.05
  done
}

report() {
  echo "$failures failed"
  [ "$failures" -eq 0 ]
}
