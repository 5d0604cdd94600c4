#!/usr/bin/env bash
# One extraction of a batch: scripts/extract_one.sh VIDEO DIR
# Makes DIR, runs motrace, keeps its log there (motrace.log, and motrace.problems if there were any)
# and, unlike motrace itself, fails when the extraction was not complete.
# The tool is $MOTRACE, or the one in the PATH, or the one built here.
set -euo pipefail
[ $# -eq 2 ] || { echo "usage: $(basename "$0") VIDEO DIR" >&2; exit 2; }
video=$1 dir=$2
motrace=${MOTRACE:-$(command -v motrace || echo "$(dirname "$0")/../build/release/bin/motrace")}

mkdir -p "$dir"
"$motrace" "$video" "$dir" >"$dir/motrace.log" 2>"$dir/motrace.problems"
if [ -s "$dir/motrace.problems" ]; then
  cat "$dir/motrace.problems" >&2
  exit 1
fi
rm "$dir/motrace.problems"
grep -q 'pipe run over\.\.\.$' "$dir/motrace.log" || { echo "failed, see $dir/motrace.log" >&2; exit 1; }
