#!/usr/bin/env bash
# Builds the fuzz targets and runs them one after the other: scripts/fuzz.sh [seconds] [target...]
# (default: 60 seconds, every target). New inputs go to build/fuzz/corpus, findings to
# build/fuzz/findings. A finding ends the script; to keep it, copy it to fuzz/corpus/<target>, where
# the tests replay it.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=60
if [[ ${1:-} =~ ^[0-9]+$ ]]; then
  seconds=$1
  shift
fi
scripts/install-deps.sh lint
cmake --preset fuzz
cmake --build --preset fuzz
if [ $# -eq 0 ]; then
  set -- fuzz/corpus/*/
fi
for target in "$@"; do
  target=$(basename "$target")
  mkdir -p "build/fuzz/corpus/$target" build/fuzz/findings
  case $target in  # a video with a few samples, or a record
    extraction | reading_plan) max_len=16384 ;;
    *) max_len=4096 ;;
  esac
  echo "== $target, $seconds s"
  ASAN_OPTIONS=allocator_may_return_null=1 \
    build/fuzz/bin/fuzz_"$target" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 \
    -max_len="$max_len" -print_final_stats=1 \
    -artifact_prefix="build/fuzz/findings/$target-" \
    "build/fuzz/corpus/$target" "fuzz/corpus/$target"
done
