#!/usr/bin/env bash
# ThreadSanitizer build and run of the threaded tests: the snapshot stress
# (writer committing while readers hold snapshots) and the host's thread
# tests (writers and readers on their own connections), and saves and the
# commit log while other connections commit.  Builds with clang in
# $VELSEQ_TSAN_BUILD (default build/tsan-clang; the gcc `tsan` preset owns
# build/tsan).  VELSEQ_STRESS_COMMITS raises the number of commits.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${VELSEQ_TSAN_BUILD:-$ROOT/build/tsan-clang}
JOBS=${VELSEQ_JOBS:-2}

as_root() { if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi; }
if ! command -v clang++ >/dev/null 2>&1 ||
   ! ls /usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.tsan-x86_64.a >/dev/null 2>&1; then
    as_root apt-get update
    as_root apt-get install -y clang libclang-rt-14-dev
fi

CC=clang CXX=clang++ cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELSEQ_WERROR=ON \
    -DVELSEQ_SANITIZE=thread >/dev/null
cmake --build "$BUILD" --target velseq_reliability_tests velhost_tests velhost_durable_tests -j"$JOBS"

TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
VELSEQ_STRESS_COMMITS=${VELSEQ_STRESS_COMMITS:-2000} \
    "$BUILD/tests/reliability/velseq_reliability_tests" --gtest_filter='SnapshotStress*'
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
    "$BUILD/tests/velhost/velhost_tests" --gtest_filter='Threads*'
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
    "$BUILD/tests/velhost/velhost_durable_tests" --gtest_filter='DurableImage.*:DurableFaults.*:DurableLock.*'
echo "tsan: clean"
