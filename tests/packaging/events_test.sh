#!/bin/sh
# The identifiers of events are the same in the program, in the document and in the catalog for journalctl, whose fields
# the program knows; and systemd accepts the catalog, where its program is at hand.
set -eu
top=$(cd "$(dirname "$0")/../.." && pwd)
catalog=/usr/lib/systemd/catalog/tolmdbud.catalog

ids_in() { grep -oE '\b[0-9a-f]{32}\b' "$1" | sort -u; }
fields_in() { grep -ohE 'TOLMDBUD_[A-Z_]*[A-Z]' "$@" | sort -u; }

ids_in "$top/operation/events.cpp" >/tmp/program
[ "$(wc -l </tmp/program)" -eq 9 ] || { echo "these are not the nine events" >&2; exit 1; }
ids_in "$top/docs/monitoring.md" | diff /tmp/program - || { echo "the document has others" >&2; exit 1; }
sed -n 's/^-- //p' $catalog | sort | diff /tmp/program - || { echo "the catalog has others" >&2; exit 1; }

fields_in "$top/operation/events.cpp" >/tmp/fields
[ "$(wc -l </tmp/fields)" -ge 10 ] || { echo "too few fields were found" >&2; exit 1; }
fields_in "$top/docs/monitoring.md" | grep -vx TOLMDBUD_METRICS_FILE | diff /tmp/fields - || { echo "the document has other fields" >&2; exit 1; }
fields_in $catalog | comm -13 /tmp/fields - | grep . && { echo "the catalog has fields that nobody sends" >&2; exit 1; }
[ "$(grep -c '^Subject: ' $catalog)" -eq 9 ]
[ "$(grep -c '^Defined-By: ' $catalog)" -eq 9 ]
if command -v journalctl >/dev/null; then
  mkdir -p /var/lib/systemd/catalog
  journalctl --update-catalog
  journalctl --list-catalog 2>/dev/null | sed 's/ .*//' | sort -u >/tmp/listed
  [ "$(comm -12 /tmp/program /tmp/listed | wc -l)" -eq 9 ] || { echo "journalctl does not take the catalog" >&2; exit 1; }
fi
