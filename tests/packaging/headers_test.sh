#!/bin/sh
# Every installed header can be included alone: all of them in C++17, those in plain C in C99 as well.
set -eu
cd /usr/include
count=0
for header in dataupdate/*.h operation/*.h tolm/*.h; do
  # shellcheck disable=SC2046
  printf '#include <%s>\n' "$header" |
    $CXX -std=c++17 -Wall -Wextra -pedantic -Werror -fsyntax-only $(pkg-config --cflags jsoncpp) -x c++ - ||
    { echo "$header is not complete in C++" >&2; exit 1; }
  count=$((count + 1))
done
for header in dataupdate/project_lock.h dataupdate/export.h operation/export.h tolm/*.h; do
  printf '#include <%s>\nint unused;\n' "$header" |
    $CC -std=c99 -Wall -Wextra -pedantic -Werror -fsyntax-only -x c - ||
    { echo "$header is not C99" >&2; exit 1; }
done
[ "$count" -ge 32 ] || { echo "only $count headers are installed" >&2; exit 1; }
