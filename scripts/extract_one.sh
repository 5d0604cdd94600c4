#!/usr/bin/env bash
# One extraction of a batch:
#   extract_one.sh [OPTIONS] VIDEO DIR           extracts VIDEO, a file or a web address, into DIR
#   extract_one.sh [OPTIONS] --below DIR VIDEO   into a folder of VIDEO's name below DIR
#   --timeout SECONDS   gives up after that time
#   --download          fetches an address whole first (with curl), for servers that give no parts
# Makes the folder and clears what an earlier extraction left there. Keeps the log in it (motrace.log),
# and what motrace says on standard error: motrace.notes, motrace.problems. Addresses that differ in
# their query alone have one folder below DIR.
# Unlike motrace itself it fails when the extraction was not complete, or was not over in time (124).
# The tool is $MOTRACE, or the one in the PATH, or the one built here.
set -euo pipefail
usage() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"; }
limit=0 below= download=
while [ $# -gt 0 ]; do
  case $1 in
    -h | --help) usage; exit 0 ;;
    --timeout) limit=${2:-}; shift 2 || break ;;
    --download) download=1; shift ;;
    --below) below=${2:-}; shift 2 || break ;;
    *) break ;;
  esac
done
# Of an address, messages and names of folders show host and path, but no user, password or query.
name=${1:-}
if [[ $name =~ ^[Hh][Tt][Tt][Pp][Ss]?:// && ! -e $name ]]; then
  name=${name#*://} name=${name%%[?#]*} host=${name%%/*}
  name=${host##*@}${name#"$host"}
else
  download=
fi
shown=$name
if [ -n "$below" ] && [ $# -eq 1 ]; then
  # A name that leads out of the folder it starts in would lead out of DIR as well.
  case /$name/ in */../*) name=$(realpath --canonicalize-missing --no-symlinks -- "$name") ;; esac
  set -- "$1" "$below/${name#/}"
fi
[ $# -eq 2 ] && [[ $limit =~ ^[0-9]+$ ]] || { usage >&2; exit 2; }
video=$1 dir=$2
for motrace in "${MOTRACE:-}" "$(command -v motrace || true)" "$(dirname "$0")"/../build/{tool,release}/bin/motrace; do
  if [ -x "$motrace" ]; then break; fi
done

mkdir -p -- "$dir"
for name in gyro.dat exposure_{1..6}.dat gps.json motrace.{log,notes,problems}; do
  [ "$dir/$name" -ef "$video" ] || rm -f -- "$dir/$name"
done
code=0
in_time() { timeout --foreground --kill-after=10 "$limit" "$@" >"$dir/motrace.log" 2>"$dir/motrace.stderr"; }
if [ -n "$download" ]; then
  trap 'rm -f -- "$dir/motrace.download"' EXIT
  in_time curl --fail --silent --show-error --location --proto =http,https --retry 3 \
    --output "$dir/motrace.download" -- "$video" || code=$?
  video=$dir/motrace.download
fi
[ "$code" -ne 0 ] || in_time "$motrace" "$video" "$dir" || code=$?
[ "$code" -ne 124 ] || echo "motrace: gave '$shown' up after $limit s" >>"$dir/motrace.stderr"
cat "$dir/motrace.stderr" >&2
grep '^motrace: note: ' "$dir/motrace.stderr" >"$dir/motrace.notes" || rm "$dir/motrace.notes"
grep -v '^motrace: note: ' "$dir/motrace.stderr" >"$dir/motrace.problems" || rm "$dir/motrace.problems"
rm "$dir/motrace.stderr"
[ "$code" -eq 0 ] || exit "$code"
[ ! -e "$dir/motrace.problems" ] || exit 1
grep -q 'pipe run over\.\.\.$' "$dir/motrace.log" || { echo "failed, see $dir/motrace.log" >&2; exit 1; }
