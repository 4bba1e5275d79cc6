#!/usr/bin/env bash
# Installs the Debian 12 packages Tavlo builds, tests, fuzzes (clang, libFuzzer) and
# benchmarks with.
# Idempotent: when every package is already present it touches nothing.
set -euo pipefail

packages=(
  g++ cmake pkg-config make
  libcurl4-openssl-dev libplist-dev uuid-dev
  libcpp-httplib-dev libgtest-dev googletest libbenchmark-dev clang libclang-rt-dev
  python3 binutils dpkg-dev doxygen
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  sudo_cmd=(sudo)
fi

echo "Installing: ${missing[*]}"
"${sudo_cmd[@]}" apt-get update
DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
