#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Prints what the library weighs and what there is to do when it is loaded; fails over a limit.
set -euo pipefail
loadTime=$1
native=$2
target=$3
limit=120000
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

stripped() { # LIBRARY STRIP
  "$2" -o "$work/stripped" "$1"
  stat -c %s "$work/stripped"
}

relocations() { # LIBRARY KIND
  readelf -rW "$1" | grep -cE " R_[A-Z0-9_]+_$2 "
}

bytes() { # LIBRARY SECTION
  local size
  size=$(readelf -SW "$1" | sed -nE "s/.* \\$2 +[A-Z_]+ +[0-9a-f]+ [0-9a-f]+ ([0-9a-f]+) .*/\1/p")
  echo $((16#$size))
}

row() { # TITLE COMMAND [ARGUMENT...]
  printf '%-52s %8s %8s\n' "$1" "$("$2" "$target" "${@:3}")" "$("$2" "$native" "${@:3}")"
}

targetSize=$(stripped "$target" aarch64-linux-gnu-strip)
printf '%-52s %8s %8s\n' "the library as it is shipped" AArch64 x86-64
printf '%-52s %8s %8s\n' "stripped, bytes (limit $limit)" "$targetSize" "$(stripped "$native" strip)"
row "relative relocations" relocations RELATIVE
row "symbols bound for data" relocations '(ABS64|64|GLOB_DAT)'
row "symbols bound for functions" relocations JUMP_SLOT
row "tables that hold addresses (.data.rel.ro), bytes" bytes .data.rel.ro
row "addresses of static initialisers (.init_array), bytes" bytes .init_array
"$loadTime" "$native"
[ "$targetSize" -le "$limit" ]
