#!/usr/bin/env bash
# Builds Tavlo's Debian packages and checks them: the runtime package (libtavlo5, the
# shared library), the -dev package (headers, static library, CMake and pkg-config
# files, tavlo-queue) and their -dbgsym packages holding the debug symbols split off the
# packaged binaries. The packages are unpacked into a scratch prefix and the C++ and C
# consumer programs are built against it, through CMake and pkg-config, shared and
# static, and run.
#   scripts/package.sh                          packages in build-package/packages
#   TAVLO_PACKAGE_DIR=/some/dir scripts/package.sh
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/install-deps.sh"

build="${TAVLO_PACKAGE_DIR:-$root/build-package}"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAVLO_WERROR=ON \
  -DTAVLO_BUILD_TESTS=OFF -DTAVLO_BUILD_BENCH=OFF -DTAVLO_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" --parallel "$(nproc)"
sh "$root/tests/consumer/check_debs.sh" "$build" "$build/packaging" "$(command -v c++)" "Unix Makefiles" "" \
  "$(command -v cc)"
rm -rf "$build/packages"
mkdir -p "$build/packages"
cp "$build"/packaging/packages/*.*deb "$build/packages/"

for deb in "$build"/packages/*.*deb; do
  echo "$(basename "$deb"): $(dpkg-deb -f "$deb" Package) $(dpkg-deb -f "$deb" Version), $(du -k "$deb" | cut -f1) KB"
done
# The packaged shared library carries no debug sections: they are in libtavlo5-dbgsym.
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
dpkg-deb -x "$(ls "$build"/packages/libtavlo[0-9]*_*.deb)" "$scratch"
library=$(find "$scratch" -name 'libtavlo.so.*.*' | head -n 1)
if readelf -S "$library" | grep -q '\.debug_'; then
  echo "$library still has debug sections" >&2
  exit 1
fi
echo "$(basename "$library") in the runtime package: $(du -k "$library" | cut -f1) KB, without debug sections"
