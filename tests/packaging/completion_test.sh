#!/usr/bin/env bash
# The completion offers each command's options, no more and no fewer than --help shows; commands; names where the
# programs can tell them.
set -euo pipefail
. "$(dirname "$0")/tool_options.sh"
for tool in tolmdbud tolmdbpub tolmdbudvcdiff; do
  . /usr/share/bash-completion/completions/$tool
done

# What is offered for the last of the words, one a line.
offers() {
  COMP_WORDS=("$@")
  COMP_CWORD=$(($# - 1))
  COMP_LINE="$*"
  COMP_POINT=${#COMP_LINE}
  local function
  function=$(complete -p "$1" | sed -n 's/.* -F \([^ ]*\) .*/\1/p')
  COMPREPLY=()
  "$function" "$1" "${@: -1}" "${COMP_WORDS[COMP_CWORD - 1]}" || true
  printf '%s\n' "${COMPREPLY[@]}" | sed '/^$/d'
}

status=0
expect() {  # WHAT EXPECTED ACTUAL
  if [ "$2" != "$3" ]; then
    printf '%s: expected\n%s\nbut got\n%s\n' "$1" "$2" "$3" >&2
    status=1
  fi
}

all_commands >/tmp/commands
while read -r -a command; do
  expect "options of ${command[*]}" "$(help_options "${command[@]}")" "$(offers "${command[@]}" -- | sort -u)"
  below=$(grep -E "^${command[*]} [^ ]+$" /tmp/commands | sed 's/.* //' || true)
  if [ -n "$below" ]; then
    expect "commands of ${command[*]}" "$(sort <<<"$below")" "$(offers "${command[@]}" "" | sort)"
  fi
done </tmp/commands
[ "$(wc -l </tmp/commands)" -ge 25 ] || { echo "too few commands were found" >&2; status=1; }
expect "commands of the decoder" "decode info verify" "$(offers tolmdbudvcdiff "" | sort | xargs)"
expect "--json is for info only" "" "$(offers tolmdbudvcdiff decode --j)"

# Without settings there is nothing to offer, and nothing is said.
expect "databases without settings" "" "$(offers tolmdbud update "" 2>&1)"

mkdir -p /usr/share/data_update
cat >/usr/share/data_update/data_update.conf <<'END_OF_FILE'
{"config": {"cur_volume": "", "download_scheme": "http", "db_netloc": "127.0.0.1:1", "db_ver": "v1"}}
END_OF_FILE
cat >/usr/share/data_update/databases.conf <<'END_OF_FILE'
{"geoip": {"format_version": "1", "install_dest": "%ROOTFS%"},
 "two words": {"format_version": "1", "install_dest": "%ROOTFS%"},
 "vendors": {"format_version": "1", "install_dest": "%ROOTFS%"}}
END_OF_FILE
for command in status check update fix verify force-install busy lock schedule; do
  expect "databases of $command" $'geoip\ntwo\\ words\nvendors' "$(offers tolmdbud $command "")"
done
expect "a beginning" vendors "$(offers tolmdbud update geoip ve)"
expect "a second name where one is wanted" "" "$(offers tolmdbud force-install geoip "")"
expect "a second name after a flag" vendors "$(offers tolmdbud update --keep-going v)"
expect "the value of an option" "" "$(offers tolmdbud force-install --version "")"
expect "a name after a value" vendors "$(offers tolmdbud lock --wait 5 v)"
expect "a schedule" "off on" "$(offers tolmdbud schedule vendors o | sort | xargs)"
expect "a beginning of a command" "status" "$(offers tolmdbud st)"
expect "volumes" /volume1 "$(offers tolmdbud volume mounted "" | grep -x /volume1)"
expect "a command under the lock" printenv "$(offers tolmdbud lock vendors -- printe | sort -u)"

expect "kinds" "delta full" "$(offers tolmdbpub pack --kind "" | sort | xargs)"
mkdir -p /tmp/here/directory /tmp/files
: >/tmp/here/file
: >/tmp/files/one
tolmdbpub keygen /tmp/keys --no-passphrase
tolmdbpub init /tmp/repo --base-url http://127.0.0.1:1 --key /tmp/keys/signing.key --cert /tmp/keys/signing.pem
tolmdbpub release /tmp/repo vendors /tmp/files >/dev/null
expect "released databases" vendors "$(offers tolmdbpub prune /tmp/repo "")"
cd /tmp/here
expect "a directory" directory "$(offers tolmdbpub keygen "")"
expect "a file" $'directory\nfile' "$(offers tolmdbpub inspect "" | sort)"
expect "a file of metrics" $'directory\nfile' "$(offers tolmdbud status --metrics-file "" | sort)"
expect "a publisher's file of metrics" $'directory\nfile' "$(offers tolmdbpub check /tmp/repo --metrics-file "" | sort)"
expect "a repository after flags" directory "$(offers tolmdbpub check --quick --metrics "")"
exit $status
