# SPDX-License-Identifier: MIT
# bash completion for talvero-bist
_talvero_bist() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
  local ports="DownstreamPort1 DownstreamPort5 DownstreamPort7 DownstreamPort9 ShimPort1 ShimPort5"
  local words="report board slots power topology link errors prbs soak margin shim tx stop register list capture
    --json --log --junit --html --trace --spb-despite-straps --help --version --seconds --clear --module --power-cycle --no-export
    --power-on --tests --slots --ports --expect --write-expectation --switch --width --mask --set
    --drive-level --post-cursor --quiet --analog-loopback --minutes --cycles --csv --resume"
  case "$before" in
    link | errors | prbs | margin | tx | stop | register | --ports) words="$ports 0 1 2 3 4 5" ;;
    power | --slots) words="0 1 2 3 4 5" ;;
    shim | --module) words="0 1 2 3" ;;
    --quiet | --analog-loopback | [0-5]) words="on off $words" ;;
    --tests) words="board slots link errors prbs power expectation" ;;
    --width) words="8 16 32" ;;
    --expect | --write-expectation | --log | --junit | --html | --trace | --csv | --resume | capture)
      mapfile -t COMPREPLY < <(compgen -f -- "$word")
      return
      ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}
complete -F _talvero_bist talvero-bist
