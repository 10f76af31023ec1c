# Symbol versions of libquarry.so. Every name of tests/abi/exported_symbols.txt
# goes under one version node, everything else is local; the list is read at
# configure time, so names added to it later are covered by the next build.
# -Bsymbolic-functions binds the library's own calls to its exported
# functions (curl_m*printf, Curl_*) inside the library: neither an
# executable nor another library of the same names (libcurl) can take them
# over. Exported data stays interposable, as copy relocations need.
set(QUARRY_EXPORT_LIST ${PROJECT_SOURCE_DIR}/tests/abi/exported_symbols.txt)
set(QUARRY_SYMBOL_VERSION QUARRY_${PROJECT_VERSION_MAJOR})
set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
             ${QUARRY_EXPORT_LIST})

file(STRINGS ${QUARRY_EXPORT_LIST} quarry_exported REGEX "^[A-Za-z_]")
list(TRANSFORM quarry_exported REPLACE "[ \t].*$" "")
list(REMOVE_DUPLICATES quarry_exported)
list(JOIN quarry_exported ";\n    " quarry_global)
set(QUARRY_VERSION_SCRIPT ${PROJECT_BINARY_DIR}/libquarry.map)
file(CONFIGURE OUTPUT ${QUARRY_VERSION_SCRIPT} CONTENT
     "${QUARRY_SYMBOL_VERSION} {\n  global:\n    ${quarry_global};\n  local:\n    *;\n};\n")

target_link_options(quarry PRIVATE "LINKER:--version-script=${QUARRY_VERSION_SCRIPT}"
                    "LINKER:-Bsymbolic-functions")
set_property(TARGET quarry APPEND PROPERTY LINK_DEPENDS ${QUARRY_VERSION_SCRIPT})
