#!/bin/sh
# Every manual page is there, is formatted without a warning, and begins as apropos wants it.
set -eu
status=0
for page in man1/tolmdbpub.1 man5/data_update.conf.5 man5/databases.conf.5 man5/tolmdbud-version.json.5 \
  man7/tolmdbud-json.7 man7/tolmdbud-plugins.7 man8/tolmdbud.8 man8/tolmdbudvcdiff.8; do
  file=/usr/share/man/$page
  name=$(basename "$page" | sed 's/\.[0-9]$//')
  groff -Kutf8 -t -man -Tutf8 -ww -z -b "$file" 2>/tmp/warnings || echo "groff failed" >>/tmp/warnings
  if [ -s /tmp/warnings ]; then
    cat /tmp/warnings >&2
    status=1
  fi
  sed -n '/^\.SH NAME$/{n;p;}' "$file" | grep -q "^$name - [a-z]" || {
    echo "$page does not say in its first section what $name is" >&2
    status=1
  }
  # A reader sees text, not markup of the source.
  groff -Kutf8 -t -man -Tascii -P-cbou "$file" >/tmp/text
  [ "$(wc -l </tmp/text)" -gt 30 ] || { echo "$page has no text" >&2; status=1; }
  if grep -nE '(^|[ (])(\*\*?|`)[A-Za-z]|\]\(|\.md\b' /tmp/text >&2; then
    echo "$page shows markup" >&2
    status=1
  fi
done
exit $status
