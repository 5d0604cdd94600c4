#!/usr/bin/env bash
# Uses the installed tree as a stranger would: through CMake, through pkg-config, as Debian packages.
# check_installed.sh BUILD_DIR WORK_DIR SAMPLE COMPILER LIBRARY_DIR COMPONENTS TARGETS
set -euo pipefail
build=$1 work=$2 sample=$3 compiler=$4 libdir=$5 components=$6 targets=$7
here=$(cd "$(dirname "$0")" && pwd)
stage=$work/stage
# What stands in the work folder from an earlier run must not hide what is missing.
rm -rf "$work"
mkdir -p "$work"
cd "$work"
quietly() { "$@" >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }; }

# The tool in the tree PREFIX, through the batch scripts that come with it.
check_tool() {
  echo "$sample" >list
  PATH=$1/bin:$PATH SLURM_ARRAY_TASK_ID=1 SLURM_ARRAY_TASK_COUNT=1 \
    "$1/share/doc/motrace/examples/extract_array.sbatch" list below
  mv "$(dirname "$(find below -name gyro.dat)")" out
  [ "$(find out -name gyro.dat -size 44800c -o -name 'exposure_?.dat' -size 320c | wc -l)" -eq 7 ]
  grep -q '^{"extended_gps_info":\[{' out/gps.json
  rm -r out
  [ ! -e "$1/bin/camm" ] || "$1/bin/camm" info "$sample" | grep -q 'gyro  *800'
  (cd "$1/share/doc/motrace" && grep -oP '\]\(\K[^)#:]+' README.md | xargs ls >/dev/null)
}
check_consumer() { "$1" "$sample" | tee /dev/stderr | grep -q '^1776 packets'; }

quietly cmake --install "$build" --prefix "$stage"
check_tool "$stage"
quietly cmake -S "$here/consumer" -B consumer -G Ninja -DCMAKE_PREFIX_PATH="$stage" -DSTAGE="$stage" \
  -DCMAKE_CXX_COMPILER="$compiler" -DCOMPONENTS="$components" -DTARGETS="$targets"
quietly cmake --build consumer -j2
check_consumer consumer/count_packets
consumer/motion_samples "$sample" | grep -q ' rad/s at '
# Unquoted: flags are words.
# shellcheck disable=SC2046
"$compiler" -std=c++17 "$here/consumer/main.cpp" -o count_packets_pkg \
  $(PKG_CONFIG_PATH=$stage/$libdir/pkgconfig pkg-config --cflags --libs qvxmedia)
check_consumer ./count_packets_pkg

command -v dpkg-deb >/dev/null || { echo "no dpkg: packages not checked"; exit 0; }
(cd "$build" && quietly cpack -G DEB -B "$work/packages")
# depends PACKAGE PATTERN. Computed, not written down: the tool needs what it was linked with.
depends() {
  list=$(dpkg-deb --field packages/"$1"_*.deb Depends)
  [[ $list =~ $2 ]] || { echo "dependencies of $1: $list"; exit 1; }
}
depends motrace 'libavformat59.*libc6 \(>= .*libevent-core-2\.1-7'
depends libqvxmedia-dev 'libavcodec-dev \(>= .*libevent-dev \(>= .*libcurl4-openssl-dev \(>= .*pkg-config|pkgconf'
if command -v lintian >/dev/null; then
  lintian --fail-on error --suppress-tags bad-distribution-in-changes-file packages/*.deb
fi
# Installed into an empty tree and removed again; the libraries are those of this machine.
mkdir -p root/var/lib/dpkg/{info,updates}
touch root/var/lib/dpkg/{status,available}
in_root=(dpkg --root="$work/root" --force-depends --force-not-root --force-bad-path --log=/dev/null)
quietly "${in_root[@]}" --install packages/*.deb
check_tool "$work/root/usr"
if [ -d root/usr/lib/python3 ]; then
  depends python3-camm 'python3 \(>= 3\..*python3-numpy'
  PYTHONPATH=root/usr/lib/python3/dist-packages /usr/bin/python3 -B -c 'import camm; camm.Recording'
fi
mapfile -t names < <(for package in packages/*.deb; do dpkg-deb --field "$package" Package; done)
quietly "${in_root[@]}" --purge "${names[@]}"
left=$(find root -path root/var/lib/dpkg -prune -o -type f -print)
[ -z "$left" ] || { echo "left behind: $left"; exit 1; }
