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

# whole DIR: all three were extracted there
whole() {
  [ "$(find "$1" -name gyro.dat -size 44800c | wc -l)" -eq 3 ] || { find "$1"; exit 1; }
  [ -z "$(find "$1" -name motrace.problems)" ]
}

find videos -name '*.mp4' -print0 | xargs -0 -P 2 -I{} scripts/extract_one.sh {} xargs/{}
whole xargs

if command -v parallel >/dev/null; then
  find videos -name '*.mp4' | parallel --joblog jobs.log scripts/extract_one.sh {} parallel/{} 2>/dev/null
  whole parallel
fi

# The array script as its scheduler would run it, task by task.
find "$PWD/videos" -name '*.mp4' >list
for task in 1 2; do
  SLURM_ARRAY_TASK_ID=$task SLURM_ARRAY_TASK_COUNT=2 scripts/extract_array.sbatch list array
done
whole array

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
