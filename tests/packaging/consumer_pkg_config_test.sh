#!/bin/sh
# The same programs, built by hand with what pkg-config says.
set -eu
here=$(dirname "$0")
. "$here/consumer_run.sh"
mkdir /tmp/consumer
extract_programs
# Words with blanks do not occur in these variables.
# shellcheck disable=SC2046,SC2086
{
  $CXX -std=c++17 $CXXFLAGS -o /tmp/consumer/consumer "$here/consumer/main.cpp" \
    $(pkg-config --cflags --libs tolmdbud) $LDFLAGS
  $CXX -std=c++17 $CXXFLAGS -o /tmp/consumer/daemon /tmp/readme/daemon.cpp \
    $(pkg-config --cflags --libs tolmoperation) $LDFLAGS
  $CXX -std=c++17 $CXXFLAGS -o /tmp/consumer/plain /tmp/readme/plain.cpp \
    $(pkg-config --cflags --libs tolmdbud) $LDFLAGS
  $CC -std=c99 -pedantic -Werror $CFLAGS -o /tmp/consumer/reader "$here/reader/reader.c" \
    $(pkg-config --cflags --libs tolmdbud) $LDFLAGS
}
run_programs /tmp/consumer/consumer /tmp/consumer/reader /tmp/consumer/daemon /tmp/consumer/plain
