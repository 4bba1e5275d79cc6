#!/usr/bin/env bash
# Builds the fuzz targets with clang's libFuzzer (and AddressSanitizer, UBSan) and runs each
# on a copy of its seed corpus for a number of seconds (default 60).
#   scripts/fuzz.sh            every target, 60 s each
#   scripts/fuzz.sh 600        every target, 10 min each
# Crashing inputs are left in build-fuzz/findings/<target>/; add one to the target's seed
# corpus (fuzz/corpus/<name>/) once it is fixed, and the test run replays it from then on.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
seconds="${1:-60}"
"$root/scripts/install-deps.sh"  # clang and libFuzzer's runtime among them

build="$root/build-fuzz"
# The tools on: tavlo-queue's report is one of the targets.
CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DTAVLO_FUZZ=ON -DTAVLO_BUILD_TESTS=OFF -DTAVLO_BUILD_BENCH=OFF -DTAVLO_BUILD_TOOLS=ON \
  -DTAVLO_SANITIZE=address,undefined -DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link >/dev/null
targets=()
for source in "$root"/fuzz/*Fuzz.cpp; do
  name="$(basename "$source" .cpp)"
  name="${name%Fuzz}"; name="${name#Tavlo}"
  name="$(echo "$name" | sed -E 's/([a-z])([A-Z])/\1_\2/g' | tr 'A-Z' 'a-z')"
  targets+=("$name")
done
cmake --build "$build" --parallel "$(nproc)" --target $(printf 'tavlo_%s_fuzz ' "${targets[@]}")

status=0
for name in "${targets[@]}"; do
  work="$build/corpus/$name"
  findings="$build/findings/$name"
  mkdir -p "$work" "$findings"
  cp -n "$root/fuzz/corpus/$name"/* "$work"/ 2>/dev/null || true
  echo "== tavlo_${name}_fuzz for ${seconds}s"
  if ! "$build/fuzz/tavlo_${name}_fuzz" "$work" -max_total_time="$seconds" -max_len=65536 -rss_limit_mb=2048 \
      -timeout=10 -artifact_prefix="$findings/" -print_final_stats=1; then
    echo "tavlo_${name}_fuzz found a failure: see $findings" >&2
    status=1
  fi
done
exit $status
