# Checks that every C function and object the library's code gives default
# visibility (DL_EXPORT) is in LIST: the linker version script is made from
# that list and hides whatever it leaves out. ARCHIVE: libquarry.a.
cmake_minimum_required(VERSION 3.16)
execute_process(COMMAND readelf -sW ${ARCHIVE} OUTPUT_VARIABLE table RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "readelf failed on ${ARCHIVE}")
endif()
file(STRINGS ${LIST} listed REGEX "^[A-Za-z_]")
list(TRANSFORM listed REPLACE "[ \t].*$" "")
# Symbol table rows: Num: Value Size Type Bind Vis Ndx Name. Defined,
# global, default visibility, not a C++ or compiler-made name.
string(REGEX MATCHALL "[^\n]*GLOBAL +DEFAULT +[0-9]+ [A-Za-z][A-Za-z0-9_]*" rows "${table}")
set(missing "")
set(names "")
foreach(row IN LISTS rows)
  string(REGEX MATCH "[A-Za-z][A-Za-z0-9_]*$" name "${row}")
  list(APPEND names ${name})
  if(NOT name IN_LIST listed)
    list(APPEND missing ${name})
  endif()
endforeach()
list(REMOVE_DUPLICATES names)
if(missing)
  list(REMOVE_DUPLICATES missing)
  message(FATAL_ERROR "exported by the code but missing from ${LIST}: ${missing}")
endif()
list(LENGTH names count)
message(STATUS "${count} exported names, all listed")
