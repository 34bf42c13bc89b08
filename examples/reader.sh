#!/bin/sh
# Copies a file of a database to standard output while no update replaces it.
#
#   sh reader.sh geo geo.csv
#
# Exit status: 0, or another one with a line on standard error.
set -eu

if [ $# -ne 2 ]; then
  echo 'usage: reader.sh DATABASE FILE' >&2
  exit 2
fi

# The directory is asked under the lock: another volume may have been chosen since.
exec tolmdbud lock --wait 30 "$1" -- sh -eu -c 'cat -- "$(tolmdbud directory "$1")/$2"' sh "$1" "$2"
