#!/usr/bin/env bash
# Runs a batch each way that the README shows and that runs here: check_batch_scripts.sh MOTRACE SAMPLE
set -euo pipefail
export MOTRACE=$1
sample=$2
root=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
ln -s "$root/scripts" scripts
mkdir -p videos/sub
cp "$sample" 'videos/with space.mp4'
cp "$sample" videos/sub/b.mp4
cp "$sample" videos/sub/c.mp4
cp "$sample" videos/CAMERA.MP4

# whole DIR: all four were extracted there
whole() {
  [ "$(find "$1" -name gyro.dat -size 44800c | wc -l)" -eq 4 ] || { find "$1"; exit 1; }
  [ -z "$(find "$1" -name motrace.problems)" ]
}

find videos -iname '*.mp4' -print0 | xargs -0 -P 2 -I{} scripts/extract_one.sh --below xargs {} 2>/dev/null
whole xargs

if command -v parallel >/dev/null; then
  find videos -iname '*.mp4' | parallel --joblog jobs.log scripts/extract_one.sh --below parallel {} 2>/dev/null
  whole parallel
fi

# The array script as its scheduler would run it, task by task, and more tasks than videos.
find "$PWD/videos" -iname '*.mp4' >list
for task in 1 2 3 4; do
  SLURM_ARRAY_TASK_ID=$task SLURM_ARRAY_TASK_COUNT=4 scripts/extract_array.sbatch --timeout 60 list array 2>/dev/null
done
whole array

# A name that leads out of the folder does not lead out of the output folder.
(cd videos && ../scripts/extract_one.sh --below ../inside ../videos/sub/c.mp4 2>/dev/null)
[ -s "inside$PWD/videos/sub/c.mp4/gyro.dat" ]
# What an earlier run has left there goes, but never the video itself.
mkdir stale
for name in gyro.dat exposure_6.dat motrace.problems; do echo old >"stale/$name"; done
ln videos/sub/c.mp4 stale/gps.json
if scripts/extract_one.sh stale/gps.json stale 2>/dev/null; then exit 1; fi
cmp videos/sub/c.mp4 stale/gps.json
[ ! -s stale/gyro.dat ] && [ ! -e stale/exposure_6.dat ] && grep -q "the source itself" stale/motrace.problems
grep -q "type 0" xargs/videos/sub/c.mp4/motrace.notes
# A video that brings nothing in time is given up.
mkfifo endless.mp4
code=0
scripts/extract_one.sh --timeout 1 endless.mp4 late 2>/dev/null || code=$?
[ "$code" -eq 124 ] && grep -q "gave 'endless.mp4' up" late/motrace.problems

# What cannot be extracted fails, and says why.
if scripts/extract_one.sh no_such_file.mp4 failed 2>stderr; then
  echo "a missing file was no failure"
  exit 1
fi
grep -q "no_such_file.mp4.*No such file" stderr
grep -q "no_such_file.mp4.*No such file" failed/motrace.problems
if SLURM_ARRAY_TASK_ID=1 SLURM_ARRAY_TASK_COUNT=1 scripts/extract_array.sbatch <(echo no_such_file) array 2>/dev/null; then
  echo "an array task with a failed file was no failure"
  exit 1
fi
