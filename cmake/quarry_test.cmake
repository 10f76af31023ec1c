# Test code is compiled without optimisation: GoogleTest's templates under
# the sanitizers take about seven times longer to compile at -O2, and tests
# gain nothing from speed. The library itself keeps the build type's flags.
set(QUARRY_TEST_COMPILE_OPTIONS -O0)

# quarry_add_test(NAME SOURCE... [LABELS l...]): one GoogleTest executable per
# test file, linked against the static library so hidden helpers are reachable.
function(quarry_add_test name)
  if(NOT QUARRY_TESTS)
    return()
  endif()
  cmake_parse_arguments(QT "" "" "LABELS;LIBS" ${ARGN})
  add_executable(${name} ${QT_UNPARSED_ARGUMENTS})
  target_compile_options(${name} PRIVATE ${QUARRY_WARNINGS} ${QUARRY_TEST_COMPILE_OPTIONS})
  target_compile_definitions(${name} PRIVATE OPENSSL_SUPPRESS_DEPRECATED _GNU_SOURCE
      QUARRY_SOURCE_DIR="${PROJECT_SOURCE_DIR}" QUARRY_BINARY_DIR="${PROJECT_BINARY_DIR}")
  target_link_libraries(${name} PRIVATE quarry_testkit quarry_static ${QT_LIBS}
      GTest::gtest GTest::gmock GTest::gtest_main)
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES TIMEOUT 300)
  if(QT_LABELS)
    set_tests_properties(${name} PROPERTIES LABELS "${QT_LABELS}")
  endif()
endfunction()
