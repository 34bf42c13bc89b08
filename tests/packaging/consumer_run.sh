# Sourced by the tests of both build systems. Runs the programs and checks what they say; inside the
# private root nothing but what is made here configures them.

# expect WHAT EXPECTED ACTUAL
expect() {
  if [ "$2" != "$3" ]; then
    printf '%s: expected\n%s\nbut got\n%s\n' "$1" "$2" "$3" >&2
    exit 1
  fi
}

# The programs of README.md, into /tmp/readme.
extract_programs() {
  mkdir /tmp/readme
  "$here/../support/readme_program" 1 >/tmp/readme/daemon.cpp
  "$here/../support/readme_program" 2 >/tmp/readme/plain.cpp
}

# fails_with TEXT PROGRAM: it ends with status 1 and says that.
fails_with() {
  status=0
  "$2" >/tmp/output 2>&1 || status=$?
  expect "exit status of $2" 1 "$status"
  grep -qF "$1" /tmp/output || { cat /tmp/output >&2; echo "$2 does not say: $1" >&2; exit 1; }
}

# run_programs CONSUMER READER DAEMON PLAIN
run_programs() {
  mkdir -p /usr/share/data_update /usr/tolm/etc/data_update
  # A server that is nobody's: the description cannot be had.
  cat >/usr/share/data_update/data_update.conf <<'END'
{"config": {"cur_volume": "", "download_scheme": "http", "db_netloc": "127.0.0.1:1", "db_ver": "v1"}}
END
  echo '{"x": {"format_version": "1", "install_dest": "%ROOTFS%", "auto_update": false}}' \
    >/usr/share/data_update/databases.conf
  expect "the program with nothing to do" "$(printf 'volume /volume1\nrunning 0')" "$("$1")"
  [ -d /volume1/@database/autoupdate ]
  expect "a reader without the lock file" refused "$("$2")"
  : >/run/data_update/using_x.lock
  expect "a reader" locked "$("$2")"
  echo '{"x": {"format_version": "1", "install_dest": "%ROOTFS%"}}' >/usr/share/data_update/databases.conf
  case $("$1") in
    *"error Fail on project 'x': "*) ;;
    *) echo "an error of the library did not reach the program" >&2 && exit 1 ;;
  esac
  fails_with "(the server is not reached or breaks off)" "$3"
  expect "the daemon while the server is left alone" "" "$("$3" 2>&1)"
  fails_with "Project vendors not supported" "$4"
}
