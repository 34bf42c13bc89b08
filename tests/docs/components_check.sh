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

find . -path ./build -prune -o -path './.*' -prune -o \( -type f -o -type l \) -print | sed 's|^\./||' >"$work/files"

# One program reads all sources: "component other" for each include line that leads out of its component, and the
# sources that lie in none.
awk -v homeless="$work/homeless" '
# The component that a file lies in: the longest name that its path begins with; "?" for none.
function component_of(file,  i) {
  for (i = 1; i <= count; i++) {
    if (index(file, components[i] "/") == 1) return components[i]
  }
  return "?"
}
# The file that is included, below the source directory; "" for one of another project. Public headers are found below
# include/ and platform/include/, a bare name beside the source itself.
function resolve(included) {
  if (("include/" included) in files) return "include/" included
  if (("platform/include/" included) in files) return "platform/include/" included
  if (included in files) return included
  return (directory included) in files ? directory included : ""
}
FILENAME == ARGV[1] { components[++count] = $0; next }
FILENAME == ARGV[2] { files[$0]; next }
FILENAME == ARGV[3] { ARGV[ARGC++] = $0; if (component_of($0) == "?") print >homeless; next }
FNR == 1 {
  from = component_of(FILENAME)
  directory = FILENAME
  sub(/[^\/]*$/, "", directory)
}
/^[ \t]*#[ \t]*include[ \t]*["<][^">]+[">]/ {
  sub(/^[ \t]*#[ \t]*include[ \t]*["<]/, "")
  sub(/[">].*/, "")
  file = resolve($0)
  to = component_of(file)
  if (file != "" && from != to) print from, to
}' "$work/longest_first" "$work/files" "$work/sources" | sort -u >"$work/used"

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
