# Debian packages made by `cpack` in a build folder (scripts/package.sh does it all):
#   libtavlo5        the shared library, stripped
#   libtavlo-dev     headers, the static library, CMake and pkg-config files, tavlo-queue
#   *-dbgsym         their debug symbols, split out, for a crash report from a box
# The build type should carry debug information (RelWithDebInfo) for the symbols to be
# worth shipping.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libtavlo)
set(CPACK_PACKAGE_VENDOR "Tavlo")
set(CPACK_PACKAGE_CONTACT "Tavlo engineering <engineering@tavlo.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtavlo${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtavlo-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
# The runtime's dependencies are read off the library itself (dpkg-shlibdeps); the -dev
# package needs the exact library and the headers the static library's users link against.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libtavlo${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), libcurl4-openssl-dev, uuid-dev")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS ON)  # tavlo-queue's own
# The debug symbols go into -dbgsym packages beside them, which also strips the packaged
# ELF files (CPACK_STRIP_FILES would strip them first and leave no symbols to split out).
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
include(CPack)
