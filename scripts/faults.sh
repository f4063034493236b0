#!/usr/bin/env bash
# Fault catalogue runner (opt-in, not part of ./test.sh or CI's default run).
#
#   scripts/faults.sh [--full] [PATTERN...]
#
# Copies the worktree (tracked and untracked files, not build/ or .git) into a
# scratch tree, builds the test programs there once (the Python package and
# its tests included), checks that they pass,
# then for each faults/*.patch whose name contains one of the PATTERNs (all
# when none is given): applies it, rebuilds incrementally (one build
# directory, reused), runs the test programs and reverts the patch.  A fault
# is caught when a test fails, a test program crashes or it runs past
# FAULTS_TIMEOUT seconds.  By default the programs run fastest first and the
# run of a fault stops at the first program that catches it; --full runs them
# all, which names every catching test (use it to find tests with no unique
# catch).  Prints per fault "caught" or "MISSED" and the catching tests, then
# the score and a per-area table (the area is the patch name's first word).
#
# Environment: FAULTS_WORK (scratch directory, default
# /tmp/velseq-faults-$UID), FAULTS_TIMEOUT (seconds per test program, default
# 60), JOBS (build parallelism, default 2), FAULTS_FIRST and FAULTS_LAST
# (program names to run before and after the others, in the order given: put
# the suite's core first and a candidate for removal last, and its catches
# that nothing else makes are exactly the faults it is named for), FAULTS_ONLY
# (the only programs to run and build; with --full, a map of what each of
# their tests catches).  A test that ctest runs through an interpreter is
# named ctest:NAME there (the Python tests: ctest:python_pytest); with one
# named, everything is built.  A patch that does not apply or
# does not build is reported as BROKEN and counts as neither.
set -uo pipefail
ROOT="$(cd "$(dirname "$0")/.." && pwd)"
WORK="${FAULTS_WORK:-/tmp/velseq-faults-$(id -u)}"
TIMEOUT="${FAULTS_TIMEOUT:-60}"
JOBS="${JOBS:-2}"
FULL=0
patterns=()
for a in "$@"; do
    case "$a" in
    --full) FULL=1 ;;
    -h | --help)
        sed -n '2,29p' "$0"
        exit 0
        ;;
    *) patterns+=("$a") ;;
    esac
done

SRC="$WORK/tree"
BUILD="$WORK/build"
LOGS="$WORK/logs"
mkdir -p "$SRC" "$BUILD" "$LOGS"

# Mirror the worktree, copying only files whose content changed so that the
# incremental build stays incremental.
sync_tree() {
    local list="$WORK/files.txt"
    (cd "$ROOT" && git ls-files -co --exclude-standard | grep -v '^build/' | grep -v '^faults/' |
        sort) >"$list"
    while IFS= read -r f; do
        [ -f "$ROOT/$f" ] || continue
        if ! cmp -s "$ROOT/$f" "$SRC/$f"; then
            mkdir -p "$(dirname "$SRC/$f")"
            cp "$ROOT/$f" "$SRC/$f" # a new mtime: make must rebuild
        fi
    done <"$list"
    (cd "$SRC" && find . -type f | sed 's|^\./||' | sort) | comm -23 - "$list" |
        while IFS= read -r f; do rm -f "$SRC/$f"; done
}

# DuckDB's library, which the Arrow and Parquet tests load from the source
# tree's build/duckdb (scripts/fetch-duckdb.sh): the scratch tree points
# there, so that those tests run instead of skipping (made again each run:
# a scratch tree reused from another worktree may point at a removed one).
link_duckdb() {
    if [ -d "$ROOT/build/duckdb" ]; then
        mkdir -p "$SRC/build"
        ln -sfn "$ROOT/build/duckdb" "$SRC/build/duckdb"
    fi
}

build() {
    cmake --build "$BUILD" -j "$JOBS" --target "${TARGETS[@]}" >"$1" 2>&1
}

# Runs one test program; prints the failing tests (or "<program> crashed" /
# "<program> timed out") on stdout.
run_program() {
    local bin="$1" log="$2" rc
    if [[ "$bin" == ctest:* ]]; then # a test of an interpreter: run as ctest runs it
        timeout -k 5 "$TIMEOUT" ctest --test-dir "$BUILD" -R "^${bin#ctest:}\$" \
            --output-on-failure >"$log" 2>&1
        rc=$?
        [ "$rc" -ne 0 ] && echo "${bin#ctest:}(exit $rc)"
        return 0
    fi
    local args=()
    [ -n "${ARGS[$bin]:-}" ] && IFS=$'\t' read -r -a args <<<"${ARGS[$bin]}"
    [ -n "${GTEST[$bin]:-}" ] && args=(--gtest_brief=1)
    (cd "$(dirname "$bin")" && timeout -k 5 "$TIMEOUT" "$bin" "${args[@]}") >"$log" 2>&1
    rc=$?
    local failed
    failed=$(sed -n 's/^\[  FAILED  \] \([^ ,]*\).*/\1/p' "$log" | grep -v '^[0-9]' | sort -u)
    if [ -n "$failed" ]; then
        echo "$failed"
    elif [ "$rc" -eq 124 ] || [ "$rc" -eq 137 ]; then
        echo "$(basename "$bin")(timeout)"
    elif [ "$rc" -ne 0 ]; then
        echo "$(basename "$bin")(exit $rc)"
    fi
}

echo "faults.sh: scratch tree $SRC"
sync_tree
link_duckdb
# A run interrupted with a patch applied: its files were restored by the
# sync, but their objects may be newer than them.
if [ -f "$WORK/applied" ]; then
    sed -n 's|^+++ b/\([^\t]*\).*|\1|p' "$(cat "$WORK/applied")" | while IFS= read -r f; do
        [ -f "$SRC/$f" ] && touch "$SRC/$f"
    done
    rm -f "$WORK/applied"
fi
# Debug without debug information: the same checks, faster links.  No
# link-time optimisation: pybind11 asks for it outside a Debug build, and
# it would compile the Python binding's sources again at every relink (the
# better part of a fault's build before).
cmake -S "$SRC" -B "$BUILD" -DCMAKE_BUILD_TYPE= -DCMAKE_INTERPROCEDURAL_OPTIMIZATION=OFF \
    -DVELSEQ_TESTS=ON -DVELSEQ_PYTHON=ON \
    >"$LOGS/configure.log" 2>&1 || {
    cat "$LOGS/configure.log"
    exit 1
}
# The test programs ctest knows (their targets have the same names), each
# marked "gtest" when ctest runs it with a filter, or "plain" followed by
# the arguments ctest gives it (tab-separated); a test whose command lies
# outside the build tree (python3 running pytest or an example) is marked
# "ctest" and run through ctest, with the environment ctest gives it.
list_programs() {
    (cd "$BUILD" && ctest -N --show-only=json-v1 2>/dev/null) | python3 -c '
import json, sys
progs = {}
for t in json.load(sys.stdin).get("tests", []):
    cmd = t.get("command") or []
    if cmd and not cmd[0].startswith(sys.argv[1] + "/"):
        print("ctest\tctest:" + t["name"])  # an interpreter running a script
    elif cmd:
        g = any(a.startswith("--gtest_filter") for a in cmd[1:])
        kind, args = progs.get(cmd[0], (False, []))
        progs[cmd[0]] = (kind or g, [] if (kind or g) else cmd[1:])
for p, (g, args) in sorted(progs.items()):
    print("\t".join(["gtest" if g else "plain", p] + args))' "$BUILD"
}
mapfile -t PROGRAMS < <(list_programs)
if [ ${#PROGRAMS[@]} -eq 0 ] || ! grep -q '^gtest' <(printf '%s\n' "${PROGRAMS[@]}"); then
    # Discovered tests are listed only once the programs exist: build all.
    cmake --build "$BUILD" -j "$JOBS" >"$LOGS/build-base.log" 2>&1 || {
        tail -30 "$LOGS/build-base.log"
        exit 1
    }
    mapfile -t PROGRAMS < <(list_programs)
fi
# FAULTS_ONLY: run these programs alone (a catch map of the tests being cut).
if [ -n "${FAULTS_ONLY:-}" ]; then
    kept=()
    for line in "${PROGRAMS[@]}"; do
        IFS=$'\t' read -r -a parts <<<"$line"
        for n in $FAULTS_ONLY; do [ "$n" = "$(basename "${parts[1]}")" ] && kept+=("$line"); done
    done
    if [ ${#kept[@]} -eq 0 ]; then
        echo "faults.sh: FAULTS_ONLY names no test program ($FAULTS_ONLY)" >&2
        exit 2
    fi
    PROGRAMS=("${kept[@]}")
fi
declare -A GTEST ARGS
for i in "${!PROGRAMS[@]}"; do
    IFS=$'\t' read -r -a parts <<<"${PROGRAMS[$i]}"
    p=${parts[1]}
    [ "${parts[0]}" = gtest ] && GTEST[$p]=1
    [ ${#parts[@]} -gt 2 ] && ARGS[$p]=$(printf '%s\t' "${parts[@]:2}")
    PROGRAMS[$i]=$p
done
TARGETS=()
for p in "${PROGRAMS[@]}"; do
    case "$p" in
    ctest:*) TARGETS=(all) && break ;; # the scripts' modules: build everything
    *) TARGETS+=("$(basename "$p")") ;;
    esac
done
echo "faults.sh: test programs: ${TARGETS[*]}"
build "$LOGS/build-base.log" || {
    tail -30 "$LOGS/build-base.log"
    exit 1
}

# Baseline: every program passes; order them by running time.
declare -A SECS
for p in "${PROGRAMS[@]}"; do
    s=$(date +%s%N)
    out=$(run_program "$p" "$LOGS/base-$(basename "$p").log")
    SECS[$p]=$((($(date +%s%N) - s) / 1000000))
    if [ -n "$out" ]; then
        echo "faults.sh: the unpatched tree fails: $out" >&2
        exit 1
    fi
done
rank() { # 0 for FAULTS_FIRST (by position), 2 for FAULTS_LAST, 1 otherwise
    local b i=0 n
    b=$(basename "$1")
    for n in ${FAULTS_FIRST:-}; do
        [ "$n" = "$b" ] && { printf '0 %03d' $i; return; }
        i=$((i + 1))
    done
    for n in ${FAULTS_LAST:-}; do
        [ "$n" = "$b" ] && { printf '2 %03d' $i; return; }
        i=$((i + 1))
    done
    printf '1 000'
}
mapfile -t PROGRAMS < <(for p in "${PROGRAMS[@]}"; do echo "$(rank "$p") ${SECS[$p]} $p"; done |
    sort -k1,1n -k2,2n -k3,3n | cut -d' ' -f4)
echo "faults.sh: baseline green ($(for p in "${PROGRAMS[@]}"; do printf '%s %d ms; ' "$(basename "$p")" "${SECS[$p]}"; done))"

declare -A AREA_N AREA_C
n=0
caught=0
missed=()
broken=()
results="$WORK/results.txt"
: >"$results"
for patch in "$ROOT"/faults/*.patch; do
    name=$(basename "$patch" .patch)
    if [ ${#patterns[@]} -gt 0 ]; then
        hit=0
        for pat in "${patterns[@]}"; do [[ "$name" == *"$pat"* ]] && hit=1; done
        [ $hit -eq 1 ] || continue
    fi
    area=${name%%-*}
    echo "$patch" >"$WORK/applied"
    if ! (cd "$SRC" && patch -p1 -s -N <"$patch" >"$LOGS/$name.patch.log" 2>&1); then
        (cd "$SRC" && patch -p1 -s -R -f <"$patch" >/dev/null 2>&1)
        rm -f "$WORK/applied"
        broken+=("$name")
        printf '%-52s BROKEN (does not apply)\n' "$name" | tee -a "$results"
        continue
    fi
    if ! build "$LOGS/$name.build.log"; then
        (cd "$SRC" && patch -p1 -s -R <"$patch")
        rm -f "$WORK/applied"
        broken+=("$name")
        printf '%-52s BROKEN (does not build, see %s)\n' "$name" "$LOGS/$name.build.log" | tee -a "$results"
        continue
    fi
    by=()
    for p in "${PROGRAMS[@]}"; do
        mapfile -t f < <(run_program "$p" "$LOGS/$name.$(basename "$p").log")
        [ ${#f[@]} -gt 0 ] && [ -n "${f[0]}" ] && by+=("${f[@]}")
        [ $FULL -eq 0 ] && [ ${#by[@]} -gt 0 ] && break
    done
    (cd "$SRC" && patch -p1 -s -R <"$patch")
    rm -f "$WORK/applied"
    n=$((n + 1))
    AREA_N[$area]=$((${AREA_N[$area]:-0} + 1))
    if [ ${#by[@]} -gt 0 ]; then
        caught=$((caught + 1))
        AREA_C[$area]=$((${AREA_C[$area]:-0} + 1))
        printf '%-52s caught by %s\n' "$name" "${by[*]}" | tee -a "$results"
    else
        missed+=("$name")
        printf '%-52s MISSED\n' "$name" | tee -a "$results"
    fi
done
# Leave the scratch build matching the unpatched tree for the next run.
build "$LOGS/build-base.log" >/dev/null 2>&1

{
    echo
    echo "score: $caught of $n faults caught${broken:+, ${#broken[@]} broken}"
    printf '%-10s %6s %6s\n' area faults caught
    for a in $(printf '%s\n' "${!AREA_N[@]}" | sort); do
        printf '%-10s %6d %6d\n' "$a" "${AREA_N[$a]}" "${AREA_C[$a]:-0}"
    done
    [ ${#missed[@]} -gt 0 ] && echo "missed: ${missed[*]}"
    [ ${#broken[@]} -gt 0 ] && echo "broken: ${broken[*]}"
} | tee -a "$results"
[ ${#missed[@]} -eq 0 ] && [ ${#broken[@]} -eq 0 ]
