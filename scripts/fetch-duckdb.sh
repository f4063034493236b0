#!/usr/bin/env bash
# Fetches DuckDB's shared library (its C API) for the ratio benchmark into
# build/duckdb/package/libduckdb.so, from the npm package that ships it for
# Node.js on Linux x86-64.  Nothing builds against it: the benchmark loads it
# at run time and leaves its cases out when it is absent.
#
#   scripts/fetch-duckdb.sh            # the pinned version
#   DUCKDB_NPM_VERSION=... scripts/fetch-duckdb.sh
set -euo pipefail
cd "$(dirname "$0")/.."
VERSION=${DUCKDB_NPM_VERSION:-1.5.6-r.1}
DEST=build/duckdb

if [ -f "$DEST/package/libduckdb.so" ] && [ "$(cat "$DEST/version" 2>/dev/null)" = "$VERSION" ]; then
    echo "fetch-duckdb: $DEST/package/libduckdb.so ($VERSION) is there"
    exit 0
fi
command -v npm >/dev/null 2>&1 || {
    as_root() { if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi; }
    as_root apt-get update -q
    as_root apt-get install -y -q --no-install-recommends npm
}
rm -rf "$DEST"
mkdir -p "$DEST"
(cd "$DEST" && npm pack --silent "@duckdb/node-bindings-linux-x64@$VERSION" >/dev/null &&
    tar xzf ./*.tgz && rm ./*.tgz)
echo "$VERSION" >"$DEST/version"
echo "fetch-duckdb: $DEST/package/libduckdb.so ($VERSION)"
