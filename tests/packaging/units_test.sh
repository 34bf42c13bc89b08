#!/bin/sh
# The systemd units and the table of cron call commands that exist, with options that they have, and the units are
# limited in time. The account that a unit runs as is one that the installation makes.
set -eu
# Commands and options are words of their own.
# shellcheck disable=SC2046,SC2086
. "$(dirname "$0")/tool_options.sh"
units=/usr/lib/systemd/system
[ "$(find $units -name 'tolmdb*' | wc -l)" -eq 8 ] || { echo "these are not the eight units" >&2; exit 1; }

all_commands >/tmp/commands
status=0
complain() {
  echo "$*" >&2
  status=1
}

count=0
sed -nE 's/ %f//; s/^Exec(Start|Stop)=//p' $units/tolmdb*.service |
  cat - "$(dirname "$0")/../../packaging/cron/tolmdbud" |
  grep -oE '(/usr/bin/|[ ])tolmdb(ud|pub) [a-z][a-z ]*( --?[a-z-]+)*' | sed 's|^/usr/bin/||; s/^ //' >/tmp/calls
while read -r tool command rest; do
  if [ "$command" = volume ]; then
    command="volume ${rest%% *}"
    rest=$(echo "$rest" | sed 's/^[^ ]* *//')
  fi
  grep -qx "$tool $command" /tmp/commands || complain "there is no $tool $command"
  help_options $tool $command >/tmp/options
  for option in $rest; do
    grep -qxe "$option" /tmp/options || complain "$tool $command has no $option"
  done
  count=$((count + 1))
done </tmp/calls
[ "$count" -eq 11 ] || complain "$count calls instead of 11 were found"

for unit in $units/tolmdb*.service; do
  grep -qE '^TimeoutStartSec=[0-9]+(min|h)$' "$unit" || complain "$unit may take for ever"
  grep -qx 'Type=oneshot' "$unit" || complain "$unit is not of one shot"
done
sed -n 's/^User=//p' $units/tolmdb*.service | while read -r account; do
  grep -q "^u $account " /usr/lib/sysusers.d/tolmdbpub.conf || echo "nobody makes the account $account"
done >/tmp/accounts
[ ! -s /tmp/accounts ] || complain "$(cat /tmp/accounts)"

# What a unit may write to are mounts of their own, and no file is renamed from one to another.
tolmdbpub keygen /tmp/keys --no-passphrase
tolmdbpub init /tmp/repo --base-url http://127.0.0.1:1 --key /tmp/keys/signing.key --cert /tmp/keys/signing.pem
writable=$(sed -n 's|%f|/tmp/repo|g; s/^ReadWritePaths=//p' $units/tolmdbpub-refresh@.service)
# shellcheck disable=SC2016
unshare -m sh -ec 'for path in $1; do mount --bind "$path" "$path"; done; tolmdbpub refresh /tmp/repo --quiet' \
  sh "$writable" || complain "refresh cannot replace the description where it may write to $writable alone"
exit $status
