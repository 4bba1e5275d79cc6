#!/usr/bin/env bash
# Sets up the machine and runs the whole gate CI runs (.ci/run):
#   1. the include-graph check of src/ (docs/architecture.md);
#   2. the build with warnings as errors (library, tests, tools, examples, benchmarks built
#      but not run, the API reference) and every test;
#   3. the test suite again under AddressSanitizer + UBSan, then under ThreadSanitizer;
#   4. each fuzz target, from its seed corpus, for TAVLO_FUZZ_SECONDS (default 60);
#   5. the aarch64 cross build and its unit tests under qemu-user (scripts/cross-test.sh).
# About twenty minutes on two cores from a clean clone, packages installed (docs/testing.md).
#
#   TAVLO_SANITIZE=address,undefined scripts/test.sh   only the suite under those sanitizers
#   TAVLO_SANITIZE=thread scripts/test.sh              only the suite under ThreadSanitizer
#   TAVLO_QUICK=1 scripts/test.sh                      only steps 1 and 2
#   TAVLO_BUILD_DIR=...                                the build folder of step 2
#   TAVLO_CROSS=armhf | TAVLO_CROSS=                   step 5 for armhf, or no step 5
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/install-deps.sh"

# The integration tests talk to servers on the loopback address: never through a proxy.
export no_proxy="127.0.0.1,localhost${no_proxy:+,$no_proxy}"
export NO_PROXY="$no_proxy"
jobs="$(nproc)"

# One configuration: configure, build, run its tests. Extra arguments go to cmake.
suite() {
  local build="$1" sanitize="$2"
  shift 2
  echo "== $(date +%T) ${sanitize:-plain} build in $build"
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAVLO_WERROR=ON -DTAVLO_SANITIZE="$sanitize" "$@"
  cmake --build "$build" --parallel "$jobs"
  ctest --test-dir "$build" --output-on-failure --parallel "$jobs" --timeout 300
}

# Under a sanitizer the suite alone: the tools, examples and packages are the plain
# build's to check, and -O1 with line tables only (-g1) keeps the instrumented builds short.
sanitized() {
  local sanitize="$1"
  suite "$root/build-${sanitize//,/-}" "$sanitize" -DTAVLO_BUILD_TOOLS=OFF -DTAVLO_BUILD_EXAMPLES=OFF \
    -DTAVLO_BUILD_BENCH=OFF -DTAVLO_INSTALL=OFF \
    "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1" "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O1 -g1"
}

if [ -n "${TAVLO_SANITIZE:-}" ]; then
  sanitized "$TAVLO_SANITIZE"
  exit 0
fi

# The folders of src/ include downwards only: checked first, in a second, so a layering
# slip fails before the build starts.
python3 "$root/scripts/check-layers.py" "$root"

suite "${TAVLO_BUILD_DIR:-$root/build}" ""
[ -n "${TAVLO_QUICK:-}" ] && exit 0

sanitized address,undefined
sanitized thread
echo "== $(date +%T) fuzz targets, ${TAVLO_FUZZ_SECONDS:-60} s each"
bash "$root/scripts/fuzz.sh" "${TAVLO_FUZZ_SECONDS:-60}"
# --- An ARM cross build and its unit tests under qemu-user ----------------------------------
# aarch64 by default, about 5 minutes more on two cores, installs included (docs/testing.md);
# TAVLO_CROSS=armhf for the 32-bit one, TAVLO_CROSS= (empty) to leave it out. A mirror whose
# indexes do not download whole is reported and skipped: it is no fault of the project's.
if [ -n "${TAVLO_CROSS-aarch64}" ]; then
  status=0
  bash "$root/scripts/cross-test.sh" "${TAVLO_CROSS-aarch64}" || status=$?
  if [ "$status" -eq 75 ]; then
    echo "== SKIPPED: the ${TAVLO_CROSS-aarch64} package indexes did not download; no cross test this run" >&2
  elif [ "$status" -ne 0 ]; then
    exit "$status"
  fi
fi
echo "== $(date +%T) every check passed"
