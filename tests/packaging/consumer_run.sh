# Sourced by the tests of both build systems. Runs the two programs and checks what they say; inside the
# private root nothing but what is made here configures them.

# expect WHAT EXPECTED ACTUAL
expect() {
  if [ "$2" != "$3" ]; then
    printf '%s: expected\n%s\nbut got\n%s\n' "$1" "$2" "$3" >&2
    exit 1
  fi
}

# run_programs CONSUMER READER
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
}
