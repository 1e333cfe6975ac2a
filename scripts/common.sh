# Shared by scripts/run and scripts/test: the checkout's root, and the packages every build and the
# host tests need (mosquitto, mosquitto-clients and python3-paho-mqtt: a real MQTT broker and clients
# to test the example hosts against; libbenchmark-dev: the benchmark programs, built in the default and
# clang builds too).
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD_PACKAGES=(cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev libbenchmark-dev pkg-config
  valgrind doxygen mosquitto mosquitto-clients python3-paho-mqtt)
