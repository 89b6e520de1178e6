#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Runs the examples of a documentation page, as a reader would, against an installed copy, and
# follows its links to pages and their headings.
#
#     documentation.sh PREFIX PAGE
#
# Every fenced block has a kind:
#   cpp cmake ini  a file; its first line is a comment that holds the file's name
#   console        commands, each after "$ ", and exactly what they print; a command that fails is
#                  followed by "echo $?"
#   text           no example
# The blocks run in their order in one directory, which begins with this source tree as
# libbist-talvero-hw-lib.
set -euo pipefail

fail() {
  echo "$page:$number: $*" >&2
  exit 1
}

write_file() { # BLOCK
  local name=${1%%$'\n'*}
  name=${name#'// '}
  name=${name#'# '}
  [[ $name =~ ^[A-Za-z0-9_-]+\.[a-z]+$ ]] || fail "the block does not begin with its file's name"
  printf '%s' "$1" >"$name"
  files+=("$name")
}

run_command() { # COMMAND
  set +eu
  (exit "$status")
  eval "$1"
  status=$?
  set -eu
}

# Writes down what a terminal would show, and what it should show.
run_commands() { # BLOCK
  local lines i command
  [[ $1 == '$ '* ]] || fail "the block does not begin with a command"
  printf '%s' "$1" >>"$work/expected"
  mapfile -t lines <<<"${1%$'\n'}"
  for ((i = 0; i < ${#lines[@]}; ++i)); do
    [[ ${lines[i]} == '$ '* ]] || continue
    command=${lines[i]#'$ '}
    while [[ $command == *\\ ]]; do
      command+=$'\n'${lines[++i]}
    done
    show_failure "$command"
    printf '$ %s\n' "$command" >>"$work/shown"
    run_command "$command" >>"$work/shown" 2>&1 </dev/null
  done
}

# Says that the last command has failed, unless the next one does.
show_failure() { # NEXT_COMMAND
  # shellcheck disable=SC2016  # the page's command, not ours
  if [ "$status" != 0 ] && [ "$1" != 'echo $?' ]; then
    echo "(exit status $status)" >>"$work/shown"
  fi
}

take_block() {
  case $kind in
    cpp | cmake | ini) write_file "$block" ;;
    console) run_commands "$block" ;;
    text) ;;
    *) fail "a block of the kind \"$kind\"" ;;
  esac
}

# A file that no command names would not be tried.
check_files_used() {
  local name
  for name in "${files[@]}"; do
    [ "$name" != CMakeLists.txt ] || name="cmake -S"
    grep -qsF -- "$name" "$work/expected" CMakeLists.txt || fail "no command uses $name"
  done
}

# A page tells what another one says by a link only.
check_links() {
  local link target line anchors
  while IFS= read -r link; do
    link=${link#']('}
    link=${link%')'}
    target=$(dirname "$page")/${link%%'#'*}
    [ -e "$target" ] || fail "no page $link"
    [[ $link == *'#'* ]] || continue
    anchors=$'\n'
    while IFS= read -r line; do
      [[ $line =~ ^'#'+' '(.*) ]] || continue
      line=${BASH_REMATCH[1],,}
      line=${line//[^a-z0-9 -]/}
      anchors+=${line// /-}$'\n'
    done <"$target"
    [[ $anchors == *$'\n'"${link#*'#'}"$'\n'* ]] || fail "no heading $link"
  done < <(grep -oE '\]\([^()]+\.md(#[^()]*)?\)' "$page")
}

number=0
prefix=$(cd "$1" && pwd)
page=$(realpath "$2")
source=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
libraries=$(dirname "$(find "$prefix" -name libbist-talvero-hw-lib.so.0)")
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name bist-talvero-hw-lib.pc)")
export PKG_CONFIG_PATH CMAKE_PREFIX_PATH=$prefix LD_LIBRARY_PATH=$libraries LC_ALL=C
export PATH=$prefix/bin:$PATH CMAKE_GENERATOR=Ninja
# Outside a simulated instrument it refuses: an example never reaches this machine's own hardware.
LD_PRELOAD=$(find "$prefix" -name libtalvero-sim-preload.so)
[[ $LD_PRELOAD == /* && $LD_PRELOAD != *[$' \t\n:']* ]] || fail "no library to preload: $LD_PRELOAD"
export LD_PRELOAD

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
: >"$work/expected"
: >"$work/shown"
mkdir "$work/page"
cd "$work/page"
ln -s "$source" libbist-talvero-hw-lib

kind='' block='' files=() status=0
while IFS= read -r line; do
  number=$((number + 1))
  if [ -n "$kind" ]; then
    if [ "$line" = '```' ]; then
      take_block
      kind='' block=''
    else
      block+=$line$'\n'
    fi
  elif [[ $line == '```'* ]]; then
    kind=${line#'```'}
    [ -n "$kind" ] || fail "a block without a kind"
  elif [[ $line =~ ^(    |$'\t'|' '*'```'|' '*'~~~'|' '*'<pre') ]]; then
    fail "a block that is not fenced by \`\`\` at the beginning of a line"
  fi
done <"$page"
[ -z "$kind" ] || fail "a block without an end"
show_failure ""
check_files_used
check_links
diff -u --label "$2" --label "what the commands print" "$work/expected" "$work/shown"
