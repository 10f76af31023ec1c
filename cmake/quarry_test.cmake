# Test code is compiled without optimisation: GoogleTest's templates under
# the sanitizers take about seven times longer to compile at -O2, and tests
# gain nothing from speed. The library itself keeps the build type's flags.
set(QUARRY_TEST_COMPILE_OPTIONS -O0)

# quarry_test_flags(TARGET): the options and definitions every test
# executable is compiled with.
function(quarry_test_flags name)
  target_compile_options(${name} PRIVATE ${QUARRY_WARNINGS} ${QUARRY_TEST_COMPILE_OPTIONS})
  target_compile_definitions(${name} PRIVATE OPENSSL_SUPPRESS_DEPRECATED _GNU_SOURCE
      QUARRY_SOURCE_DIR="${PROJECT_SOURCE_DIR}" QUARRY_BINARY_DIR="${PROJECT_BINARY_DIR}")
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
endfunction()

# GoogleTest's headers are parsed once, into a precompiled header that every
# test made by quarry_add_test reuses; it holds only system and GoogleTest
# headers, so the tests' own includes decide everything else.
if(QUARRY_TESTS)
  find_package(GTest CONFIG REQUIRED)
  add_executable(quarry_test_pch ${CMAKE_CURRENT_LIST_DIR}/test_pch_main.cc)
  quarry_test_flags(quarry_test_pch)
  target_link_libraries(quarry_test_pch PRIVATE GTest::gtest GTest::gmock)
  target_precompile_headers(quarry_test_pch PRIVATE
      <gtest/gtest.h> <gmock/gmock.h> <string> <vector> <memory> <thread> <functional>)
endif()

# quarry_add_test(NAME SOURCE... [LABELS l...]): one GoogleTest executable per
# test file, linked against the static library so hidden helpers are reachable.
function(quarry_add_test name)
  if(NOT QUARRY_TESTS)
    return()
  endif()
  cmake_parse_arguments(QT "" "" "LABELS;LIBS" ${ARGN})
  add_executable(${name} ${QT_UNPARSED_ARGUMENTS})
  quarry_test_flags(${name})
  target_precompile_headers(${name} REUSE_FROM quarry_test_pch)
  target_link_libraries(${name} PRIVATE quarry_testkit quarry_static ${QT_LIBS}
      GTest::gtest GTest::gmock GTest::gtest_main)
  add_test(NAME ${name} COMMAND ${name})
  set_property(GLOBAL APPEND PROPERTY QUARRY_TEST_TARGETS ${name})
  set_tests_properties(${name} PROPERTIES TIMEOUT 300)
  if(QT_LABELS)
    set_tests_properties(${name} PROPERTIES LABELS "${QT_LABELS}")
  endif()
endfunction()

# quarry_add_cli_test(NAME SOURCE... [LABELS l...] [LIBS l...]): a test that
# runs the quarry tool, whose path it is given as QUARRY_CLI.
function(quarry_add_cli_test name)
  quarry_add_test(${name} ${ARGN})
  if(TARGET ${name})
    target_compile_definitions(${name} PRIVATE QUARRY_CLI="$<TARGET_FILE:quarry_cli>")
    add_dependencies(${name} quarry_cli)
  endif()
endfunction()

# In a cross build the tests run under an emulator (qemu-arm), and so must
# the quarry tool they start: QUARRY_CLI, the command the tool's tests run,
# gets the emulator in front once every folder has added its tests.
function(quarry_emulate_tool_in_tests)
  list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " launcher)
  get_property(tests GLOBAL PROPERTY QUARRY_TEST_TARGETS)
  foreach(name IN LISTS tests)
    get_target_property(definitions ${name} COMPILE_DEFINITIONS)
    if(definitions MATCHES "QUARRY_CLI=")
      list(TRANSFORM definitions REPLACE "^QUARRY_CLI=\"" "QUARRY_CLI=\"${launcher} ")
      set_property(TARGET ${name} PROPERTY COMPILE_DEFINITIONS "${definitions}")
    endif()
  endforeach()
endfunction()
if(CMAKE_CROSSCOMPILING AND CMAKE_CROSSCOMPILING_EMULATOR AND QUARRY_TESTS)
  cmake_language(DEFER CALL quarry_emulate_tool_in_tests)
endif()
