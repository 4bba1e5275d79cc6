#!/bin/sh
# Installs the built project into a fresh prefix and builds the C++ consumer application
# and the pure C one against it, through CMake (find_package) and through pkg-config, each
# time linked with the shared and with the static library, and a test on the installed
# Tavlo::testkit through both, then runs the ten programs, and a C program that finds the
# shared library in the private prefix through its rpath alone.
# Usage: check_consumer.sh BUILD_DIR WORK_DIR CXX GENERATOR [EXTRA_FLAGS [CC]]
# EXTRA_FLAGS are given to every compile and link (the sanitizers the project was built with).
# With TAVLO_CONSUMER_DEBS=DIR, the prefix is made of the Debian packages in DIR (unpacked,
# not installed) instead of `cmake --install BUILD_DIR`.
set -eu

build=$1
work=$2
cxx=$3
generator=$4
flags=${5:-}
cc=${6:-cc}
consumer=$(cd "$(dirname "$0")" && pwd)

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

rm -rf "$work"
mkdir -p "$work"
prefix=$work/prefix
if [ -n "${TAVLO_CONSUMER_DEBS:-}" ]; then
  for deb in "$TAVLO_CONSUMER_DEBS"/*.deb; do
    dpkg-deb -x "$deb" "$work/root" || fail "$deb does not unpack"
  done
  prefix=$work/root/usr
else
  cmake --install "$build" --prefix "$prefix" >"$work/install.log" || fail "cmake --install failed: $(cat "$work/install.log")"
fi

# What an application developer gets: public headers only, both libraries, both package files.
shared=$(find "$prefix" -name libtavlo.so -print | head -n 1)
[ -n "$shared" ] || fail "no libtavlo.so installed"
libdir=$(dirname "$shared")
for file in "$libdir/libtavlo.a" "$libdir/pkgconfig/tavlo.pc" "$libdir/cmake/Tavlo/TavloConfig.cmake" \
    "$prefix/include/tavlo/TavloAudienceTagger.h" "$prefix/include/tavlo/platform/TavloPlatform.h" \
    "$prefix/bin/tavlo-queue" "$libdir/libtavlo_testkit.a" "$libdir/pkgconfig/tavlo-testkit.pc" \
    "$prefix/include/tavlo/testkit/TavloManualMainQueue.h"; do
  [ -e "$file" ] || fail "$file is not installed"
done
for internal in request agent auth platform/TavloLogger.h tavlo/TavloVersion.h.in; do
  [ ! -e "$prefix/include/$internal" ] || fail "internal file $internal is installed"
done
"$prefix/bin/tavlo-queue" --version >/dev/null || fail "the installed tavlo-queue does not run"

# Through CMake.
cmake -S "$consumer" -B "$work/cmake" -G "$generator" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$flags" >"$work/cmake-configure.log" 2>&1 \
  || fail "the consumer does not configure: $(cat "$work/cmake-configure.log")"
cmake --build "$work/cmake" >"$work/cmake-build.log" 2>&1 || fail "the consumer does not build: $(cat "$work/cmake-build.log")"
# A C project never enables C++: the package must bring the C++ runtime itself.
cmake -S "$consumer/c" -B "$work/cmake-c" -G "$generator" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_C_FLAGS="$flags" >"$work/cmake-c-configure.log" 2>&1 \
  || fail "the C consumer does not configure: $(cat "$work/cmake-c-configure.log")"
cmake --build "$work/cmake-c" >"$work/cmake-c-build.log" 2>&1 \
  || fail "the C consumer does not build: $(cat "$work/cmake-c-build.log")"

# Through pkg-config. --static adds what libtavlo.a needs; -l:libtavlo.a then picks the
# archive where -ltavlo would pick the shared library.
export PKG_CONFIG_PATH="$libdir/pkgconfig"
cflags=$(pkg-config --cflags tavlo) || fail "pkg-config --cflags tavlo"
libs=$(pkg-config --libs tavlo) || fail "pkg-config --libs tavlo"
static_libs=$(pkg-config --static --libs tavlo) || fail "pkg-config --static --libs tavlo"
# libstdc++ and libm (operator new, floor) too: a C compiler drives the link of a C program.
for dependency in -lcurl -luuid -pthread -lstdc++ -lm; do
  case " $static_libs " in
    *" $dependency "*) ;;
    *) fail "pkg-config --static --libs tavlo lacks $dependency: $static_libs" ;;
  esac
done
static_libs=$(printf '%s' "$static_libs" | sed 's/-ltavlo\( \|$\)/-l:libtavlo.a\1/')
# shellcheck disable=SC2086 # the flags are lists of words
"$cxx" -std=c++20 $flags $cflags "$consumer/main.cpp" -o "$work/pkg-config-shared" $libs \
  || fail "the consumer does not build with pkg-config --libs"
# shellcheck disable=SC2086
"$cxx" -std=c++20 $flags $cflags "$consumer/main.cpp" -o "$work/pkg-config-static" $static_libs \
  || fail "the consumer does not build with pkg-config --static --libs"
kit_cflags=$(pkg-config --cflags tavlo-testkit) || fail "pkg-config --cflags tavlo-testkit"
kit_libs=$(pkg-config --libs tavlo-testkit) || fail "pkg-config --libs tavlo-testkit"
# shellcheck disable=SC2086
"$cxx" -std=c++20 $flags $kit_cflags "$consumer/testkit.cpp" -o "$work/pkg-config-testkit-shared" $kit_libs \
  || fail "the test-kit consumer does not build with pkg-config --libs tavlo-testkit"
# shellcheck disable=SC2086
"$cc" -std=c11 $flags $cflags "$consumer/c/main.c" -o "$work/pkg-config-c-shared" $libs \
  || fail "the C consumer does not build with pkg-config --libs"
# shellcheck disable=SC2086
"$cc" -std=c11 $flags $cflags "$consumer/c/main.c" -o "$work/pkg-config-c-static" $static_libs \
  || fail "the C consumer does not build with a C compiler and pkg-config --static --libs"

# The shared library in a private prefix found at run time through an rpath, as the
# integration guide shows: this one runs without LD_LIBRARY_PATH.
rpath=$(pkg-config --variable=libdir tavlo) || fail "pkg-config --variable=libdir tavlo"
# shellcheck disable=SC2086
"$cc" -std=c11 $flags $cflags "$consumer/c/main.c" -o "$work/pkg-config-c-rpath-shared" $libs -Wl,-rpath,"$rpath" \
  || fail "the C consumer does not build with an rpath"
if ! output=$(env -u LD_LIBRARY_PATH XDG_DATA_HOME="$work/data" "$work/pkg-config-c-rpath-shared" 2>"$work/run.log"); then
  fail "pkg-config-c-rpath-shared does not find libtavlo.so through its rpath: $output $(cat "$work/run.log")"
fi
[ "$output" = "consumer: OK" ] || fail "pkg-config-c-rpath-shared printed: $output"

# Run them all, keeping the library's files out of the user's home.
for program in cmake/consumer_shared cmake/consumer_static pkg-config-shared pkg-config-static \
    cmake/consumer_testkit_shared pkg-config-testkit-shared \
    cmake-c/c_consumer_shared cmake-c/c_consumer_static pkg-config-c-shared pkg-config-c-static; do
  if ! output=$(XDG_DATA_HOME="$work/data" LD_LIBRARY_PATH="$libdir" "$work/$program" 2>"$work/run.log"); then
    fail "$program exits with an error: $output $(cat "$work/run.log")"
  fi
  case "$output" in
    *"consumer: OK"*) ;;
    *) fail "$program printed: $output" ;;
  esac
  needs_shared=no
  if readelf -d "$work/$program" | grep -q 'NEEDED.*libtavlo\.so'; then needs_shared=yes; fi
  case "$program:$needs_shared" in
    *shared:yes | *static:no) ;;
    *) fail "$program: linked against libtavlo.so: $needs_shared" ;;
  esac
  echo "$program: $output"
done
echo "consumer builds and runs through CMake and pkg-config: OK"
