#!/bin/sh
# The manual page of each tool has a section for each command with the command's options, and no others.
set -eu
# Commands and options are words of their own.
# shellcheck disable=SC2046,SC2086
. "$(dirname "$0")/tool_options.sh"

find /usr/share/man -name 'tolmdb*.[18]' >/tmp/pages
page_of() { grep "/$1\.[18]\$" /tmp/pages || { echo "there is no page of $1" >&2; return 1; }; }

# The text of a page's section, without the page's own markup. "options" is the one of what all commands take.
section_of() {  # PAGE HEADING
  awk -v wanted="$2" '
    /^\.(SH|SS) / { name = substr($0, 5); gsub(/"/, "", name); inside = name == wanted; next }
    inside { gsub(/\\[%:]/, ""); gsub(/\\f[A-Z]/, ""); gsub(/\\-/, "-"); print }' "$1"
}

options_in() { grep -oE -e '--[a-z][a-z-]*' | sort -u; }

complain() {
  echo "$*" >&2
  status=1
}

status=0
count=0
for tool in tolmdbud tolmdbpub tolmdbudvcdiff; do
  : >"/tmp/$tool.taken"
done
all_commands >/tmp/commands
while read -r tool command; do
  page=$(page_of "$tool")
  section_of "$page" OPTIONS | options_in >/tmp/common
  help_options $tool $command >/tmp/help
  [ -s /tmp/help ] || complain "$tool $command --help shows no options"
  cat /tmp/help >>"/tmp/$tool.taken"
  if [ -n "$command" ]; then
    # Not for a command that only has others below it.
    if ! grep -q "^$tool $command ." /tmp/commands; then
      section_of "$page" "$command" >/tmp/section
      [ -s /tmp/section ] || complain "$page has no section $command"
    else
      : >/tmp/section
    fi
    options_in </tmp/section >/tmp/described || true
    # --help describes what it shows; so does the section, or the one of common options.
    sort -u /tmp/described /tmp/common | comm -23 /tmp/help - | grep . >/tmp/missing &&
      complain "$page does not describe for $tool $command:" $(cat /tmp/missing)
    comm -13 /tmp/help /tmp/described | grep . >/tmp/unknown &&
      complain "$page describes what $tool $command does not have:" $(cat /tmp/unknown)
  fi
  count=$((count + 1))
done </tmp/commands
[ "$count" -ge 25 ] || complain "only $count commands were found"

for tool in tolmdbud tolmdbpub tolmdbudvcdiff; do
  page=$(page_of $tool)
  sort -u "/tmp/$tool.taken" >/tmp/taken
  section_of "$page" OPTIONS | options_in | comm -13 /tmp/taken - | grep . >/tmp/unknown &&
    complain "$page describes options that no command has:" $(cat /tmp/unknown)
  if [ $tool = tolmdbudvcdiff ]; then
    # It has one --help for all of its commands.
    for heading in OPTIONS decode verify info; do
      section_of "$page" $heading
    done | options_in >/tmp/described
    diff /tmp/taken /tmp/described >&2 || complain "$page does not describe what $tool has"
  fi
  awk '/^\.SS / { print substr($0, 5) }' "$page" | tr -d '"' | while read -r command; do
    [ $tool = tolmdbudvcdiff ] || grep -qx "$tool $command" /tmp/commands || echo "$command"
  done >/tmp/unknown
  [ ! -s /tmp/unknown ] || complain "$page describes commands that do not exist:" $(cat /tmp/unknown)
done
exit $status
