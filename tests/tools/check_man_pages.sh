#!/bin/sh
# Each manual page has the sections a reader looks for, renders without a
# warning, and documents every long option its program's --help lists.
# Arguments: PAGE PROGRAM pairs.
status=0
fail() { echo "$page: $*"; status=1; }
while [ $# -ge 2 ]; do
  page=$1 program=$2
  shift 2
  for section in NAME SYNOPSIS DESCRIPTION OPTIONS "EXIT STATUS" FILES \
                 EXAMPLES "SEE ALSO"; do
    grep -qx "\.SH \"\{0,1\}$section\"\{0,1\}" "$page" || fail "no $section section"
  done
  warnings=$(groff -man -Tutf8 -ww -z "$page" 2>&1)
  [ -z "$warnings" ] || fail "$warnings"
  # Option names as written in the source: "\-\-name".
  text=$(sed 's/\\-/-/g' "$page")
  for option in $("$program" --help | grep -o -- '--[a-z][a-z-]*' | sort -u); do
    printf '%s\n' "$text" | grep -q -- "$option" || fail "$option is not documented"
  done
done
exit $status
