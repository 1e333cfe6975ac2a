#!/usr/bin/env bash
# Installs the built tree into a scratch prefix, then builds and runs a C11 and a C++17 host against
# it: with find_package, and with pkg-config.
# Usage: run.sh BUILD_DIR SCRATCH_DIR CMAKE
set -euo pipefail
build_dir=$1
scratch=$2
cmake_bin=$3
here=$(cd "$(dirname "$0")" && pwd)

rm -rf "$scratch"
prefix=$scratch/prefix
"$cmake_bin" --install "$build_dir" --prefix "$prefix" >/dev/null

# find_package
"$cmake_bin" -S "$here/consumer" -B "$scratch/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
"$cmake_bin" --build "$scratch/consumer" >/dev/null
"$scratch/consumer/consumer_cxx"
"$scratch/consumer/consumer_c"

# pkg-config: the .pc file locates the prefix from where it was installed
export PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name ostrel-mqttprotocol.pc)")
flags=$(pkg-config --cflags --libs ostrel-mqttprotocol)
libdir=$(pkg-config --variable=libdir ostrel-mqttprotocol)
# shellcheck disable=SC2086
cc -std=c11 -Wall -Werror "$here/consumer/consumer.c" $flags -o "$scratch/pc_c"
# shellcheck disable=SC2086
c++ -std=c++17 -Wall -Werror "$here/consumer/consumer.cpp" $flags -o "$scratch/pc_cxx"
LD_LIBRARY_PATH=$libdir "$scratch/pc_c"
LD_LIBRARY_PATH=$libdir "$scratch/pc_cxx"
echo "installed tree consumed by find_package and pkg-config"
