#!/usr/bin/env bash
# Installs what the build needs (Debian), builds the velseq program and runs
# its demo: a day of trades generated, loaded with a progress bar, and every
# subcommand run once on it (head, tail, window, stats, resample, asof, tree).
set -euo pipefail
cd "$(dirname "$0")"

PACKAGES=(cmake make g++ pkg-config libxxhash-dev libcli11-dev)
missing=()
for p in "${PACKAGES[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    as_root=()
    [ "$(id -u)" -eq 0 ] || as_root=(sudo)
    export DEBIAN_FRONTEND=noninteractive
    "${as_root[@]}" apt-get update -q
    "${as_root[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

cmake -S . -B build/run -DCMAKE_BUILD_TYPE=Release -DVELSEQ_TESTS=OFF >/dev/null
cmake --build build/run -j "$(nproc 2>/dev/null || echo 2)" --target velseq_cli >/dev/null
exec ./build/run/tools/velseq demo "$@"
