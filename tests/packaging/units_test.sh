#!/bin/sh
# The systemd units and the table of cron call commands that exist, with options that they have, and the units are
# limited in time. The account that a unit runs as is one that the installation makes.
set -eu
# Commands and options are words of their own.
# shellcheck disable=SC2046,SC2086
. "$(dirname "$0")/tool_options.sh"
units=/usr/lib/systemd/system
[ "$(find $units -name 'tolmdb*' | wc -l)" -eq 10 ] || { echo "these are not the ten units" >&2; exit 1; }

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
[ "$count" -eq 12 ] || complain "$count calls instead of 12 were found"

for unit in $units/tolmdb*.service; do
  grep -qE '^TimeoutStartSec=[0-9]+(min|h)$' "$unit" || complain "$unit may take for ever"
  grep -qx 'Type=oneshot' "$unit" || complain "$unit is not of one shot"
done

# The unit that writes metrics names the directory that is missing, and writes there once it is there.
metrics=$(sed -n 's/^Environment=TOLMDBUD_METRICS_FILE=//p' $units/tolmdbud-metrics.service)
write_metrics() {
  sh -c "$(sed -n 's/^ExecStart=//p' $units/tolmdbud-metrics.service | sed "s|\${TOLMDBUD_METRICS_FILE}|$metrics|")" 2>/tmp/says || true
}
write_metrics
grep -q "there is no directory ${metrics%/*} for $metrics" /tmp/says || complain "the missing directory is not named"
mkdir -p "${metrics%/*}"
write_metrics
grep -q '^tolmdbud_collected_timestamp_seconds ' "$metrics" || complain "no metrics are written to $metrics"
grep -qx "ReadWritePaths=-${metrics%/*}" $units/tolmdbud-metrics.service || complain "the unit may not write to $metrics"

# The example that tells a person names the unit and the machine, and sends what the journal has.
mkdir -p /tmp/fakes
printf '#!/bin/sh\necho "journal of $2"\n' >/tmp/fakes/journalctl
printf '#!/bin/sh\nexec cat >/tmp/mail\n' >/tmp/fakes/sendmail
chmod +x /tmp/fakes/*
sed -n 's/^ExecStart=//p' "$(dirname "$0")/../../packaging/systemd/tell-operator@.service" |
  sed 's/%i/tolmdbud-update.service/; s/%H/here/; s/\$\$/$/g' >/tmp/tell
PATH=/tmp/fakes:$PATH sh /tmp/tell
printf 'Subject: tolmdbud-update.service has failed on here\n\njournal of tolmdbud-update.service\n' | diff /tmp/mail - >&2 ||
  complain "this is not the mail"

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
