#!/usr/bin/env bash
# Sets up the machine, builds Tavlo and runs tavlo-demo: three screens and a film measured
# against a server embedded in the demo, every hit printed as the server receives it, in
# accelerated time. Exits with the demo's status: 0 when every expected hit arrived.
#   scripts/demo.sh --real-time    options are passed to tavlo-demo (--help lists them)
#   TAVLO_BUILD_DIR=...            chooses the build folder (default build)
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/install-deps.sh"

build="${TAVLO_BUILD_DIR:-$root/build}"
mkdir -p "$build"
log="$build/demo-build.log"
echo "Building tavlo-demo in $build (output in $log)"
if ! { cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAVLO_WERROR=ON -DTAVLO_SANITIZE= &&
       cmake --build "$build" --parallel "$(nproc)" --target tavlo-demo tavlo-queue; } >"$log" 2>&1; then
  cat "$log" >&2
  echo "The build failed; its output is above and in $log" >&2
  exit 1
fi
echo "tavlo-queue, to read the queue file the demo names: $build/tools/tavlo-queue"
echo
exec "$build/tools/tavlo-demo" "$@"
