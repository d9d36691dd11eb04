# shellcheck shell=bash
# The table of results that every subject prints, and its statistics. Sourced.
#
#   table_row WHAT OURS PEERS LIMIT VERDICT   adds a row; PEERS may have several lines; VERDICT is "-"
#                                             in a row without a limit
#   table_print TITLE                         prints the rows; fails if a limit was missed
#   at_most VALUE LIMIT, at_least VALUE LIMIT print PASS or FAIL; no VALUE fails
#   spread FORMAT < NUMBERS                   prints "MEDIAN (LEAST to GREATEST)", each by printf FORMAT
#   median < NUMBERS, percentile N < NUMBERS, mean < NUMBERS

table_cells=()
table_failures=0

table_row() {
  table_cells+=("$@")
  [[ $5 == PASS || $5 == - ]] || table_failures=$((table_failures + 1))
}

table_print() {
  local title=$1 columns=5
  local head=(What Ours Peers Limit Verdict)
  local -a cells=("${head[@]}" ${table_cells[@]+"${table_cells[@]}"}) width=(0 0 0 0 0)
  local i line
  for i in "${!cells[@]}"; do
    while IFS= read -r line; do
      ((${#line} <= width[i % columns])) || width[i % columns]=${#line}
    done <<<"${cells[i]}"
  done
  printf '\n%s\n\n' "$title"
  for ((i = 0; i < ${#cells[@]}; i += columns)); do
    table_line "${cells[@]:i:columns}"
  done
  printf '\n'
  if ((table_failures > 0)); then
    printf '%d of %d rows missed their limit\n' "$table_failures" $((${#table_cells[@]} / columns))
    return 1
  fi
  printf 'All %d rows are within their limits\n' $((${#table_cells[@]} / columns))
}

# Prints a row, with one line per line of PEERS. Uses the caller's `width`.
table_line() {
  local what=$1 ours=$2 peers=$3 limit=$4 verdict=$5 peer
  while IFS= read -r peer; do
    printf '%-*s  %-*s  %-*s  %-*s  %s\n' "${width[0]}" "$what" "${width[1]}" "$ours" \
      "${width[2]}" "$peer" "${width[3]}" "$limit" "$verdict"
    what='' ours='' limit='' verdict=''
  done <<<"$peers"
}

at_most() {
  awk -v value="$1" -v limit="$2" \
    'BEGIN { print (value != "" && value + 0 <= limit + 0) ? "PASS" : "FAIL" }'
}
at_least() {
  awk -v value="$1" -v limit="$2" \
    'BEGIN { print (value != "" && value + 0 >= limit + 0) ? "PASS" : "FAIL" }'
}

# Nearest rank. Fails on empty input, so that missing samples cannot count as zero.
percentile() {
  sort -g | awk -v percent="$1" '
    { value[NR] = $1 }
    END {
      if (NR == 0) exit 1
      rank = int((NR * percent + 99) / 100)
      print value[rank < 1 ? 1 : rank]
    }'
}
median() { percentile 50; }
mean() { awk '{ sum += $1 } END { if (NR == 0) exit 1; print sum / NR }'; }

spread() {
  sort -g | awk -v format="$1" '
    { value[NR] = $1 }
    END {
      if (NR == 0) exit 1
      printf format " (" format " to " format ")", value[int((NR + 1) / 2)], value[1], value[NR]
    }'
}
