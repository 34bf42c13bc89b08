#!/bin/sh
# scale_check.sh SOURCE-DIRECTORY
# docs/scale.md is what bench/fleet makes of what it has kept, of the timer that is shipped, and all pictures in it are there.
set -eu
cd "$1"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
python3 bench/fleet/fleet report --no-pictures --document "$work/scale.md"
grep -q '^| ' "$work/scale.md" || { echo "there are no tables in what was made" >&2; exit 1; }
diff -u docs/scale.md "$work/scale.md" >&2 || {
  echo "docs/scale.md is not what was kept: make it anew by bench/fleet/fleet report" >&2
  exit 1
}
grep -oE 'pictures/[a-z-]+\.svg' docs/scale.md >"$work/pictures"
[ -s "$work/pictures" ] || { echo "docs/scale.md has no pictures" >&2; exit 1; }
while read -r picture; do
  [ -s "docs/$picture" ] || { echo "docs/$picture is missing" >&2; exit 1; }
  grep -q '<desc id="desc">.' "docs/$picture" || { echo "docs/$picture does not say what it shows" >&2; exit 1; }
done <"$work/pictures"
