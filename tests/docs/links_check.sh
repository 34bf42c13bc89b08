#!/bin/sh
# links_check.sh SOURCE-DIRECTORY
# Every relative link in a Markdown document leads to something that is there, and to a heading of it where it names
# one. Headings are called as web sites that show Markdown call them.
set -eu
cd "$1"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# What is no code: neither a fenced block nor a line of one that is indented.
prose() {  # DOCUMENT
  awk '/^ *```/ { fenced = !fenced; next } !fenced && !/^    /' "$1"
}

anchors() {  # DOCUMENT
  prose "$1" | awk '/^#+ / {
    name = $0
    sub(/^#+ +/, "", name)
    gsub(/\]\([^)]*\)/, "", name)
    name = tolower(name)
    gsub(/[]!-,.\/:-@[\\^`{-~]/, "", name)
    gsub(/ /, "-", name)
    print seen[name]++ ? name "-" seen[name] - 1 : name
  }'
}

links() {  # DOCUMENT
  prose "$1" | sed 's/`[^`]*`//g' | grep -oE '\]\([^)]*\)' | sed 's/^](//; s/)$//' || true
}

find . -path ./build -prune -o -path './.?*' -prune -o -name '*.md' -print | sed 's|^\./||' | sort >"$work/documents"
while read -r document; do
  links "$document" | grep -vE '^[a-z]+:' | while read -r link; do
    echo "$link" >>"$work/links"
    case $link in
      '#'*) target=$document ;;
      *) target=$(dirname "$document")/${link%%#*} ;;
    esac
    if [ ! -e "$target" ]; then
      echo "$document: $link leads to no file"
    elif [ "${link#*#}" != "$link" ] && ! anchors "$target" | grep -qxF -e "${link#*#}"; then
      echo "$document: $link names no heading of $target"
    fi
  done
done <"$work/documents" >"$work/broken"
[ -s "$work/links" ] || { echo "there are no links in $1" >&2; exit 1; }
echo "$(wc -l <"$work/documents") documents, $(wc -l <"$work/links") links, $(wc -l <"$work/broken") broken"
cat "$work/broken" >&2
[ ! -s "$work/broken" ]
