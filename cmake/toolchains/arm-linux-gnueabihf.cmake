# Cross-compiles Tavlo for 32-bit ARM Linux with hardware floating point (Debian's armhf)
# with Debian's cross compiler and the armhf development packages, installed side by side
# with the build machine's own (the libraries under /usr/lib/arm-linux-gnueabihf).
#
#   cmake -S . -B build-armhf --toolchain cmake/toolchains/arm-linux-gnueabihf.cmake
#
# scripts/cross-test.sh armhf installs all of it and runs the unit tests under qemu-user.
set(TAVLO_CROSS_TRIPLET arm-linux-gnueabihf)
set(TAVLO_CROSS_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/TavloDebianCross.cmake)
