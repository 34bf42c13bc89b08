#!/bin/sh
# CMake projects in C++ and in plain C99 find the installed package, build with it, and their programs run.
set -eu
here=$(dirname "$0")
. "$here/consumer_run.sh"
extract_programs
for project in consumer reader; do
  cmake -G Ninja -S "$here/$project" -B "/tmp/$project" -DREADME_PROGRAMS=/tmp/readme >/tmp/log 2>&1 &&
    cmake --build "/tmp/$project" >>/tmp/log 2>&1 || {
    cat /tmp/log >&2
    exit 1
  }
done
run_programs /tmp/consumer/consumer /tmp/reader/reader /tmp/consumer/daemon /tmp/consumer/plain
