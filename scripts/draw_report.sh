#!/usr/bin/env bash
# Draws docs/report.png: the report of the sample video, as headless Chromium shows it.
# Needs build/release (scripts/test.sh) and the packages chromium and python3.
set -euo pipefail
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
build/release/bin/make_sample "$work/sample.mp4"
(cd "$work" && "$OLDPWD/build/release/bin/camm" report sample.mp4)
chromium --headless --no-sandbox --disable-gpu --no-first-run --disable-background-networking \
  --disable-component-update --disable-sync --user-data-dir="$work/profile" --hide-scrollbars \
  --window-size=900,960 --virtual-time-budget=4000 --screenshot="$PWD/docs/report.png" \
  "file://$work/report.html" 2>/dev/null
