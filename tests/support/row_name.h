// Table-driven tests: each row of a parameterized test's table carries its
// case's name, and gtest reports the case under it.
#ifndef QUARRY_TESTS_SUPPORT_ROW_NAME_H
#define QUARRY_TESTS_SUPPORT_ROW_NAME_H

#include <gtest/gtest.h>

#include <string>

namespace quarry_test {

// The name generator for INSTANTIATE_TEST_SUITE_P: the row's |name| field
// (letters, digits and underscores only, as gtest requires).
struct RowName {
  template <typename Row>
  std::string operator()(const ::testing::TestParamInfo<Row> &row) const {
    return row.param.name;
  }
};

}  // namespace quarry_test

#endif  // QUARRY_TESTS_SUPPORT_ROW_NAME_H
