#!/usr/bin/env bash
# Builds the image engines for another processor and runs their tests in its emulation:
#   scripts/cross_check.sh armhf|armhf-neon|arm64 [gtest filter]
# armhf has no vector unit that a Debian program may use, armhf-neon one whose division is an
# estimate. Needs mmdebstrap, qemu-user and g++-arm-linux-gnueabihf or g++-aarch64-linux-gnu; makes
# build/cross-ARCH with a Debian tree of some 500 MB. Not part of CI: an hour in emulation.
set -euo pipefail
cd "$(dirname "$0")/.."
target=${1:?armhf, armhf-neon or arm64}
filter=${2:-*}
arch=${target%-neon}
case $arch in
  armhf) triplet=arm-linux-gnueabihf processor=arm emulator=qemu-arm ;;
  arm64) triplet=aarch64-linux-gnu processor=aarch64 emulator=qemu-aarch64 ;;
  *) echo "unknown: $target" >&2 && exit 1 ;;
esac
flags=
[ "$target" = armhf-neon ] && flags="-mfpu=neon"
debian=$PWD/build/cross-$arch-debian
[ -d "$debian/usr/include/opencv4" ] ||
  mmdebstrap --variant=extract --architectures="$arch" \
    --include=libopencv-core-dev,libopencv-imgproc-dev,libgmock-dev,libc6-dev \
    bookworm "$debian" "deb http://deb.debian.org/debian bookworm main"

# The engines and their tests, without the pipeline and what it needs.
work=$PWD/build/cross-$target
mkdir -p "$work/source"
ln -sfn "$PWD"/{cmake,simd,raw_bayer,frame_interpolation,tests} "$work/source/"
cat >"$work/source/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.25)
project(cross LANGUAGES CXX)
list(APPEND CMAKE_MODULE_PATH ${PROJECT_SOURCE_DIR}/cmake)
include(cmake/MotraceTargets.cmake)
include(GoogleTest)
enable_testing()
find_package(OpenCVCore REQUIRED)
find_package(GTest REQUIRED)
find_package(Threads REQUIRED)
foreach(folder simd frame_interpolation/motionInterpolation raw_bayer tests/motion_interpolation tests/raw_bayer)
  add_subdirectory(${folder})
endforeach()
END
cmake -S "$work/source" -B "$work" -G Ninja -DMOTRACE_CUDA=OFF -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_SYSTEM_NAME=Linux -DCMAKE_SYSTEM_PROCESSOR=$processor -DCMAKE_SYSROOT="$debian" \
  -DCMAKE_CXX_COMPILER=$triplet-g++ -DCMAKE_CXX_FLAGS="$flags -Wno-psabi" \
  -DCMAKE_EXE_LINKER_FLAGS=-Wl,--unresolved-symbols=ignore-in-shared-libs
ninja -C "$work" -j "${JOBS:-$(nproc)}"
for test in raw_bayer_test raw_bayer_fake_cuda_test motion_interpolation_test; do
  # Where the links would lead that packages make when they are installed.
  libraries=$debian/usr/lib/$triplet/blas:$debian/usr/lib/$triplet/lapack
  $emulator -L "$debian" -E "LD_LIBRARY_PATH=$libraries" \
    "$(find "$work" -name $test -type f -perm -u+x)" --gtest_filter="$filter"
done
