#!/usr/bin/env bash
# Runs every test on a build that counts, and prints how much of each component's lines and branches they reach, or of the
# components given.
#   scripts/coverage.sh [--files] [COMPONENT...]
# With --files every source has a line of its own, the least covered first.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh
files=
if [ "${1:-}" = --files ]; then
  files=1
  shift
fi
[ $# -gt 0 ] || set -- base offer operation package platform publish report sqldelta src tools vcdiff
for component in "$@"; do
  [ -d "$component" ] || { echo "scripts/coverage.sh: there is no component $component" >&2; exit 2; }
done

ensure_packages "${TOLM_PACKAGES[@]}" gcovr acl
mkdir -p build
cmake --preset debug -B build/coverage -DTOLM_TEST_BIND_RW=ON -DTOLM_BUILD_TESTS=ON -DTOLM_PRECOMPILED_HEADERS=OFF \
  -DCMAKE_CXX_FLAGS="--coverage -fprofile-update=atomic" >build/coverage-configure.log
cmake --build build/coverage -j "$(nproc)"
find build/coverage -name '*.gcda' -delete
# What programs cannot write of their counts, below a limit of files' sizes for example, they must not say to the tests. Those
# that run as another user can: a default ACL gives everybody the new files, whatever the umask is.
find build/coverage -type d -path '*/CMakeFiles/*' -exec setfacl -m o::rwx -d -m u::rwx,g::rwx,o::rwx {} +
status=0
GCOV_ERROR_FILE=/dev/null ctest --test-dir build/coverage -j "$(($(nproc) * 2 + 1))" --output-on-failure >build/coverage-tests.log || status=$?
grep -E "tests passed|^The following|^[[:space:]]+[0-9]+ - .*\(([A-Z][A-Za-z_]+)\)$" build/coverage-tests.log || true

# Branches that only an exception takes, such as running out of memory in every call, say nothing.
gcovr --root . --exclude-throw-branches --exclude-unreachable-branches -j "$(nproc)" --json build/coverage.json build/coverage
printf '%-10s %22s %22s\n' component 'lines' 'branches'
for component in "$@"; do
  gcovr --root . -a build/coverage.json --filter "$component/" --print-summary --json-summary build/coverage-summary.json >/dev/null
  python3 - "$component" <<'SUMMARY'
import json, sys
with open("build/coverage-summary.json", encoding="utf-8") as file:
    sums = json.load(file)
cells = (f"{sums[kind + '_covered']} of {sums[kind + '_total']}, {sums[kind + '_percent']:.1f} %" for kind in ("line", "branch"))
print(f"{sys.argv[1]:10} " + " ".join(f"{cell:>22}" for cell in cells))
SUMMARY
  [ -z "$files" ] || gcovr --root . -a build/coverage.json --filter "$component/" --sort-percentage
done
exit "$status"
