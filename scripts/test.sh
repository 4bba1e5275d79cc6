#!/usr/bin/env bash
# Sets up the machine, builds Tavlo with warnings as errors and runs every test.
#   TAVLO_SANITIZE=address,undefined scripts/test.sh   runs the suite under sanitizers
#   TAVLO_BUILD_DIR=...                                 chooses the build folder
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/install-deps.sh"

# The folders of src/ include downwards only (docs/architecture.md): checked first, in a
# second, so a layering slip fails before the build starts.
python3 "$root/scripts/check-layers.py" "$root"

build="${TAVLO_BUILD_DIR:-$root/build}"
sanitize="${TAVLO_SANITIZE:-}"
if [ -n "$sanitize" ] && [ -z "${TAVLO_BUILD_DIR:-}" ]; then
  build="$root/build-${sanitize//,/-}"
fi

# The integration tests talk to servers on the loopback address: never through a proxy.
export no_proxy="127.0.0.1,localhost${no_proxy:+,$no_proxy}"
export NO_PROXY="$no_proxy"

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DTAVLO_WERROR=ON -DTAVLO_SANITIZE="$sanitize"
cmake --build "$build" --parallel "$(nproc)"
ctest --test-dir "$build" --output-on-failure --parallel "$(nproc)" --timeout 300
