#!/usr/bin/env bash
# Applies clang-format to every tracked C and C++ source; with --check, only
# reports the files that differ and fails (CI).
set -euo pipefail
cd "$(dirname "$0")/.."

as_root() { if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi; }
command -v clang-format >/dev/null 2>&1 ||
    { as_root apt-get update -q; as_root apt-get install -y -q clang-format; }

mapfile -t files < <(git ls-files '*.c' '*.h' '*.cpp')
if [ "${1:-}" = --check ]; then
    clang-format --dry-run -Werror "${files[@]}"
    echo "format: clean (${#files[@]} files)"
else
    clang-format -i "${files[@]}"
fi
