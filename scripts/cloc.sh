#!/usr/bin/env bash
# Lines of code (cloc: code lines, no blanks or comments) of the tests
# against the product they test, and their ratio.  Tests: tests/, fuzz/ and
# the Python tests; product: src/, include/, tools/ and the Python package
# and bindings.  Benchmarks and examples (bench/, examples/, python/bench/,
# python/examples/) are neither.  The target is a ratio between a quarter
# and a third; with --max RATIO the script fails above RATIO (CI).
set -euo pipefail
cd "$(dirname "$0")/.."

as_root() { if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi; }
command -v cloc >/dev/null 2>&1 ||
    { as_root apt-get update -q; as_root apt-get install -y -q --no-install-recommends cloc; }

max=""
if [ "${1:-}" = --max ]; then
    max="${2:?--max needs a ratio}"
fi

existing() { for d in "$@"; do [ -e "$d" ] && echo "$d"; done; }
mapfile -t test_dirs < <(existing tests fuzz python/tests)
mapfile -t code_dirs < <(existing src include tools python)

# Code lines of the tracked files under the given folders; python/tests
# counts as tests only, Python's benchmarks and examples as neither.
count() {
    local list
    list=$(mktemp)
    git ls-files -- "$@" | { if [ "$1" = tests ]; then cat; else grep -Ev '^python/(tests|bench|examples)/'; fi; } >"$list" || true
    cloc --list-file="$list" --sum-one --quiet --csv 2>/dev/null |
        awk -F, '$2 == "SUM" { print $5 }'
    rm -f "$list"
}

tests=$(count "${test_dirs[@]}")
code=$(count "${code_dirs[@]}")
tests=${tests:-0}
code=${code:-0}
ratio=$(awk -v t="$tests" -v c="$code" 'BEGIN { printf "%.2f", c ? t / c : 0 }')
echo "tests ${tests} lines (${test_dirs[*]}) / code ${code} lines (${code_dirs[*]}) = ${ratio}"
if [ -n "$max" ] && awk -v t="$tests" -v c="$code" -v m="$max" 'BEGIN { exit !(t > m * c) }'; then
    echo "cloc.sh: tests are more than ${max} of the code" >&2
    exit 1
fi
