#!/bin/bash
# The tour of ./quickstart; runs inside the private root, where every path of the system is its own.
#   tour.sh DIRECTORY-OF-THE-TEST-PROGRAMS
set -u

programs=$1
name=vendors
work=/tmp/publisher
repo=$work/repository
log=$work/requests.log
installed=/volume1/@database/autoupdate/$name
failures=0

say() { printf '\n-- %s\n' "$*"; }
note() { printf '   %s\n' "$*"; }

# check TEXT COMMAND...: counts a failure unless the command succeeds.
check() {
  local text=$1
  shift
  if "$@"; then
    note "ok: $text"
  else
    note "WRONG: $text"
    failures=$((failures + 1))
  fi
}

need() {
  "$@" || { echo "cannot go on: $* failed" >&2; exit 1; }
}

wait_for() {  # TEXT COMMAND...: until the command succeeds
  local text=$1 tries
  shift
  for tries in $(seq 600); do
    "$@" 2>/dev/null && return
    sleep 0.05
  done
  echo "cannot go on: waited in vain until $text" >&2
  exit 1
}

# What the server sent since the last call, in bytes.
bytes_served() { awk '{ sum += $4 } END { printf "%d", sum }' "$log" 2>/dev/null; }

# timed COMMAND...: runs it, then says what it cost.
timed() {
  local bytes seconds status
  : >"$log"
  seconds=$EPOCHREALTIME
  "$@" 2>&1 | sed 's/^/   /'
  status=${PIPESTATUS[0]}
  seconds=$(awk "BEGIN { printf \"%.2f\", $EPOCHREALTIME - $seconds }")
  sleep 0.2  # the server notes a request once its last byte is sent
  bytes=$(bytes_served)
  note "cost: $bytes bytes downloaded, $seconds s"
  return "$status"
}

ends_with() {  # STATUS COMMAND...: the command ends with that exit status
  local expected=$1
  shift
  timed "$@"
  [ $? -eq "$expected" ]
}

files_are() {  # VERSION: the installed files are those of the version, SQLite by content
  local expected=$work/v$1
  diff <(cd "$expected" && find . -type f | sort) <(cd "$installed" && find . -type f | sort) &&
    diff <(sqlite3 "$expected/vendors.db" .dump) <(sqlite3 "$installed/vendors.db" .dump) &&
    diff -r --exclude=vendors.db "$expected" "$installed"
}

version_is() { grep -q "\"data_version\" : \"$1\"" /var/lib/data_update/$name/version.json; }
no_leftovers() { [ ! -e /volume1/@tmp/data_update ]; }

# release VERSION [OPTION...]: the publisher releases the directory of that version, and the device forgets its cached
# description, which it would use for an hour.
release() {
  local version=$1
  shift
  tolmdbpub release "$repo" $name "$work/v$version" "$@" >"$work/table" 2>&1 ||
    { cat "$work/table"; echo "cannot go on: the release failed" >&2; exit 1; }
  sed 's/^/   /' "$work/table"
  rm -f /var/cache/data_update/database_info.json
}

next_version() {  # FROM TO: version TO as a copy of FROM, to be changed
  cp -a "$work/v$1" "$work/v$2"
}

change_binary() {  # VERSION SEED: some places of the binary file differ
  local at
  for at in 100000 3000000 6500000; do
    printf 'version %s at %s' "$1" "$at" |
      dd of="$work/v$1/blob.bin" bs=1 seek=$((at + $2)) conv=notrunc status=none
  done
}

change_sqlite() {  # VERSION SQL
  need sqlite3 "$work/v$1/vendors.db" "$2"
}

say "The publisher makes keys and a repository, and a server on loopback serves its public part"
mkdir -p "$work"
need tolmdbpub keygen "$work/keys" --no-passphrase
need tolmdbpub init "$repo" --base-url http://127.0.0.1:1 \
  --key "$work/keys/signing.key" --cert "$work/keys/signing.pem"
"$programs/tolm-test-server" "$repo/public" --port-file "$work/port" --log "$log" >/dev/null &
server=$!
trap 'kill $server 2>/dev/null' EXIT
wait_for "the server listens" [ -s "$work/port" ]
base_url=http://127.0.0.1:$(cat "$work/port")
need tolmdbpub set "$repo" --base-url "$base_url"
note "$base_url"

say "It releases a first version of the database '$name'"
first=$work/v1000001
mkdir -p "$first/maps"
head -c 8000000 /dev/urandom >"$first/blob.bin"
echo "Vendor table, a sample" >"$first/README.txt"
echo "north" >"$first/maps/region.txt"
need sqlite3 "$first/vendors.db" "CREATE TABLE vendor (prefix TEXT PRIMARY KEY, name TEXT);
  WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 5000)
  INSERT INTO vendor SELECT printf('%06x', i), 'Vendor ' || i FROM n;"
release 1000001

say "A device that follows the repository and trusts the publisher's root"
need tolmdbpub install-config "$repo" /

say "The service starts: a volume is chosen, readers can lock"
check "tolmdbud init" timed tolmdbud init
check "the databases live on /volume1" [ -d /volume1/@database/autoupdate ]

say "First installation: 1000001 in full"
check "tolmdbud update $name" timed tolmdbud update $name
check "version.json says 1000001" version_is 1000001
check "the files are those of 1000001" files_are 1000001
check "no temporary data is left" no_leftovers

say "1000002 and 1000003 are released: changed, created and deleted files"
next_version 1000001 1000002
change_binary 1000002 1
change_sqlite 1000002 "UPDATE vendor SET name = 'Renamed' WHERE prefix = '000001';
  INSERT INTO vendor VALUES ('ffffff', 'New one');"
echo "south" >"$work/v1000002/maps/south.txt"
release 1000002
next_version 1000002 1000003
change_binary 1000003 2
change_sqlite 1000003 "DELETE FROM vendor WHERE prefix = '000002';"
rm "$work/v1000003/README.txt"
release 1000003
check "tolmdbpub check: all is signed, and every chain of deltas leads to 1000003" timed tolmdbpub check "$repo"

say "Two deltas lead from 1000001 to 1000003"
check "tolmdbud check: an update is offered" ends_with 10 tolmdbud check "$name"
check "tolmdbud update $name" timed tolmdbud update $name
check "only deltas were downloaded" bash -c "! grep -q ${name}_v $log && grep -q ${name}_d1000003 $log"
check "version.json says 1000003" version_is 1000003
check "the files are those of 1000003, SQLite by content" files_are 1000003
check "no temporary data is left" no_leftovers

say "Damage: one byte of blob.bin is overwritten"
printf 'X' | dd of="$installed/blob.bin" bs=1 seek=4000000 conv=notrunc status=none
check "the installation is damaged" bash -c "! cmp -s $installed/blob.bin $work/v1000003/blob.bin"
check "tolmdbud verify names the damaged file" ends_with 11 tolmdbud verify "$name"
check "tolmdbud fix $name" timed tolmdbud fix $name
check "the files are those of 1000003 again" files_are 1000003
check "tolmdbud verify --package compares all files with the signed package" timed tolmdbud verify --package $name
check "a second fix finds nothing to do" timed tolmdbud fix $name

say "1000004 is released while another program reads the database under the shared lock"
next_version 1000003 1000004
change_binary 1000004 3
release 1000004
mkfifo "$work/release"
tolmdbud lock "$name" -- \
  bash -c "cd $installed && touch $work/reading && sha256sum blob.bin; read -r _ <$work/release; sha256sum blob.bin" \
  >"$work/read" &
reader=$!
wait_for "the reader has the lock" [ -e "$work/reading" ]
(wait_for "the delta is downloaded" grep -q "${name}_d1000004" "$log"
 sleep 1
 cmp -s "$installed/blob.bin" "$work/v1000003/blob.bin" && touch "$work/kept"
 echo >"$work/release") &
check "tolmdbud update $name, ended after the reader" timed tolmdbud update $name
wait $reader
check "while the reader held the lock, the old files stayed" [ -e "$work/kept" ]
check "the reader saw the same content twice" \
  [ "$(sort -u "$work/read" | wc -l)" -eq 1 ]
check "the files are those of 1000004" files_are 1000004

say "A step back: the version before the newest is force-installed, and then updated again"
check "tolmdbud force-install $name --version -1" timed tolmdbud force-install $name --version -1
check "version.json says 1000003" version_is 1000003
check "the files are those of 1000003" files_are 1000003
check "tolmdbud update $name" timed tolmdbud update $name
check "the files are those of 1000004 again" files_are 1000004
check "no temporary data is left" no_leftovers

say "1000006 is released without a 1000005, so no delta leads there; its update is killed half-way and ends right"
next_version 1000004 1000006
change_binary 1000006 4
release 1000006 --version 1000006
tolmdbud lock "$name" -- bash -c "touch $work/reading_again; read -r _ <$work/release" &
reader=$!
wait_for "the reader has the lock" [ -e "$work/reading_again" ]
tolmdbud update $name &
killed=$!
wait_for "the package is unpacked" [ -e "/volume1/@tmp/data_update/${name}_full/vendors.db" ]
kill -KILL $killed
wait $killed 2>/dev/null
echo >"$work/release"
wait $reader
check "it left temporary data" [ -d /volume1/@tmp/data_update ]
check "tolmdbud busy says that nothing runs" timed tolmdbud busy
check "tolmdbud update $name" timed tolmdbud update $name
check "the files are those of 1000006" files_are 1000006
check "no temporary data is left" no_leftovers

say "The volume goes away; the databases move to another one"
check "tolmdbud volume unmounting /volume1" timed tolmdbud volume unmounting /volume1
installed=/volume2/@database/autoupdate/$name
check "the files are on /volume2, unchanged" files_are 1000006
check "tolmdbud fix $name finds nothing to do" timed tolmdbud fix $name

say "Old releases go"
check "tolmdbpub prune --keep 2" timed tolmdbpub prune "$repo" $name --keep 2 --grace 0
check "tolmdbpub check" timed tolmdbpub check "$repo"

say "Final status"
tolmdbud status | sed 's/^/   /'
check "the tool reports it up to date" bash -c "tolmdbud status | grep -q 'up to date'"

echo
if [ "$failures" -eq 0 ]; then
  echo "Everything held."
else
  echo "$failures checks failed."
  exit 1
fi
