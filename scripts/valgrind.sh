#!/usr/bin/env bash
# Valgrind memcheck over the example program(s) and a representative test
# binary (the reliability tests' catalogue and replay), on an unsanitized
# debug build in $VELSEQ_VALGRIND_BUILD (default build/valgrind).  Fails on
# any memcheck error or definite/indirect leak.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${VELSEQ_VALGRIND_BUILD:-$ROOT/build/valgrind}
JOBS=${VELSEQ_JOBS:-2}

as_root() { if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi; }
command -v valgrind >/dev/null 2>&1 || { as_root apt-get update; as_root apt-get install -y valgrind; }

cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=Debug -DVELSEQ_WERROR=ON -DVELSEQ_SANITIZE= >/dev/null
cmake --build "$BUILD" -j"$JOBS"

VG=(valgrind --tool=memcheck --error-exitcode=99 --leak-check=full
    --errors-for-leak-kinds=definite,indirect --show-leak-kinds=definite,indirect --quiet)

ran=0
for exe in $(find "$BUILD/examples" -maxdepth 2 -type f -perm -u+x 2>/dev/null | sort); do
    echo "== memcheck: ${exe#$BUILD/}"
    "${VG[@]}" "$exe" >/dev/null
    ran=$((ran + 1))
done
[ "$ran" -gt 0 ] || echo "valgrind: no example program built (examples/ missing?)" >&2

TESTS="$BUILD/tests/reliability/velseq_reliability_tests"
echo "== memcheck: velseq_reliability_tests (catalogue, replay)"
VELSEQ_REPLAY_SEEDS=${VELSEQ_REPLAY_SEEDS:-6} \
    "${VG[@]}" "$TESTS" --gtest_filter='BadInputCatalogue*:DifferentialReplay*:AllocFailure*' \
    --gtest_brief=1
echo "valgrind: clean ($ran example program(s) and the reliability tests)"
[ "$ran" -gt 0 ]
