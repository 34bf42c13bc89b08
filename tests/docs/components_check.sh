#!/bin/sh
# components_check.sh SOURCE-DIRECTORY
# The table of components in docs/architecture.md says in its last column which other components each one's sources
# and headers may include. Compares that with every include line: what is included must be allowed, what is allowed
# must be included somewhere, and every directory that holds sources must be a component.
set -eu
cd "$1"
document=docs/architecture.md

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# "component other", a line for each name in the last column of a row "| `component/` | ... | `other/`, ... |".
awk -F'|' '/^\| `[a-z\/]+\/` \|/ {
  component = $2
  gsub(/[ `]|\/ *$/, "", component)
  sub(/\/$/, "", component)
  print component > components
  rest = $(NF - 1)
  while (match(rest, /`[a-z\/]+`/)) {
    other = substr(rest, RSTART + 1, RLENGTH - 2)
    sub(/\/$/, "", other)
    print component, other
    rest = substr(rest, RSTART + RLENGTH)
  }
}' components="$work/components" "$document" | sort -u >"$work/allowed"
[ -s "$work/components" ] && [ -s "$work/allowed" ] || {
  echo "$document has no table of components" >&2
  exit 1
}
sort -r "$work/components" >"$work/longest_first"

# Sources of this project, without tests, benchmarks and what others' programs are tried with.
find . -path ./build -prune -o -path ./tests -prune -o -path ./bench -prune -o -path './.*' -prune -o \
  \( -name '*.cpp' -o -name '*.h' -o -name '*.c' \) -print | sed 's|^\./||' | sort >"$work/sources"
[ -s "$work/sources" ] || { echo "no sources in $1" >&2; exit 1; }

# The component that a file lies in: the longest name that its path begins with; "?" for none.
component_of() {
  while read -r component; do
    case $1 in "$component"/*) echo "$component"; return ;; esac
  done <"$work/longest_first"
  echo "?"
}

# An include's file, below the source directory. Public headers are found below include/ and platform/include/, a
# bare name beside the source itself.
resolve() {  # SOURCE INCLUDED
  for candidate in "include/$2" "platform/include/$2" "$2" "$(dirname "$1")/$2"; do
    if [ -f "$candidate" ]; then
      echo "$candidate"
      return
    fi
  done
}

while read -r source; do
  from=$(component_of "$source")
  if [ "$from" = "?" ]; then
    echo "$source" >>"$work/homeless"
  fi
  sed -nE 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*["<]([^">]+)[">].*/\1/p' "$source" | while read -r included; do
    file=$(resolve "$source" "$included")
    [ -n "$file" ] || continue
    to=$(component_of "$file")
    [ "$from" = "$to" ] || echo "$from $to"
  done
done <"$work/sources" | sort -u >"$work/used"

status=0
if [ -f "$work/homeless" ]; then
  echo "Sources outside the components of $document:" >&2
  cat "$work/homeless" >&2
  status=1
fi
if comm -23 "$work/used" "$work/allowed" | sed 's/ / includes /' | grep . >&2; then
  echo "and $document does not allow it" >&2
  status=1
fi
if comm -13 "$work/used" "$work/allowed" | sed 's/ / includes nothing of /' | grep . >&2; then
  echo "although $document says so" >&2
  status=1
fi
echo "$(wc -l <"$work/sources") sources, $(wc -l <"$work/components") components, $(wc -l <"$work/used") arrows"
exit $status
