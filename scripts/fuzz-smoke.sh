#!/usr/bin/env bash
# Bounded run of the differential libFuzzer target (velseq_fuzz_ops).
#
#   scripts/fuzz-smoke.sh                   # about one minute (CI)
#   VELSEQ_FUZZ_SECONDS=3600 scripts/fuzz-smoke.sh   # long run
#
# Then the image loader target (velhost_fuzz_image) for
# $VELSEQ_FUZZ_IMAGE_SECONDS (default 30) from fuzz/corpus-image.
#
# Builds with clang, ASan+UBSan and libFuzzer into $VELSEQ_FUZZ_BUILD
# (default build/fuzz), starts from the seed corpus in fuzz/corpus (never
# modified; new inputs go to a scratch directory) and fails on any mismatch,
# sanitizer report, crash or timeout.  Crash inputs land in $BUILD/artifacts.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
SECS=${VELSEQ_FUZZ_SECONDS:-60}
BUILD=${VELSEQ_FUZZ_BUILD:-$ROOT/build/fuzz}
JOBS=${VELSEQ_JOBS:-2}

as_root() { if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi; }
if ! command -v clang++ >/dev/null 2>&1 ||
   ! ls /usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a >/dev/null 2>&1; then
    as_root apt-get update
    as_root apt-get install -y clang libclang-rt-14-dev
fi

CC=clang CXX=clang++ cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELSEQ_WERROR=ON \
    -DVELSEQ_FUZZ=ON -DVELSEQ_TESTS=OFF -DVELSEQ_SANITIZE=address,undefined \
    -DCMAKE_C_FLAGS=-fsanitize=fuzzer-no-link -DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link >/dev/null
cmake --build "$BUILD" --target velseq_fuzz_ops velhost_fuzz_image -j"$JOBS"

WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
mkdir -p "$BUILD/artifacts"
LOG="$BUILD/fuzz-smoke.log"
set +e
UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 ASAN_OPTIONS=detect_leaks=1 \
    "$BUILD/fuzz/velseq_fuzz_ops" -max_total_time="$SECS" -max_len=4096 -timeout=30 \
    -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$BUILD/artifacts/" \
    "$WORK" "$ROOT/fuzz/corpus" 2>&1 | tee "$LOG" | grep -E 'DONE|INITED|MISMATCH|ERROR|velseq-fuzz|stat::' 
rc=${PIPESTATUS[0]}
set -e
if [ "$rc" -ne 0 ]; then
    echo "fuzz-smoke: FAILED (exit $rc); see $LOG and $BUILD/artifacts" >&2
    tail -40 "$LOG" >&2
    exit "$rc"
fi
echo "fuzz-smoke: passed ($SECS s); new corpus entries: $(ls "$WORK" | wc -l)"

ISECS=${VELSEQ_FUZZ_IMAGE_SECONDS:-30}
IWORK=$(mktemp -d)
trap 'rm -rf "$WORK" "$IWORK"' EXIT
ILOG="$BUILD/fuzz-image.log"
set +e
UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 ASAN_OPTIONS=detect_leaks=1 \
    "$BUILD/fuzz/velhost_fuzz_image" -max_total_time="$ISECS" -max_len=16384 -timeout=30 \
    -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$BUILD/artifacts/image-" \
    "$IWORK" "$ROOT/fuzz/corpus-image" 2>&1 | tee "$ILOG" | grep -E 'DONE|INITED|ERROR|loaded a bad|stat::'
rc=${PIPESTATUS[0]}
set -e
if [ "$rc" -ne 0 ]; then
    echo "fuzz-smoke: image loader FAILED (exit $rc); see $ILOG and $BUILD/artifacts" >&2
    tail -40 "$ILOG" >&2
    exit "$rc"
fi
echo "fuzz-smoke: image loader passed ($ISECS s); new corpus entries: $(ls "$IWORK" | wc -l)"
