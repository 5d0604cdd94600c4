#!/usr/bin/env bash
# Installs the Debian 12 packages that are needed, and only those that are missing:
#   scripts/install-deps.sh tool    what building the programs and their libraries needs
#   scripts/install-deps.sh         that, and what the image libraries, tests and benchmarks need
#   scripts/install-deps.sh lint    all of that, and what checks the source and builds the fuzz targets
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  libavformat-dev libavcodec-dev libavutil-dev
  libevent-dev libcurl4-openssl-dev libboost-filesystem-dev
  libcli11-dev libexpat1-dev libfmt-dev nlohmann-json3-dev libjs-dygraphs
)
case "${1:-all}" in
  tool) ;;
  all | lint)
    packages+=(
      libopencv-core-dev libopencv-imgproc-dev ocl-icd-opencl-dev pocl-opencl-icd
      libgtest-dev libgmock-dev libbenchmark-dev
      python3 python3-dev python3-numpy python3-pandas pybind11-dev chromium chromium-driver
      man-db file ffmpeg gpsbabel libxml2-utils
    )
    if [ "${1:-all}" = lint ]; then packages+=(clang clang-format-14 clang-tidy-14); fi
    ;;
  *)
    echo "usage: scripts/install-deps.sh [tool|lint]" >&2
    exit 2
    ;;
esac

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed'; then
    missing+=("$package")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "need root or sudo to install: ${missing[*]}" >&2; exit 1; }
  sudo=(sudo)
fi
echo "installing ${#missing[@]} packages, silently, which takes some minutes: ${missing[*]}" >&2
"${sudo[@]}" apt-get update -qq >&2
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
