#!/usr/bin/env bash
# Every link, file, constant and command of ./dev in the documentation exists. The table of metrics in
# docs/operations.md lists those that kovactl prints.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/../.."

failures=0
wrong() {
  printf '%s\n' "$1"
  failures=$((failures + 1))
}

# heading_exists FILE ANCHOR: whether a heading of FILE has this anchor, as common renderers generate them.
heading_exists() {
  grep '^#' "$1" | sed 's/^#* *//' | tr '[:upper:]' '[:lower:]' | sed 's/[^a-z0-9_ -]//g; s/ /-/g' | grep -xF -- "$2" >/dev/null
}

check_links() { # FILE
  local link target anchor
  while read -r link; do
    case $link in http://* | https://*) continue ;; esac
    target=${link%%#*}
    anchor=
    [[ $link != *"#"* ]] || anchor=${link#*#}
    target=${target:+$(dirname "$1")/$target}
    target=${target:-$1}
    if [ ! -e "$target" ]; then
      wrong "$1: the link \"$link\" leads nowhere"
    elif [ -n "$anchor" ] && ! heading_exists "$target" "$anchor"; then
      wrong "$1: \"$target\" has no heading \"$anchor\""
    fi
  done < <(grep -oP '\]\(\K[^)\s]+' "$1" || true)
}

# exists_as NAME FILE: whether NAME is a path from the top or from the folder of FILE, or a bare file name.
exists_as() {
  local pattern
  for pattern in "$1" "$(dirname "$2")/$1"; do
    compgen -G "$pattern" >/dev/null && return 0
  done
  [[ $1 != */* ]] && [ -n "$(git ls-files -- "*/$1")" ]
}

# Checks names that look like files of this repository: below one of its folders, or named like a source.
check_names() { # FILE
  local name
  # shellcheck disable=SC2016 # backticks of Markdown
  while read -r name; do
    exists_as "$name" "$1" || wrong "$1: there is no \"$name\""
  done < <(grep -oP '`\K[\w.*/-]+(?=`)' "$1" |
    grep -E "^($(git ls-files | grep / | cut -d/ -f1 | sort -u | paste -sd'|'))/|^[A-Za-z_]+\.(cpp|h|sh|md)$" |
    grep -vE '(NAME|\.\.\.)' | sort -u)
}

check_constants() { # FILE
  local name
  # shellcheck disable=SC2016 # backticks of Markdown
  while read -r name; do
    git grep -qw "$name" -- '*.cpp' '*.h' || wrong "$1: no source has \"$name\""
  done < <(grep -oP '`\Kk[A-Z]\w*(?=`)' "$1" | grep -vx kPascalCase | sort -u)
}

check_commands() { # FILE
  local word
  while read -r word; do
    grep -qE "^  $word( |$)" <<<"$help" || wrong "$1: ./dev has no command \"$word\""
  done < <(grep -oP '\./dev \K[a-z-]+' "$1" | grep -vx help | sort -u)
}

# metrics FILE START END: prints the names of metrics between START and END.
metrics() { grep -oP "$2\Kkova_[a-z0-9_]+(?=$3)" "$1" | sort -u; }

check_metrics() {
  local source=kovactl/src/commands/Metrics.cpp page=docs/operations.md name
  [ -n "$(metrics "$source" '"' '"')" ] || wrong "$source: no metric was found"
  while read -r name; do
    wrong "$page and $source: only one of the two has the metric $name"
  done < <(comm -3 <(metrics "$source" '"' '"') \
    <(sed -n '/^| Metric /,/^$/p' "$page" | metrics - '`' '`') | tr -d '\t')
}

check_metrics
help=$(./dev help)
documents=$(git ls-files '*.md')
count=0
for document in $documents; do
  check_links "$document"
  check_names "$document"
  if [ "$document" != CHANGELOG.md ]; then # may name things that no longer exist
    check_constants "$document"
    check_commands "$document"
  fi
  count=$((count + 1))
done
[ "$count" -ge 8 ] || wrong "only $count documents were found"
echo "$count documents, $failures faults"
[ "$failures" -eq 0 ]
