#!/usr/bin/env bash
# Builds the benchmarks in Release and runs each, printing every figure beside its floor.
#   scripts/bench.sh                     all benchmarks
#   scripts/bench.sh --benchmark_filter=load   arguments go to every benchmark executable
#   TAVLO_BENCH_DIR=/some/disk scripts/bench.sh   where the queue benchmark writes its files
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/install-deps.sh"

build="$root/build-bench"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DTAVLO_BUILD_BENCH=ON >/dev/null
cmake --build "$build" --target tavlo_benches --parallel "$(nproc)"
for bench in "$build"/bench/tavlo_*_bench; do
  echo "== $(basename "$bench")"
  "$bench" "$@"
done
