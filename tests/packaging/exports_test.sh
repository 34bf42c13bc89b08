#!/bin/sh
# The installed library exports what is in tolm::dataupdate and two plain functions, and nothing else.
set -eu
library=$(find /usr/lib /usr/lib64 -name libtolmdbud.so.1 2>/dev/null | head -n 1)
[ -n "$library" ] || { echo "libtolmdbud.so.1 is not installed" >&2; exit 1; }

nm -D --defined-only "$library" | sed 's/^[0-9a-f]* *. //' >/tmp/mangled
c++filt </tmp/mangled >/tmp/exported
grep -E '^(TOLM|TLIB)' /tmp/mangled | sort >/tmp/plain
printf '%s\n' TOLMDBUDGetFileLock TOLMDBUDReleaseFileLock | diff - /tmp/plain >&2 || {
  echo "these are not the two plain functions" >&2
  exit 1
}
status=0
grep -vE '^((non-virtual thunk to |vtable for |typeinfo for |typeinfo name for )?tolm::dataupdate::|TOLMDBUD(Get|Release)FileLock$)' \
  /tmp/exported >/tmp/foreign || true
if grep -vE '^__(asan|ubsan|tsan|odr_asan)' /tmp/foreign >&2; then
  echo "these are nobody else's business" >&2
  status=1
fi

# Each class of the public headers can be used and derived from.
for class in Config DatabaseConfig ServiceConfig UpdateError IOUtils UpdateHook BaseStrategy FullStrategy \
  ForceInstallByLink DiffStrategy Fixer Updater VolumeHandler InfoGetter Update Checker; do
  for what in vtable typeinfo; do
    grep -qx "$what for tolm::dataupdate::$class" /tmp/exported || {
      echo "the $what of $class is missing" >&2
      status=1
    }
  done
done
grep -qx 'tolm::dataupdate::InitService()' /tmp/exported || { echo "InitService is missing" >&2; status=1; }
exit $status
