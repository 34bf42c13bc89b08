#!/bin/sh
# The same programs, built by hand with what pkg-config says.
set -eu
here=$(dirname "$0")
. "$here/consumer_run.sh"
mkdir /tmp/consumer
# Words with blanks do not occur in these variables.
# shellcheck disable=SC2046,SC2086
{
  $CXX -std=c++17 $CXXFLAGS -o /tmp/consumer/consumer "$here/consumer/main.cpp" \
    $(pkg-config --cflags --libs tolmdbud) $LDFLAGS
  $CC -std=c99 -pedantic -Werror $CFLAGS -o /tmp/consumer/reader "$here/reader/reader.c" \
    $(pkg-config --cflags --libs tolmdbud) $LDFLAGS
}
# And README's program, which reports what goes wrong here.
# shellcheck disable=SC2016
sed -n '/^```cpp$/,/^```$/{/^```/d;p}' "$here/../../README.md" >/tmp/consumer/readme.cpp
# shellcheck disable=SC2046,SC2086
$CXX -std=c++17 -Wall -Wextra -Werror $CXXFLAGS -o /tmp/consumer/readme /tmp/consumer/readme.cpp \
  $(pkg-config --cflags --libs tolmdbud) $LDFLAGS
status=0
/tmp/consumer/readme 2>/tmp/consumer/err || status=$?
expect "the status of README's program" 1 "$status"
grep -q "^vendors: File not exist: /usr/share/data_update/databases.conf$" /tmp/consumer/err ||
  { echo "README's program says:" >&2; cat /tmp/consumer/err >&2; exit 1; }
run_programs /tmp/consumer/consumer /tmp/consumer/reader
