#!/bin/sh
# behaviours_check.sh BEHAVIOURS BUILD-DIRECTORY
# Every line of the list of behaviours must name, in backquotes at its end, at least one test, and every test
# named must be one that CTest knows.
set -eu
behaviours=$1
build=$2

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

ctest --test-dir "$build" -N | sed -n 's/^ *Test *#[0-9]*: //p' | sort -u >"$work/known"
[ -s "$work/known" ] || { echo "CTest lists no tests in $build" >&2; exit 1; }

grep '^- ' "$behaviours" >"$work/lines" || { echo "$behaviours lists nothing" >&2; exit 1; }
status=0
if grep -vE '(`[A-Za-z]+\.[^` ]+`(, )?)+$' "$work/lines" >"$work/untested"; then
  echo "Behaviours without a test at the end of the line:" >&2
  cat "$work/untested" >&2
  status=1
fi
grep -oE '(`[A-Za-z]+\.[^` ]+`(, )?)+$' "$work/lines" | grep -oE '`[^`]+`' | tr -d '`' | sort -u >"$work/named"
if comm -23 "$work/named" "$work/known" | grep . >"$work/missing"; then
  echo "Named tests that do not exist:" >&2
  cat "$work/missing" >&2
  status=1
fi
echo "$(wc -l <"$work/lines") behaviours, $(wc -l <"$work/named") tests named"
exit $status
