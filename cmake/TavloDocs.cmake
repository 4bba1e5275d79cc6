# The API reference, made by Doxygen from the public headers (docs/Doxyfile.in):
#   cmake --build BUILD --target tavlo_docs      HTML in BUILD/docs/api/html
# The test suite builds it once more with every warning an error: a public name without
# its documentation fails CI. Skipped, with a note, where Doxygen is not installed.
find_package(Doxygen QUIET)
if(NOT DOXYGEN_FOUND)
  message(STATUS "Doxygen not found: no API reference (tavlo_docs)")
  return()
endif()

set(TAVLO_DOCS_OUTPUT ${PROJECT_BINARY_DIR}/docs/api)
set(TAVLO_DOCS_WARN_AS_ERROR NO)
configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${PROJECT_BINARY_DIR}/docs/Doxyfile @ONLY)
add_custom_target(tavlo_docs
  COMMAND ${DOXYGEN_EXECUTABLE} ${PROJECT_BINARY_DIR}/docs/Doxyfile
  COMMENT "Building the API reference in ${TAVLO_DOCS_OUTPUT}/html"
  VERBATIM)

if(TAVLO_BUILD_TESTS)
  set(TAVLO_DOCS_OUTPUT ${PROJECT_BINARY_DIR}/docs/api-check)
  set(TAVLO_DOCS_WARN_AS_ERROR FAIL_ON_WARNINGS)
  configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${PROJECT_BINARY_DIR}/docs/Doxyfile-check @ONLY)
  add_test(NAME tavlo_api_reference_documents_every_public_name
    COMMAND ${DOXYGEN_EXECUTABLE} ${PROJECT_BINARY_DIR}/docs/Doxyfile-check)
  set_tests_properties(tavlo_api_reference_documents_every_public_name PROPERTIES LABELS unit)
endif()
