# SPDX-License-Identifier: MIT
# bash completion for talvero-sim

# Names of files, which bash quotes where they have blanks or quotes.
_talvero_sim_files() { # BEGINNING
  mapfile -t COMPREPLY < <(compgen -f -- "$1")
  compopt -o filenames 2>/dev/null
}

_talvero_sim() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} index
  local words="set --instrument --fast --trace --timestamps --expect --state --summary --seed --name
    --on --show --list --help --version --"
  for ((index = 1; index < COMP_CWORD; ++index)); do
    if [ "${COMP_WORDS[index]}" = -- ]; then # the program and its arguments
      if ((index + 1 == COMP_CWORD)); then
        mapfile -t COMPREPLY < <(compgen -c -- "$word")
      else
        _talvero_sim_files "$word"
      fi
      return
    fi
  done
  case "$before" in
    --instrument)
      words=$("${COMP_WORDS[0]}" --list 2>/dev/null | cut -f 1)
      _talvero_sim_files "$word"
      mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -W "$words" -- "$word")
      return
      ;;
    --trace | --expect | --state)
      _talvero_sim_files "$word"
      return
      ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}
complete -F _talvero_sim talvero-sim
