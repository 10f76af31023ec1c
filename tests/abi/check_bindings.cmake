# Runs PROGRAM with the dynamic linker reporting every binding it makes at
# start-up, then checks that libquarry's and libcurl's references to the
# names both export (curl_m*printf) and to Curl_* stay inside the library
# that made them. libcurl calls its own through its PLT, so its bindings
# must show up; libquarry's are bound at link time (own_printf_test shows
# that), so any of its bindings seen here come from the program's look-ups.
cmake_minimum_required(VERSION 3.16)
execute_process(COMMAND ${CMAKE_COMMAND} -E env LD_DEBUG=bindings LD_BIND_NOW=1 ${PROGRAM}
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
string(REGEX REPLACE "[ \t]*[0-9]+:\t[^\n]*\n" "" messages "${err}")
message(STATUS "${out}${messages}")
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${PROGRAM} failed (${rc})")
endif()

string(REGEX MATCHALL "binding file [^\n]*" bindings "${err}")
set(pattern "binding file ([^ ]+) \\[[0-9]+\\] to ([^ ]+) \\[[0-9]+\\]: [a-z]+ symbol `([^']+)'")
set(wrong "")
set(curl_own 0)
foreach(binding IN LISTS bindings)
  if(NOT binding MATCHES "${pattern}")
    continue()
  endif()
  set(from "${CMAKE_MATCH_1}")
  set(to "${CMAKE_MATCH_2}")
  set(symbol "${CMAKE_MATCH_3}")
  if(NOT symbol MATCHES "^(curl_m[a-z]*printf|Curl_)")
    continue()
  endif()
  get_filename_component(from_name "${from}" NAME)
  get_filename_component(to_name "${to}" NAME)
  if(from_name MATCHES "^(libquarry|libcurl)" AND NOT from_name STREQUAL to_name)
    list(APPEND wrong "${from_name} -> ${to_name}: ${symbol}")
  elseif(from_name MATCHES "^libcurl")
    math(EXPR curl_own "${curl_own} + 1")
  endif()
endforeach()
if(wrong)
  message(FATAL_ERROR "calls bound into the other library: ${wrong}")
endif()
if(curl_own EQUAL 0)
  message(FATAL_ERROR "no binding of libcurl's own curl_m*printf calls seen")
endif()
message(STATUS "libcurl's ${curl_own} bindings of its curl_m*printf calls stay in libcurl")
