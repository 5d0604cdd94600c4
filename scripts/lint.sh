#!/usr/bin/env bash
# Checks the whole tree with clang-format and clang-tidy: scripts/lint.sh [path regex]
# Reads the release preset's compile commands, so that one is configured first. Not the CUDA sources,
# which clang-tidy 14 does not understand.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh lint
git ls-files '*.cpp' '*.h' '*.hpp' '*.inc' | xargs clang-format-14 --dry-run -Werror
cmake --preset release >/dev/null
files=${1:-"$PWD/((src|qvxmedia|frame_interpolation|raw_bayer|camm|samples|tests|bench|fuzz|examples)/.*|build/release/.*kernels\.[a-z0-9]*)\.cpp$"}
run-clang-tidy-14 -quiet -p build/release "$files" 2>/dev/null | sed '/^clang-tidy-14 /d'
