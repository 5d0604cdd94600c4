#!/usr/bin/env bash
# Extracts a video's camera motion metadata and lists what came out:
#   scripts/extract.sh             makes a small sample video and extracts it into out/
#   scripts/extract.sh VIDEO DIR   extracts VIDEO into DIR, which is made if need be
# First installs the Debian packages that are missing and builds the two programs (build/tool). Fails when the
# extraction was not complete.
set -euo pipefail
usage() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"; }
case "$#:${1:-}" in
  *:-h | *:--help) usage; exit 0 ;;
  0:* | 2:*) ;;
  *) usage >&2; exit 2 ;;
esac
root=$(cd "$(dirname "$0")/.." && pwd)
bin=$root/build/tool/bin

"$root/scripts/install-deps.sh" tool
# In a folder of its own: the release preset builds everything, and needs more than is installed here.
(
  cd "$root"
  [ -f build/tool/build.ninja ] || cmake --preset tool >/dev/null
  cmake --build --preset tool --target motrace camm make_sample
) >&2

if [ $# -eq 0 ]; then
  cd "$root"
  set -- out/sample.mp4 out
  mkdir -p out
  "$bin/make_sample" "$1"
fi
MOTRACE=$bin/motrace "$root/scripts/extract_one.sh" "$1" "$2"
"$root/scripts/show.sh" "$2"
