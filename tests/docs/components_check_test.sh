#!/bin/sh
# components_check_test.sh CHECK
# The check of the components fails where it must.
set -eu
check=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/docs" "$work/low" "$work/high" "$work/include/face"
cat >"$work/docs/architecture.md" <<'END'
| component | what it is | knows |
|---|---|---|
| `low/` | the ground | |
| `include/face/` | what others see | |
| `high/` | stands on it, see `low/` | `low/`, `include/face/` |
END
: >"$work/low/ground.h"
: >"$work/include/face/face.h"
printf '#include "low/ground.h"\n#include <face/face.h>\n#include "beside.h"\n' >"$work/high/high.cpp"
: >"$work/high/beside.h"

expect() {  # STATUS TEXT
  status=0
  sh "$check" "$work" >"$work/said" 2>&1 || status=$?
  if [ "$status" -ne "$1" ] || ! grep -q "$2" "$work/said"; then
    echo "expected status $1 and \"$2\", saw $status and:" >&2
    cat "$work/said" >&2
    exit 1
  fi
}

expect 0 '4 sources, 3 components, 2 arrows'
echo '#include "high/beside.h"' >"$work/low/ground.h"
expect 1 'low includes high'
: >"$work/low/ground.h"
sed -i '/ground/d' "$work/high/high.cpp"
expect 1 'high includes nothing of low'
echo '#include "low/ground.h"' >>"$work/high/high.cpp"
mkdir "$work/lost"
: >"$work/lost/lost.h"
expect 1 '^lost/lost.h'
