#!/usr/bin/env bash
# Builds and runs a C11 and a C++17 host against the library as a user gets it, with find_package and
# with pkg-config:
#   install: the tree `cmake --install` makes in a scratch prefix;
#   deb:     the two Debian packages CPack makes, unpacked with dpkg -x into a scratch root;
#   subdirectory: the source tree added to a host project with add_subdirectory, which must build
#            the three libraries and nothing else of the tree (BUILD_DIR is not used).
# Usage: run.sh install|deb|subdirectory BUILD_DIR SCRATCH_DIR CMAKE
set -euo pipefail
mode=$1
build_dir=$2
scratch=$3
cmake_bin=$4
here=$(cd "$(dirname "$0")" && pwd)

rm -rf "$scratch"
mkdir -p "$scratch"
# Builds the host of tests/install/subproject and lists what the tree made in it: the three shared
# libraries, no test, example, fuzz harness or package settings.
consume_as_subdirectory() {
  local host=$scratch/host
  "$cmake_bin" -S "$here/subproject" -B "$host" -G Ninja -DOSTREL_SOURCE_DIR="$here/../.." >/dev/null
  "$cmake_bin" --build "$host" -j2 >/dev/null
  "$host/consumer_cxx"
  local made expected
  made=$(cd "$host/ostrel" && find . -type f -perm -u+x -printf '%f\n' | sed 's/\.so\..*/.so/' | sort | tr '\n' ' ')
  expected="libOstrel_Hopper.so libOstrel_Keel.so libOstrel_MQTTProtocol.so "
  if [[ $made != "$expected" ]]; then
    echo "subdirectory: the tree built [$made], expected [$expected]" >&2
    exit 1
  fi
  if [[ -e $host/CPackConfig.cmake ]]; then
    echo "subdirectory: the tree set up packaging for its host" >&2
    exit 1
  fi
  echo "subdirectory: built the three libraries alone, consumed by add_subdirectory"
}

case $mode in
  subdirectory)
    consume_as_subdirectory
    exit 0
    ;;
  install)
    prefix=$scratch/prefix
    "$cmake_bin" --install "$build_dir" --prefix "$prefix" >/dev/null
    ;;
  deb)
    (cd "$build_dir" && cpack -G DEB -B "$scratch/packages" >/dev/null)
    for package in "$scratch"/packages/*.deb; do
      dpkg-deb --field "$package" Package Version Depends | sed 's/^/  /'
      dpkg -x "$package" "$scratch/root"
    done
    prefix=$scratch/root/usr
    ;;
  *) echo "unknown mode: $mode" >&2; exit 2 ;;
esac

# find_package
"$cmake_bin" -S "$here/consumer" -B "$scratch/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
"$cmake_bin" --build "$scratch/consumer" >/dev/null
"$scratch/consumer/consumer_cxx"
"$scratch/consumer/consumer_c"

# pkg-config: the .pc file locates the prefix from where it lies
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name ostrel-mqttprotocol.pc)")
export PKG_CONFIG_PATH
flags=$(pkg-config --cflags --libs ostrel-mqttprotocol)
libdir=$(pkg-config --variable=libdir ostrel-mqttprotocol)
# shellcheck disable=SC2086
cc -std=c11 -Wall -Werror "$here/consumer/consumer.c" $flags -o "$scratch/pc_c"
# shellcheck disable=SC2086
c++ -std=c++17 -Wall -Werror "$here/consumer/consumer.cpp" $flags -o "$scratch/pc_cxx"
LD_LIBRARY_PATH=$libdir "$scratch/pc_c"
LD_LIBRARY_PATH=$libdir "$scratch/pc_cxx"
echo "$mode: consumed by find_package and pkg-config"
