#!/bin/bash
# measure.sh RESULT SCRIPT: runs the shell script and writes to RESULT, in one line: exit status, seconds, seconds of
# processor time in user and in system mode, and the largest resident set that any one of its processes had, in KiB.
set -u
begin=$EPOCHREALTIME
/usr/bin/time --quiet -o "$1.time" -f '%U %S %M' sh -eu "$2"
status=$?
end=$EPOCHREALTIME
echo "$status $(awk "BEGIN { printf \"%.4f\", $end - $begin }") $(cat "$1.time")" >"$1"
