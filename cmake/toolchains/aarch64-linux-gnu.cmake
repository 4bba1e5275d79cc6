# Cross-compiles Tavlo for 64-bit ARM Linux (aarch64) with Debian's cross compiler and the
# arm64 development packages of the same Debian release, installed side by side with the
# build machine's own (multiarch: the libraries under /usr/lib/aarch64-linux-gnu).
#
#   cmake -S . -B build-aarch64 --toolchain cmake/toolchains/aarch64-linux-gnu.cmake
#
# scripts/cross-test.sh installs all of it and runs the unit tests under qemu-user.
# For a box's own SDK (Yocto, Buildroot) use the toolchain file that SDK ships instead;
# docs/integration-guide.md says how.
set(TAVLO_CROSS_TRIPLET aarch64-linux-gnu)
set(TAVLO_CROSS_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/TavloDebianCross.cmake)
