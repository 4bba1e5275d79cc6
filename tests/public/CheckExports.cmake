# Fails unless the shared library exports its public API and nothing else: Tavlo's classes,
# functions, their type information and virtual tables, the C symbols and the version data
# (which TavloPublicApiTest links against). Anything else, such as a standard library
# template compiled into the library or an internal class, would become part of its ABI.
execute_process(COMMAND ${NM} -D --defined-only -C ${LIBRARY} OUTPUT_VARIABLE symbols RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()
string(REPLACE "\n" ";" lines "${symbols}")
set(foreign "")
foreach(line IN LISTS lines)
  string(REGEX REPLACE "^[0-9a-fA-F]* *[A-Za-z] " "" name "${line}")
  if(name MATCHES "TavloKeyedUnarchiver|TavloLogger" OR NOT name MATCHES
     "^$|^(Tavlo|tavlo_|typeinfo for Tavlo|typeinfo name for Tavlo|vtable for Tavlo|(non-)?virtual thunk to Tavlo)")
    string(APPEND foreign "\n  ${name}")
  endif()
endforeach()
if(foreign)
  message(FATAL_ERROR "${LIBRARY} exports more than the public API:${foreign}")
endif()
