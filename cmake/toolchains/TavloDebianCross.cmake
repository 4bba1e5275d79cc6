# What the Debian cross toolchain files share; they set TAVLO_CROSS_TRIPLET (the GNU
# triplet, which is also Debian's multiarch folder name) and TAVLO_CROSS_QEMU.
#
# Debian's multiarch layout needs no separate sysroot: the target's headers and libraries
# sit under /usr/include/<triplet> and /usr/lib/<triplet>, which the cross compiler
# searches by itself. What must not happen is that CMake or pkg-config picks up the build
# machine's own libraries: CMake looks in the <triplet> subfolders of the usual places
# (CMAKE_LIBRARY_ARCHITECTURE) and under the cross compiler's own root, pkg-config reads
# the target's .pc files only.
set(CMAKE_SYSTEM_NAME Linux)
string(REGEX MATCH "^[^-]+" CMAKE_SYSTEM_PROCESSOR "${TAVLO_CROSS_TRIPLET}")
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "arm")
  set(CMAKE_SYSTEM_PROCESSOR armv7l)
endif()

set(CMAKE_C_COMPILER ${TAVLO_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${TAVLO_CROSS_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${TAVLO_CROSS_TRIPLET})

# Programs (python3, the code generators) come from the build machine. Libraries, headers
# and CMake packages are looked for both under the roots and in the system's own places
# (BOTH): the multiarch folders are not under any one root. A root given on the command line
# (-DCMAKE_FIND_ROOT_PATH=<staging folder> with Tavlo installed in it) is searched too.
list(APPEND CMAKE_FIND_ROOT_PATH /usr/${TAVLO_CROSS_TRIPLET})
list(REMOVE_DUPLICATES CMAKE_FIND_ROOT_PATH)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# pkg-config reads the target's .pc files only (the build machine's would hand the
# compiler x86-64 libraries). A caller's own PKG_CONFIG_LIBDIR, e.g. an SDK's, wins.
if(NOT DEFINED ENV{PKG_CONFIG_LIBDIR})
  set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/${TAVLO_CROSS_TRIPLET}/pkgconfig:/usr/share/pkgconfig")
endif()

# Tests, test discovery (gtest_discover_tests runs each test program to list its cases)
# and anything else CMake runs that was built here go through the user-mode emulator.
#
# The emulator is given no "-L /usr/<triplet>" on purpose. That folder holds the cross
# compiler's own copy of the C library (libc6-<arch>-cross), a different build from the
# target's libc6:<arch> that the arm64/armhf development packages bring. With -L the
# program gets that copy's dynamic loader, but the loader then finds libc.so.6 through
# /etc/ld.so.cache in /lib/<triplet>: a loader and a C library from two builds, whose
# private shared state does not match. The first pthread_create then loops for ever
# walking a list it reads at the wrong place (a 10-line C program that starts one thread
# hangs the same way). Without -L the program's loader is /lib/ld-linux-*.so.*, installed
# by libc6:<arch> with the libraries it belongs to. Only where that is missing, the
# cross copy is used alone.
find_program(TAVLO_CROSS_EMULATOR ${TAVLO_CROSS_QEMU})
if(TAVLO_CROSS_EMULATOR)
  file(GLOB TAVLO_CROSS_TARGET_LOADER /lib/${TAVLO_CROSS_TRIPLET}/ld-linux*.so.*)
  if(TAVLO_CROSS_TARGET_LOADER)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${TAVLO_CROSS_EMULATOR})
  else()
    set(CMAKE_CROSSCOMPILING_EMULATOR ${TAVLO_CROSS_EMULATOR} -L /usr/${TAVLO_CROSS_TRIPLET}
        -E LD_LIBRARY_PATH=/usr/${TAVLO_CROSS_TRIPLET}/lib)
  endif()
endif()
