#!/usr/bin/env bash
# Installs what the build needs (Debian), then configures, builds and runs
# every test of the debug preset.  Safe to run again: nothing is installed
# twice.  JOBS overrides the build parallelism (default: number of CPUs).
set -euo pipefail
cd "$(dirname "$0")"

PACKAGES=(cmake make g++ googletest libgtest-dev pkg-config libxxhash-dev libcli11-dev
          # the Python package (VELSEQ_PYTHON): its build, tests and example
          python3-dev python3-pybind11 pybind11-dev python3-numpy python3-pandas
          python3-pytest python3-matplotlib)

missing=()
for p in "${PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done

if [ ${#missing[@]} -gt 0 ]; then
    echo "test.sh: installing ${missing[*]}"
    if [ "$(id -u)" -eq 0 ]; then
        as_root=()
    elif command -v sudo >/dev/null 2>&1; then
        as_root=(sudo)
    else
        echo "test.sh: missing packages ${missing[*]}; run as root or install sudo" >&2
        exit 1
    fi
    export DEBIAN_FRONTEND=noninteractive
    "${as_root[@]}" apt-get update -q
    "${as_root[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

# DuckDB's library, the independent reader of the Arrow and Parquet tests
# (they say they are skipped when it cannot be fetched).
scripts/fetch-duckdb.sh || echo "test.sh: DuckDB could not be fetched: its tests will be skipped" >&2

JOBS="${JOBS:-$(nproc 2>/dev/null || echo 2)}"
cmake --preset debug
cmake --build --preset debug -j "$JOBS"
ctest --preset debug -j "$JOBS"
