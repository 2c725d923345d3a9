# Fails unless the dynamic symbols that LIBRARY defines are exactly what the
# "global:" part of its export map MAP names: every exported symbol matches an
# entry, and every entry matches an exported symbol, so the map holds nothing
# stale. Entries are C names, and in an extern "C++" block demangled names:
# a glob (ksu_logmsg_str*) or, in double quotes, one exact name. FORBIDDEN,
# when given, is a regular expression that no exported name may match, even
# one that the map names.
execute_process(COMMAND nm -D -C --defined-only ${LIBRARY}
  OUTPUT_VARIABLE nm_output RESULT_VARIABLE nm_result)
if(NOT nm_result EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()
string(REGEX MATCHALL "[^\n]+" nm_lines "${nm_output}")
set(exported "")
foreach(line IN LISTS nm_lines)
  string(REGEX REPLACE "^[0-9a-fA-F]* *[A-Za-z] " "" name "${line}")
  string(REGEX REPLACE "@@?[A-Za-z0-9_.]*$" "" name "${name}")
  list(APPEND exported "${name}")
endforeach()

# The entries, each with the regular expression that its name or glob means.
file(READ ${MAP} map_text)
string(REGEX REPLACE "/\\*([^*]|\\*+[^*/])*\\*+/" "" map_text "${map_text}")
string(REGEX REPLACE ".*global:(.*)local:.*" "\\1" globals "${map_text}")
set(entries "")
set(patterns "")
foreach(entry IN LISTS globals)
  string(REGEX REPLACE "^.*{" "" entry "${entry}")
  string(REGEX REPLACE "}" "" entry "${entry}")
  string(STRIP "${entry}" entry)
  if(entry STREQUAL "")
    continue()
  endif()
  if(entry MATCHES "^\"(.*)\"$")
    set(name "${CMAKE_MATCH_1}")
    string(REGEX REPLACE "([][\\\\.^$+?()|{}*])" "\\\\\\1" pattern "${name}")
  else()
    string(REGEX REPLACE "([][\\\\.^$+()|{}])" "\\\\\\1" pattern "${entry}")
    string(REPLACE "*" ".*" pattern "${pattern}")
    string(REPLACE "?" "." pattern "${pattern}")
  endif()
  list(APPEND entries "${entry}")
  list(APPEND patterns "^${pattern}$")
endforeach()

# An exported name that no entry matches is unnamed; one that FORBIDDEN
# matches is forbidden.
list(JOIN patterns "|" any_entry)
set(unnamed "")
set(forbidden "")
foreach(name IN LISTS exported)
  if(NOT name MATCHES "${any_entry}")
    string(APPEND unnamed "\n    ${name}")
  endif()
  if(DEFINED FORBIDDEN AND name MATCHES "${FORBIDDEN}")
    string(APPEND forbidden "\n    ${name}")
  endif()
endforeach()

# An entry that matches no exported name is stale.
set(stale "")
list(LENGTH entries count)
math(EXPR last "${count} - 1")
foreach(index RANGE ${last})
  list(GET entries ${index} entry)
  list(GET patterns ${index} pattern)
  set(found FALSE)
  foreach(name IN LISTS exported)
    if(name MATCHES "${pattern}")
      set(found TRUE)
      break()
    endif()
  endforeach()
  if(NOT found)
    string(APPEND stale "\n    ${entry}")
  endif()
endforeach()

if(NOT forbidden STREQUAL "")
  message(FATAL_ERROR "${LIBRARY} exports what it must not (${FORBIDDEN}):${forbidden}")
endif()

if(NOT unnamed STREQUAL "" OR NOT stale STREQUAL "")
  message(FATAL_ERROR "${LIBRARY} and ${MAP} differ\n  exported, not in the map:${unnamed}\n"
                      "  in the map, not exported:${stale}")
endif()
list(LENGTH exported exported_count)
message(STATUS "${exported_count} exports, each named by ${MAP}")
