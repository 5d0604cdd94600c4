#!/usr/bin/env bash
# Installs the image libraries alone and builds the example with them, through CMake and through
# pkg-config: image_consumer.sh BUILD_DIR STAGE LIBDIR COMPILER
set -euo pipefail
build=$1 stage=$2 libdir=$3 compiler=$4
rm -rf "$stage"
cmake --install "$build" --prefix "$stage" --component image_dev >/dev/null
example=$(find "$stage" -name raw_planes.cpp)

mkdir "$stage/project"
cat >"$stage/project/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.25)
project(consumer LANGUAGES CXX)
find_package(qvxmedia-image CONFIG REQUIRED COMPONENTS raw_bayer)
add_executable(consumer $example)
target_link_libraries(consumer PRIVATE lum::raw_bayer)
END
cmake -S "$stage/project" -B "$stage/project/build" -DCMAKE_PREFIX_PATH="$stage" \
  -DCMAKE_CXX_COMPILER="$compiler" >/dev/null
cmake --build "$stage/project/build" >/dev/null
"$stage/project/build/consumer"

export PKG_CONFIG_PATH=$stage/$libdir/pkgconfig
# Unquoted: flags are words.
# shellcheck disable=SC2046
"$compiler" -std=c++17 "$example" -o "$stage/project/by_pkg_config" \
  $(pkg-config --cflags --libs qvxmedia-raw_bayer)
"$stage/project/by_pkg_config"
