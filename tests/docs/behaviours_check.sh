#!/bin/sh
# behaviours_check.sh BEHAVIOURS BUILD-DIRECTORY [DOCUMENT...]
# From its first section on, the list of behaviours holds headings and promises only. A promise is one line that
# ends with at least one test, "- text — `test`, `test`", and every test named must be one that CTest knows. A
# parametrised test may be named without its row: at least one row must exist then. Tests that other documents name must
# exist as well.
set -eu
behaviours=$1
build=$2
shift 2

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

ctest --test-dir "$build" -N | sed -n 's/^ *Test *#[0-9]*: //p' >"$work/listed"
[ -s "$work/listed" ] || { echo "CTest lists no tests in $build" >&2; exit 1; }
sed -nE 's|^([^. ]+\.[^. ]+\.[^./ ]+)/[^/ ]+$|\1|p' "$work/listed" | sort -u - "$work/listed" >"$work/known"

sed -n '/^## /,$p' "$behaviours" | grep -vE '^(## .*)?$' >"$work/lines" ||
  { echo "$behaviours lists nothing" >&2; exit 1; }
status=0
test='`[a-z]+\.[A-Z][^` ]*`'
if grep -vE "^- .+ — $test(, $test)*\$" "$work/lines" >"$work/untested"; then
  echo "Behaviours without a test at the end of the line:" >&2
  cat "$work/untested" >&2
  status=1
fi
grep -oE "$test" "$work/lines" | tr -d '`' | sort -u >"$work/named" || true
cat "$behaviours" "$@" | grep -oE "$test" | tr -d '`' | sort -u >"$work/named-anywhere" || true
if comm -23 "$work/named-anywhere" "$work/known" | grep . >"$work/missing"; then
  echo "Named tests that do not exist:" >&2
  cat "$work/missing" >&2
  status=1
fi
promises=$(wc -l <"$work/lines")
names=$(wc -l <"$work/named")
if [ "$names" -lt "$promises" ]; then
  echo "Fewer tests are named than promises made" >&2
  status=1
fi
echo "$promises behaviours, $names tests named"
exit $status
