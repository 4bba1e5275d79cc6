# Fails unless the shared library exports the version symbols and hides the internals.
execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY} OUTPUT_VARIABLE symbols RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()
foreach(symbol Tavlo_tvOSVersionString Tavlo_tvOSVersionNumber)
  if(NOT symbols MATCHES "[ \n][DR] ${symbol}\n")
    message(FATAL_ERROR "${symbol} is not exported as data by ${LIBRARY}")
  endif()
endforeach()
# Internal classes must stay private to the library.
if(symbols MATCHES "TavloKeyedUnarchiver|TavloLogger")
  message(FATAL_ERROR "internal symbols leak from ${LIBRARY}")
endif()
