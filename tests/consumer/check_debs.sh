#!/bin/sh
# Makes the Debian packages from the built project with cpack, then builds and runs the
# consumer programs against the packages' files, unpacked into a scratch folder.
# Usage: check_debs.sh BUILD_DIR WORK_DIR CXX GENERATOR [EXTRA_FLAGS [CC]]
set -eu
build=$1
work=$2
rm -rf "$work"
mkdir -p "$work"
(cd "$build" && cpack -B "$work/packages" >"$work/cpack.log" 2>&1) || {
  echo "FAIL: cpack: $(cat "$work/cpack.log")" >&2
  exit 1
}
for package in libtavlo5 libtavlo-dev libtavlo5-dbgsym; do
  ls "$work/packages/${package}_"*.*deb >/dev/null 2>&1 || {
    echo "FAIL: no $package package in $(ls "$work/packages")" >&2
    exit 1
  }
done
TAVLO_CONSUMER_DEBS="$work/packages" exec sh "$(dirname "$0")/check_consumer.sh" "$build" "$work/consumer" "$3" "$4" "${5:-}" "${6:-cc}"
