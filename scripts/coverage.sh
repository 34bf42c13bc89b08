#!/usr/bin/env bash
# Runs every test on a build that counts, and prints the line and branch coverage of the library, or of
# the directories given.
#   scripts/coverage.sh [DIRECTORY...]
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh
[ $# -gt 0 ] || set -- src

ensure_packages "${TOLM_PACKAGES[@]}" gcovr
cmake --preset debug -B build/coverage -DTOLM_TEST_BIND_RW=ON -DTOLM_PRECOMPILED_HEADERS=OFF -DCMAKE_CXX_FLAGS="--coverage -fprofile-update=atomic" \
  >build/coverage-configure.log
cmake --build build/coverage -j "$(nproc)"
find build/coverage -name '*.gcda' -delete
# Programs that run as another user cannot write their counts, and must not say so to the tests.
GCOV_ERROR_FILE=/dev/null ctest --test-dir build/coverage -j "$(nproc)" --output-on-failure

filters=()
for directory in "$@"; do
  filters+=(--filter "$directory/")
done
# Branches that only an exception takes, such as running out of memory in every call, say nothing.
gcovr --root . "${filters[@]}" --exclude-throw-branches --exclude-unreachable-branches --sort-uncovered \
  --print-summary build/coverage
