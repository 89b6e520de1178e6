# SPDX-License-Identifier: MIT
# bash completion for talvero-bist, whose --help tells the commands, options and registers.

# Reads the help of the program or of a command.
_talvero_bist_help() {
  local line
  options="" with_value="" registers="" commands=""
  while IFS= read -r line; do
    if [[ $line =~ ^\ \ (-h,)?(--[a-z-]+)(\ [^ ])? ]]; then
      options+=" ${BASH_REMATCH[2]}"
      [[ -z ${BASH_REMATCH[3]} ]] || with_value+=" ${BASH_REMATCH[2]}"
    elif [[ $line =~ \ or\ a\ name:\ (.*) ]]; then
      registers=${BASH_REMATCH[1]}
    elif [[ $line =~ ^\ \ ([a-z]+)\ \  ]]; then
      commands+=" ${BASH_REMATCH[1]}"
    fi
  done < <("$program" "$@" --help 2>/dev/null)
}

# Names of files, which bash quotes where they have blanks or quotes.
_talvero_bist_files() { # BEGINNING
  mapfile -t COMPREPLY < <(compgen -f -- "$1")
  compopt -o filenames 2>/dev/null
}

_talvero_bist() {
  local program=${COMP_WORDS[0]} word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
  local ports="DownstreamPort1 DownstreamPort5 DownstreamPort7 DownstreamPort9"
  local command="" commands options with_value registers words="" place=0 index
  _talvero_bist_help
  for ((index = 1; index < COMP_CWORD; ++index)); do
    if [[ -z $command && "$commands " == *" ${COMP_WORDS[index]} "* ]]; then
      command=${COMP_WORDS[index]}
      _talvero_bist_help "$command"
      place=0
    elif [[ ${COMP_WORDS[index]} != -* ]]; then
      [[ "$with_value " == *" ${COMP_WORDS[index - 1]} "* ]] || place=$((place + 1))
    fi
  done
  case "$before" in
    --expect | --write-expectation | --log | --junit | --html | --trace | --csv | --resume)
      _talvero_bist_files "$word"
      return
      ;;
    --seconds | --minutes | --cycles | --mask | --set | --drive-level | --post-cursor) place=none ;;
    --module) words="0 1 2 3" place=none ;;
    --slots) words="0 1 2 3 4 5" place=none ;;
    --ports) words=$ports place=none ;;
    --tests) words="board slots link errors prbs power expectation" place=none ;;
    --width) words="8 16 32" place=none ;;
    --quiet | --analog-loopback) words="on off" place=none ;;
  esac
  case "$command $place" in
    capture\ 0)
      _talvero_bist_files "$word"
      return
      ;;
    link\ 0 | errors\ 0 | prbs\ 0 | margin\ 0 | tx\ 0 | stop\ 0 | register\ 0)
      words="$ports ShimPort1 ShimPort5 0 1 2 3 4 5"
      ;;
    register\ 1) words=${registers//,/} ;;
    power\ 0) words="0 1 2 3 4 5" ;;
    power\ 1) words="on off" ;;
    topology\ 0 | shim\ 0) words="0 1 2 3" ;;
  esac
  if [[ $place != none ]]; then
    words+=$options
    [[ -n $command ]] || words+=$commands
  fi
  local earlier=""
  [[ $word != *,* ]] || earlier=${word%,*},
  mapfile -t COMPREPLY < <(compgen -P "$earlier" -W "$words" -- "${word##*,}")
}
complete -F _talvero_bist talvero-bist
