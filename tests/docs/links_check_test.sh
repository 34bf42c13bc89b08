#!/bin/sh
# links_check_test.sh CHECK
# The check of links fails where it must.
set -eu
check=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/docs" "$work/build" "$work/empty"
cat >"$work/README.md" <<'END'
# Title
See [one](docs/one.md), [its `part`](docs/one.md#a-part-with-code-and-more), [again](docs/one.md#twice-1),
[here](#title), [a directory](docs/) and [elsewhere](https://example.org/none). `[no](link.md)`

```
[no](link.md)
```
END
cat >"$work/docs/one.md" <<'END'
## A part, with `code` and more
## Twice
## Twice
[back](../README.md)
END
echo '[lost](nowhere.md)' >"$work/build/made.md"

expect() {  # STATUS TEXT
  status=0
  sh "$check" "$work" >"$work/said" 2>&1 || status=$?
  if [ "$status" -ne "$1" ] || ! grep -qxF -e "$2" "$work/said"; then
    echo "expected status $1 and \"$2\", saw $status and:" >&2
    cat "$work/said" >&2
    exit 1
  fi
}

expect 0 '2 documents, 6 links, 0 broken'
echo '[gone](two.md)' >>"$work/docs/one.md"
expect 1 'docs/one.md: two.md leads to no file'
sed -i '/gone/d' "$work/docs/one.md"
echo '[no heading](../README.md#titel)' >>"$work/docs/one.md"
expect 1 "docs/one.md: ../README.md#titel names no heading of docs/../README.md"
sed -i '/no heading/d; s/with `code`/without it/' "$work/docs/one.md"
expect 1 'README.md: docs/one.md#a-part-with-code-and-more names no heading of ./docs/one.md'
if sh "$check" "$work/empty" >"$work/said" 2>&1; then
  echo "nothing to check counts as checked" >&2
  exit 1
fi
