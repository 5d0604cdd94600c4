#!/usr/bin/env bash
# Installs the Debian 12 packages that building and testing need, and only those that are missing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config python3
  libavformat-dev libavcodec-dev libavutil-dev
  libevent-dev nlohmann-json3-dev libboost-filesystem-dev
  libopencv-core-dev libopencv-imgproc-dev
  ocl-icd-opencl-dev pocl-opencl-icd
  libgtest-dev libgmock-dev libbenchmark-dev
)

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
echo "installing: ${missing[*]}" >&2
"${sudo[@]}" apt-get update -qq >&2
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2
