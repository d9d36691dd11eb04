# Completion of kovactl for bash. Does not need the package bash-completion.

# Bash splits "--host=root@cam" into five words, at the characters of COMP_WORDBREAKS. Sets `words` to the words up to
# the one being completed, with the values of global options joined again: "--host" "root@cam".
_kovactl_join() {
  local i word before='' value=none
  words=(kovactl)
  for ((i = 1; i <= COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    if [[ $value == begun && -n $word && ($word != *[^@:=]* || $before != *[^@:=]*) ]]; then
      words[-1]+=$word
    elif [[ $value == due && $word == = ]]; then
      ((i < COMP_CWORD)) || words+=('')
    else
      words+=("$word")
      case $value-$word in
        due-*) value=begun ;;
        *--H | *---host | *---bus | *---timeout) value=due ;;
        *) value=none ;;
      esac
    fi
    before=$word
  done
  cword=$((${#words[@]} - 1))
}

_kovactl_words() {
  local IFS=$'\n'
  mapfile -t COMPREPLY < <(compgen -W "$1" -- "${words[cword]}")
}

# The command so far, with its subcommand, such as "service start".
_kovactl_command() {
  local i word
  _kovactl_path=()
  _kovactl_first=0
  for ((i = 1; i < cword; i++)); do
    word=${words[i]}
    case $word in
      -H | --host | --bus | --timeout) ((i++)) ;;
      -*) ;;
      *)
        _kovactl_path+=("$word")
        ((_kovactl_first == 0)) && _kovactl_first=$i
        ;;
    esac
  done
  return 0
}

_kovactl_options() {
  local common='--host --bus --timeout --json --verbose --help'
  case $1 in
    '') echo "$common --version" ;;
    stats) echo "$common --watch" ;;
    save) echo "$common --sync" ;;
    reboot) echo "$common --delay" ;;
    reset-defaults) echo "$common --yes" ;;
    user) echo "$common --name --old-file --new-file --stdin" ;;
    put) echo "$common --hash --file --wait --cancel" ;;
    get) echo "$common --filename --field --wait --cancel" ;;
    firmware) echo "$common --wait --cancel" ;;
    transfers) echo "$common --watch" ;;
    call) echo "$common --to --from --no-reply" ;;
    *) echo "$common" ;;
  esac
}

# The numbers of all transfers; only running ones can be cancelled.
_kovactl_transfers() { kovactl transfers | sed -nE 's/^([0-9]+) .*/\1/p'; }

_kovactl_arguments() {
  local count=${#_kovactl_path[@]}
  case ${_kovactl_path[0]} in
    stats) kovactl __complete sections ;;
    settings) printf '%s\n' name= timezone= region= timelapse=on timelapse=off \
      sound-on-boot=on sound-on-boot=off ;;
    user) ((count == 1)) && printf '%s\n' show passwd enable disable ;;
    service)
      if ((count == 1)); then
        printf '%s\n' list start stop
      elif ((count == 2)) && [[ ${_kovactl_path[1]} != list ]]; then
        kovactl __complete services
      fi
      ;;
    help)
      case ${#_kovactl_path[@]}-${_kovactl_path[1]-} in
        1-) kovactl __complete commands ;;
        2-user) printf '%s\n' show passwd enable disable ;;
        2-service) printf '%s\n' list start stop ;;
      esac
      ;;
    put) ((count == 1)) && printf '%s\n' logo sound ;;
    get) ((count == 1)) && printf '%s\n' snapshot support event-snapshot event-heatmap ;;
    cancel) ((count == 1)) && _kovactl_transfers ;;
    call)
      if ((count == 1)); then
        kovactl __complete functions
      else
        kovactl __complete fields "${_kovactl_path[1]}"
      fi
      ;;
    listen) ((count == 1)) && kovactl __complete endpoints ;;
  esac
}

# Bash splits "what=sn" into three words, and "sync:=tr" into three or four, depending on whether ":" is a word break.
_kovactl_values() {
  local at=$((cword - 1)) field
  [[ ${words[cword]} == *=* ]] && at=$cword
  field=${words[at - 1]}
  [[ $field != : ]] || field=${words[at - 2]}
  mapfile -t COMPREPLY < <(compgen -W "$(kovactl __complete values "${_kovactl_path[1]}" "${field%:}")" -- \
    "${words[cword]##*=}")
}

_kovactl() {
  local -a words
  local cword
  _kovactl_join
  local current=${words[cword]} previous=${words[cword - 1]}
  local -a commands=(stats info metrics settings timezones reset-settings user service save reboot
    reset-defaults exit-service put get firmware transfers cancel call monitor listen bridge help)
  local -a _kovactl_path
  local _kovactl_first user=''
  _kovactl_command
  case $previous in
    --to | --from) _kovactl_words "$(kovactl __complete endpoints)" && return ;;
    --file | --old-file | --new-file)
      compopt -o filenames 2>/dev/null || :
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      return
      ;;
    -H | --host)
      # The word contains the user only where "@" does not split words.
      [[ ${COMP_WORDS[COMP_CWORD]} == ?*@* ]] && user=${current%@*}@
      mapfile -t COMPREPLY < <(compgen -P "$user" -A hostname -- "${current##*@}")
      return
      ;;
    --bus | --timeout | --delay | --hash | --filename | --field | --name) return ;;
  esac
  if [[ $current == -* ]]; then
    _kovactl_words "$(_kovactl_options "${_kovactl_path[0]-}" | tr ' ' '\n')"
  elif [[ ${_kovactl_path[*]-} == "settings timezone"* && "$previous$current" == *=* ]]; then
    # Bash splits "timezone=Eu" into three words.
    mapfile -t COMPREPLY < <(compgen -W "$(kovactl __complete zones)" -- "${current#=}")
  elif [[ ${_kovactl_path[0]-} == call && "$previous$current" == *=* && ${#_kovactl_path[@]} -gt 2 ]]; then
    _kovactl_values
  elif ((_kovactl_first == 0)); then
    _kovactl_words "$(printf '%s\n' "${commands[@]}")"
  else
    _kovactl_words "$(_kovactl_arguments 2>/dev/null)"
  fi
  if [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == *= ]]; then
    compopt -o nospace 2>/dev/null || :
  fi
}

complete -F _kovactl kovactl
