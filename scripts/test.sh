#!/usr/bin/env bash
# Builds everything and passes all tests: scripts/test.sh [preset ...]   (default: release)
# Presets: release, debug, asan, tsan; fuzz builds the fuzz targets (clang) and replays their corpora.
# Installs missing packages first. Ends with the share of the code that is tests.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
[ $# -gt 0 ] || set -- release
for preset in "$@"; do
  echo "== $preset"
  cmake --preset "$preset" ${CI:+-DMOTRACE_WERROR=ON}
  cmake --build --preset "$preset"
  ctest --preset "$preset"
done

lines() { { git ls-files -z "$@" | xargs -0 cat 2>/dev/null || true; } | grep -c '[^[:space:]]'; }
kinds=('*.cpp' '*.h' '*.cc' '*.hpp' '*.inc' '*.cl' '*.cu' '*.cuh' '*.py' '*.sh')
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  tests=$(lines "${kinds[@]/#/:(glob)tests/**/}") all=$(lines "${kinds[@]}")
  percent() { echo "$((1000 * tests / $1 / 10)).$((1000 * tests / $1 % 10)) %"; }
  echo "tests: $tests of $all lines of code, $(percent "$all"); $(percent $((all - tests))) of the rest"
fi
