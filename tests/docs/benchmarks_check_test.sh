#!/bin/sh
# benchmarks_check_test.sh CHECK SOURCE-DIRECTORY
# The check of docs/benchmarks.md fails where a figure was changed by hand, and where a picture is missing.
set -eu
check=$1
source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/docs"
cp -r "$source/bench" "$work/bench"
cp -r "$source/docs/benchmarks.md" "$source/docs/pictures" "$work/docs/"

refused() {  # TEXT
  if sh "$check" "$work" >"$work/said" 2>&1 || ! grep -qF -e "$1" "$work/said"; then
    echo "expected a refusal with \"$1\", saw:" >&2
    cat "$work/said" >&2
    exit 1
  fi
}

sh "$check" "$work" || { echo "the copy itself was refused" >&2; exit 1; }
sed -i '0,/[0-9]\.[0-9][0-9] |/s//0.01 |/' "$work/docs/benchmarks.md"
refused "is not what the stored results say"
cp "$source/docs/benchmarks.md" "$work/docs/"
rm "$work/docs/pictures/time.svg"
refused "pictures/time.svg is missing"
