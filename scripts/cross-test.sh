#!/usr/bin/env bash
# Cross-builds Tavlo for an ARM set-top box and runs its unit tests under qemu-user:
#
#   scripts/cross-test.sh aarch64    64-bit ARM (Debian's arm64)
#   scripts/cross-test.sh armhf      32-bit ARM with hardware floating point
#
# 1. installs (idempotently, like install-deps.sh) the Debian cross compiler, qemu-user
#    and the target architecture's development packages, side by side with the machine's
#    own (multiarch: `dpkg --add-architecture`);
# 2. configures build-<arch> with cmake/toolchains/<triplet>.cmake, Release, warnings as
#    errors, and builds the library and the test programs (no tools, examples or benches);
# 3. runs the tests labelled `unit` through the emulator (CTest does it: the toolchain
#    file sets CMAKE_CROSSCOMPILING_EMULATOR). The integration tests are built, not run:
#    they need real sockets and child processes, which the box itself is for.
#
#   TAVLO_CROSS_BUILD_DIR=...   the build folder (default build-<arch>)
#   TAVLO_CROSS_LABEL=...       the CTest labels to run (default unit; "unit|integration" for all)
# About 4 minutes on two cores from a clean clone (3 to build, 1 for the tests), and one
# more on a fresh machine while apt installs; see docs/testing.md.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

case "${1:-}" in
  aarch64 | arm64) arch=arm64 triplet=aarch64-linux-gnu ;;
  armhf | arm) arch=armhf triplet=arm-linux-gnueabihf ;;
  *)
    echo "usage: $0 aarch64|armhf" >&2
    exit 2
    ;;
esac
build="${TAVLO_CROSS_BUILD_DIR:-$root/build-${1/arm64/aarch64}}"
label="${TAVLO_CROSS_LABEL:-unit}"

sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  sudo_cmd=(sudo)
fi

# --- 1. packages -------------------------------------------------------------------------
packages=(
  cmake pkg-config make python3
  "g++-$triplet" qemu-user
  "libcurl4-openssl-dev:$arch" "uuid-dev:$arch"
  "libplist-dev:$arch" "libgtest-dev:$arch" "libcpp-httplib-dev:$arch"
)
missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -ne 0 ]; then
  added=""
  if [ "$arch" != "$(dpkg --print-architecture)" ] && ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
    echo "Adding the $arch architecture to dpkg"
    "${sudo_cmd[@]}" dpkg --add-architecture "$arch"
    added="$arch"
  fi
  echo "Installing: ${missing[*]}"
  # An architecture whose package indexes do not download whole (a mirror caught mid-sync
  # answers with a file of the wrong size) would make every later apt-get update on this
  # machine fail: what this script added, it takes back before giving up.
  if ! "${sudo_cmd[@]}" apt-get update; then
    if [ -n "$added" ]; then
      echo "The $added package indexes did not download cleanly; removing the $added architecture again" >&2
      "${sudo_cmd[@]}" dpkg --remove-architecture "$added"
      "${sudo_cmd[@]}" apt-get update || true
    fi
    exit 75  # EX_TEMPFAIL: the mirror's, not the project's; scripts/test.sh says so and goes on
  fi
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
fi

# --- 2. cross-build ----------------------------------------------------------------------
jobs="$(nproc)"
echo "== $(date +%T) $triplet build in $build"
cmake -S "$root" -B "$build" --toolchain "$root/cmake/toolchains/$triplet.cmake" \
  -DCMAKE_BUILD_TYPE=Release -DTAVLO_WERROR=ON \
  -DTAVLO_BUILD_TOOLS=OFF -DTAVLO_BUILD_EXAMPLES=OFF -DTAVLO_BUILD_BENCH=OFF -DTAVLO_INSTALL=OFF
cmake --build "$build" --parallel "$jobs"

# --- 3. unit tests under the emulator ----------------------------------------------------
# The loopback-only integration tests stay out; nothing here needs a proxy, but a test
# that reaches 127.0.0.1 must never go through one.
export no_proxy="127.0.0.1,localhost${no_proxy:+,$no_proxy}"
export NO_PROXY="$no_proxy"
echo "== $(date +%T) tests labelled $label under $(grep -m1 '^TAVLO_CROSS_EMULATOR:' "$build/CMakeCache.txt" | cut -d= -f2)"
ctest --test-dir "$build" --label-regex "^($label)\$" --output-on-failure --parallel "$jobs" --timeout 300
echo "== $(date +%T) $triplet: every $label test passed under emulation"
