#!/usr/bin/env bash
# Builds the consumer with what pkg-config says about the installed tree, and runs it.
# pkg_config_consumer.sh LIBDIR COMPILER WORK_DIR SAMPLE
set -euo pipefail
libdir=$1 compiler=$2 work=$3 sample=$4
export PKG_CONFIG_PATH=$libdir/pkgconfig
# Unquoted: flags are words.
# shellcheck disable=SC2046
"$compiler" -std=c++17 "$(dirname "$0")/consumer/main.cpp" -o "$work/count_packets_pkg" \
  $(pkg-config --cflags --libs qvxmedia)
"$work/count_packets_pkg" "$sample"
