#!/usr/bin/env bash
# Lists the files of an extraction: size, number of records, first record. scripts/show.sh DIR
set -euo pipefail
export LC_ALL=C
case "$#:${1:-}" in
  1:-h | 1:--help) sed -n '2s/^# //p' "$0"; exit 0 ;;
  1:*) ;;
  *) echo "usage: scripts/show.sh DIR" >&2; exit 2 ;;
esac
dir=$1
[ -f "$dir/gyro.dat" ] || { echo "$dir holds no extraction" >&2; exit 1; }

# line FILE RECORDS TEXT
line() {
  printf '%-18s %8d bytes %6d records   %s\n' "$1" "$(stat -c %s "$1")" "$2" "${3:-none}"
}

# values FILE: the first record's time in microseconds and its doubles, on one line
values() {
  od -A n -t d8 -N 8 "$1"
  od -A n -t f8 -j 8 -N "$(($2 - 8))" -v "$1"
}

# binary FILE RECORD_SIZE AWK_PRINTF...
binary() {
  local file=$1 size=$2 format=$3 count first=
  count=$(($(stat -c %s "$file") / size))
  if [ "$count" -gt 0 ]; then
    first=$(values "$file" "$size" | tr '\n' ' ' | awk "{ printf $format }")
  fi
  line "$file" "$count" "$first"
}

binary "$dir/gyro.dat" 56 \
  '"%d us: accelerometer %.3f %.3f %.3f m/s2, gyroscope %.3f %.3f %.3f rad/s", $1, $2, $3, $4, $5, $6, $7'
for k in 1 2 3 4 5 6; do
  binary "$dir/exposure_$k.dat" 16 '"%d us: %.6f s", $1, $2'
done
fixes=$(grep -o '"time_gps_epoch"' "$dir/gps.json" | wc -l || true)
line "$dir/gps.json" "$fixes" "$(grep -o '{"altitude"[^}]*}' "$dir/gps.json" | head -n 1 | cut -c 1-72 || true)"
