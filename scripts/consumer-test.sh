#!/usr/bin/env bash
# Builds and installs the project into a temporary prefix, moves the prefix
# (the package must be relocatable), then builds the C and C++ programs of
# tests/consumer out of tree against the installed files only: with CMake
# (find_package(velseq)) and with pkg-config (velseq.pc), each against the
# shared libraries and against the static archives, and runs all eight.
# Also checks the SONAME and symlinks of the shared libraries.
#
#   scripts/consumer-test.sh        # VELSEQ_JOBS sets the build parallelism
#
# Needs cmake, a C and a C++ compiler, pkg-config and readelf (binutils).
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${VELSEQ_CONSUMER_BUILD:-$ROOT/build/consumer}
JOBS=${VELSEQ_JOBS:-2}
SRC=$ROOT/tests/consumer
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT

fail() { echo "consumer-test: $*" >&2; exit 1; }

# A build tree given in VELSEQ_CONSUMER_BUILD (CI: the release-werror one) is
# reused as it is configured; the default one builds the libraries only.
only_libs=()
[ -n "${VELSEQ_CONSUMER_BUILD:-}" ] || only_libs=(-DVELSEQ_TESTS=OFF)
cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DVELSEQ_WERROR=ON "${only_libs[@]}" >/dev/null
cmake --build "$BUILD" -j"$JOBS" --target velseq velseq_static velhost velhost_static veltable >/dev/null
cmake --install "$BUILD" --prefix "$WORK/stage" >/dev/null
mv "$WORK/stage" "$WORK/prefix"
PREFIX=$WORK/prefix
grep -rqs --include='*.cmake' --include='*.pc' -e "$WORK/stage" -e "$ROOT" "$PREFIX" &&
    fail "installed package files name the build or staging paths"

PC=$(find "$PREFIX" -name velseq.pc -print -quit)
[ -n "$PC" ] || fail "velseq.pc not installed"
export PKG_CONFIG_PATH=$(dirname "$PC")
LIBDIR=$(realpath "$(pkg-config --variable=libdir velseq)")
VERSION=$(pkg-config --modversion velseq)
SOVERSION=${VERSION%.*}
[ "${VERSION%%.*}" = 0 ] || SOVERSION=${VERSION%%.*}
for lib in velseq velhost; do
    [ -f "$LIBDIR/lib$lib.so.$VERSION" ] && [ -f "$LIBDIR/lib$lib.a" ] ||
        fail "lib$lib.so.$VERSION or lib$lib.a missing in $LIBDIR"
    [ "$(readlink "$LIBDIR/lib$lib.so")" = "lib$lib.so.$SOVERSION" ] &&
        [ "$(readlink "$LIBDIR/lib$lib.so.$SOVERSION")" = "lib$lib.so.$VERSION" ] ||
        fail "lib$lib.so symlinks are not lib$lib.so -> .$SOVERSION -> .$VERSION"
    readelf -d "$LIBDIR/lib$lib.so.$VERSION" | grep -q "Library soname: \[lib$lib.so.$SOVERSION\]" ||
        fail "lib$lib.so.$VERSION has no SONAME lib$lib.so.$SOVERSION"
done

passed=0
# run NAME BINARY LINKAGE: runs the program and checks how it was linked.
run() {
    local needed
    needed=$(readelf -d "$2" | grep NEEDED || true)
    case $3 in
    shared) grep -q "libvelseq.so.$SOVERSION" <<<"$needed" &&
            grep -q "libvelhost.so.$SOVERSION" <<<"$needed" ||
            fail "$1 does not need libvelseq.so.$SOVERSION and libvelhost.so.$SOVERSION" ;;
    static) grep -q "libvel" <<<"$needed" && fail "$1 needs a shared velseq library" ;;
    esac
    "$2" >"$WORK/out" 2>&1 || { cat "$WORK/out" >&2; fail "$1 failed"; }
    echo "  $1: $(cat "$WORK/out")"
    passed=$((passed + 1))
}

# CMake: find_package(velseq) from the moved prefix.
for linkage in shared static; do
    static=OFF
    [ $linkage = static ] && static=ON
    B=$WORK/cmake-$linkage
    cmake -S "$SRC" -B "$B" -DCMAKE_PREFIX_PATH="$PREFIX" -DCONSUMER_STATIC=$static \
        -DCMAKE_C_FLAGS="-Wall -Wextra -Werror" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" >/dev/null
    cmake --build "$B" -j"$JOBS" >/dev/null
    run "cmake/$linkage/c" "$B/consumer_c" $linkage
    run "cmake/$linkage/c++" "$B/consumer_cxx" $linkage
done

# pkg-config: the shared libraries, then the archives pinned by name with
# the --static flags (C++ runtime, threads).
P=$WORK/pkg
mkdir -p "$P"
CFLAGS=$(pkg-config --cflags velseq)
SHARED_LIBS="$(pkg-config --libs velseq) -Wl,-rpath,$LIBDIR"
STATIC_LIBS=$(pkg-config --static --libs velseq |
    sed -e 's/-lvelseq\b/-l:libvelseq.a/' -e 's/-lvelhost\b/-l:libvelhost.a/')
W="-Wall -Wextra -Werror"
# shellcheck disable=SC2086 # the flags are word lists
{
    cc -std=c11 $W $CFLAGS "$SRC/consumer.c" -o "$P/c-shared" $SHARED_LIBS
    c++ -std=c++17 $W $CFLAGS "$SRC/consumer.cpp" -o "$P/cxx-shared" $SHARED_LIBS
    cc -std=c11 $W $CFLAGS "$SRC/consumer.c" -o "$P/c-static" $STATIC_LIBS
    c++ -std=c++17 $W $CFLAGS "$SRC/consumer.cpp" -o "$P/cxx-static" $STATIC_LIBS
}
run pkg-config/shared/c "$P/c-shared" shared
run pkg-config/shared/c++ "$P/cxx-shared" shared
run pkg-config/static/c "$P/c-static" static
run pkg-config/static/c++ "$P/cxx-static" static

echo "consumer-test: $passed passed, 0 failed"
