# Fails unless the dynamic symbols that LIBRARY defines are exactly the
# "global:" names of the export map MAP.
execute_process(COMMAND nm -D --defined-only ${LIBRARY}
  OUTPUT_VARIABLE nm_output RESULT_VARIABLE nm_result)
if(NOT nm_result EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()
string(REGEX MATCHALL "[^\n]+" nm_lines "${nm_output}")
set(exported "")
foreach(line IN LISTS nm_lines)
  string(REGEX REPLACE "^[0-9a-fA-F]* *[A-Za-z] " "" name "${line}")
  string(REGEX REPLACE "@.*$" "" name "${name}")
  list(APPEND exported "${name}")
endforeach()
list(SORT exported)

file(READ ${MAP} map_text)
string(REGEX REPLACE ".*global:(.*)local:.*" "\\1" globals "${map_text}")
string(REGEX MATCHALL "[A-Za-z_][A-Za-z0-9_]*" expected "${globals}")
list(SORT expected)

if(NOT exported STREQUAL expected)
  message(FATAL_ERROR "exports differ\n  exported: ${exported}\n  expected: ${expected}")
endif()
message(STATUS "exports: ${exported}")
