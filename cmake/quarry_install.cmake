# Installation for firmware integrators: the public header (the internal
# one on request), the shared library with its SOVERSION links, the static
# library, the quarry tool, a pkg-config file and a CMake package that gives
# quarry::quarry (shared) and quarry::quarry_static.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

option(QUARRY_INSTALL_INTERNAL_HEADER
       "Install quarry_internal.h with quarry.h (always available as component 'internal')" OFF)

set(QUARRY_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/quarry)

set_target_properties(quarry PROPERTIES EXPORT_NAME quarry)
set_target_properties(quarry_static PROPERTIES EXPORT_NAME quarry_static)
install(TARGETS quarry quarry_static EXPORT quarryTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# The tool finds the library beside it wherever the prefix is moved.
set_target_properties(quarry_cli PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
install(TARGETS quarry_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES include/quarry.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(QUARRY_INSTALL_INTERNAL_HEADER)
  install(FILES include/quarry_internal.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
          COMPONENT internal)
else()
  install(FILES include/quarry_internal.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
          COMPONENT internal EXCLUDE_FROM_ALL)
endif()

install(EXPORT quarryTargets NAMESPACE quarry:: DESTINATION ${QUARRY_CMAKE_DIR})
configure_package_config_file(cmake/quarryConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/quarryConfig.cmake INSTALL_DESTINATION ${QUARRY_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/quarryConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/quarryConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/quarryConfigVersion.cmake
        DESTINATION ${QUARRY_CMAKE_DIR})

# The .pc file's paths are relative to its own place, so a staged install
# (DESTDIR, a sysroot) stays usable.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(QUARRY_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
  set(QUARRY_PC_PREFIX "\${pcfiledir}/${to_prefix}")
endif()
configure_file(cmake/quarry.pc.in ${CMAKE_CURRENT_BINARY_DIR}/quarry.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/quarry.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The tool's manual page.
install(FILES tools/quarry.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
