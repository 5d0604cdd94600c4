#!/usr/bin/env bash
# Runs a motrace on the sample; fails unless it extracted it whole: run_tool.sh MOTRACE SAMPLE OUT
set -euo pipefail
motrace=$1 sample=$2 out=$3
rm -rf "$out"
mkdir -p "$out"
"$motrace" "$sample" "$out" >"$out/log" 2>"$out/problems"
cat "$out/problems"
! grep -v "^motrace: note: " "$out/problems"
grep -q 'pipe run over\.\.\.$' "$out/log"
[ "$(stat -c %s "$out/gyro.dat")" -eq 44800 ]
[ "$(find "$out" -name 'exposure_?.dat' -size 320c | wc -l)" -eq 6 ]
grep -q '^{"extended_gps_info":\[{' "$out/gps.json"
