#!/usr/bin/env bash
# Tavlo's footprint on a box, each figure beside its budget:
#  - the stripped size of libtavlo.so built MinSizeRel (the build for a box's flash), for
#    this machine and, where scripts/cross-test.sh has installed the cross compiler, for
#    aarch64; beside the stripped libcurl and libplist of the same architecture, the
#    libraries a box already carries for the same kind of work. Budget: 500 KB.
#  - the resident memory a process gains by loading and starting the library
#    (tavlo_footprint_bench, natively: under qemu-user it would be the emulator's).
#    Budget: 4 MB.
#
#   bench/footprint.sh        builds build-minsize (and build-minsize-aarch64), then prints
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/install-deps.sh"
budget_bytes=$((500 * 1000))

build() {
  local dir="$1"
  shift
  cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=MinSizeRel -DTAVLO_BUILD_TESTS=OFF -DTAVLO_BUILD_TOOLS=OFF \
    -DTAVLO_BUILD_EXAMPLES=OFF -DTAVLO_INSTALL=OFF "$@" >/dev/null
  cmake --build "$dir" --parallel "$(nproc)" --target "${targets[@]}" >/dev/null
}

# The size of a copy of $1 with every symbol and debug section stripped, by the strip of
# its own architecture.
stripped_size() {
  local machine tool copy
  machine="$(readelf -h "$1" | sed -n 's/^ *Machine: *//p')"
  case "$machine" in
    AArch64) tool=aarch64-linux-gnu-strip ;;
    ARM) tool=arm-linux-gnueabihf-strip ;;
    *) tool=strip ;;
  esac
  copy="$(mktemp)"
  cp "$1" "$copy"
  "$tool" --strip-all "$copy"
  stat -c %s "$copy"
  rm -f "$copy"
}

row() {  # name, file
  local bytes
  bytes="$(stripped_size "$2")"
  printf '%-34s | %9d | %7s KB | %s\n' "$1" "$bytes" "$(awk -v b="$bytes" 'BEGIN { printf "%.1f", b / 1000 }')" "$(basename "$2")"
}

sizes() {  # label, multiarch folder, build folder
  local lib="$3/src/libtavlo.so"
  local tavlo_bytes
  tavlo_bytes="$(stripped_size "$lib")"
  echo "== stripped shared libraries, $1"
  printf '%-34s | %9s | %10s | %s\n' "library" "bytes" "" "file"
  row "libtavlo (MinSizeRel)" "$(readlink -f "$lib")"
  row "libcurl" "$(readlink -f "/usr/lib/$2/libcurl.so.4")"
  row "libplist" "$(readlink -f "/usr/lib/$2/libplist-2.0.so.3")"
  if [ "$tavlo_bytes" -le "$budget_bytes" ]; then
    echo "libtavlo within its budget of $((budget_bytes / 1000)) KB"
  else
    echo "libtavlo OVER its budget of $((budget_bytes / 1000)) KB"
  fi
}

native_multiarch="$(gcc -print-multiarch)"
targets=(tavlo tavlo_footprint_bench)
build "$root/build-minsize" -DTAVLO_BUILD_BENCH=ON
sizes "$native_multiarch" "$native_multiarch" "$root/build-minsize"

if command -v aarch64-linux-gnu-g++ >/dev/null && [ -e /usr/lib/aarch64-linux-gnu/pkgconfig/libcurl.pc ]; then
  targets=(tavlo)
  build "$root/build-minsize-aarch64" -DTAVLO_BUILD_BENCH=OFF \
    --toolchain "$root/cmake/toolchains/aarch64-linux-gnu.cmake"
  sizes aarch64-linux-gnu aarch64-linux-gnu "$root/build-minsize-aarch64"
else
  echo "== aarch64: no cross compiler or arm64 libcurl here (scripts/cross-test.sh aarch64 installs them)"
fi

echo "== resident memory, $native_multiarch"
"$root/build-minsize/bench/tavlo_footprint_bench"
