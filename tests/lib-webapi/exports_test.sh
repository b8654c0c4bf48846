#!/bin/bash
# exports_test.sh NM LIBRARY LIST: the dynamic symbols that LIBRARY defines are exactly those of LIST.
set -euo pipefail
export LC_ALL=C

nm=$1 library=$2 list=$3

# An unreadable or stripped library must not look like one that exports nothing.
table=$("$nm" --dynamic --defined-only --demangle "$library")

# Of "ADDRESS TYPE NAME" the name only: the type depends on the optimisation. Constructors and
# destructors have several symbols of one name.
if ! diff --unified=0 --label "expected: $list" --label "exported: $library" \
    "$list" <(cut -d ' ' -f 3- <<<"$table" | sort --unique); then
  echo "Lines with '+' are exported and not in the list, lines with '-' are missing in the library." >&2
  exit 1
fi
