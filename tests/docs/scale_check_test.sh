#!/bin/sh
# scale_check_test.sh SCALE-CHECK SOURCE-DIRECTORY
# The check finds a figure that was changed by hand, a picture that is gone, and another timer.
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/docs" "$work/packaging/systemd"
cp -r "$2/bench" "$work/bench"
cp -r "$2/docs/pictures" "$2/docs/scale.md" "$work/docs/"
cp "$2/packaging/systemd/tolmdbud-update.timer" "$work/packaging/systemd/"
check() { "$1" "$work" 2>"$work/errors"; }
refuses() {  # WHY
  if check "$checker"; then echo "not found: $1" >&2; exit 1; fi
  grep -q "$1" "$work/errors" || { echo "found something else than \"$1\":" >&2; cat "$work/errors" >&2; exit 1; }
}
checker=$1
check "$checker" || { cat "$work/errors" >&2; exit 1; }
sed -i 's/| 1,000,000 | [0-9]/| 1,000,000 | 9/' "$work/docs/scale.md"
refuses "is not what was kept"
cp "$2/docs/scale.md" "$work/docs/"
rm "$work/docs/pictures/fleet-week.svg"
refuses "fleet-week.svg is missing"
cp "$2/docs/pictures/fleet-week.svg" "$work/docs/pictures/"
sed -i 's/^RandomizedDelaySec=.*/RandomizedDelaySec=5h/' "$work/packaging/systemd/tolmdbud-update.timer"
refuses "another timer"
