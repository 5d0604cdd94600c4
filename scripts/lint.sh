#!/usr/bin/env bash
# Checks the source with clang-format and clang-tidy 14:
#   scripts/lint.sh                  the whole tree
#   scripts/lint.sh REGEX            the format of all, and the sources whose path matches
#   scripts/lint.sh --changed [REF]  the format of all, and what differs from where REF (main) was left
# Reads the release preset's compile commands, so that one is configured first. Not the CUDA sources,
# which clang-tidy 14 does not understand.
set -euo pipefail
case "${1:-}" in -h | --help) sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"; exit 0 ;; esac
cd "$(dirname "$0")/.."
scripts/install-deps.sh lint
git ls-files '*.cpp' '*.h' '*.hpp' '*.inc' | xargs clang-format-14 --dry-run -Werror
[ -f build/release/compile_commands.json ] || cmake --preset release >/dev/null
files=${1:-"$PWD/[^/]*[a-z]/.*\.cpp$"}
if [ "$files" = --changed ]; then
  base=$(git merge-base HEAD "${2:-main}")
  # Of a changed header, the sources that include it by its last two names.
  changed=$(git diff --name-only --diff-filter=d "$base" -- '*.cpp')
  while read -r header; do
    changed+=$'\n'$(git grep -lE "#include \".*$(basename "$header")\"" -- '*.cpp' || true)
  done < <(git diff --name-only --diff-filter=d "$base" -- '*.h' '*.hpp')
  files=$(sort -u <<<"$changed" | sed "/./!d; s|^|$PWD/|" | paste -sd'|')
  [ -n "$files" ] || { echo "no source differs from $base"; exit 0; }
fi
run-clang-tidy-14 -quiet -p build/release "$files" 2>/dev/null | sed '/^clang-tidy-14 /d'
