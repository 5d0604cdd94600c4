#!/usr/bin/env bash
# Builds everything and passes all tests: scripts/test.sh [preset ...]   (default: release)
# Presets: release, debug, asan, tsan. Installs missing packages first.
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
