# Shared by scripts/run and scripts/test: the checkout's root, and the packages every build and the
# host tests need (mosquitto, mosquitto-clients and python3-paho-mqtt: a real MQTT broker and clients
# to test the example hosts against; libbenchmark-dev: the benchmark programs, built in the default and
# clang builds too; llvm-14: the coverage tools).
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD_PACKAGES=(cmake ninja-build g++ clang libclang-rt-14-dev llvm-14 libgtest-dev libgmock-dev libbenchmark-dev pkg-config
  valgrind doxygen mosquitto mosquitto-clients python3-paho-mqtt)
# The machine is shared: builds started from the scripts use two jobs at most.
export CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-2}
