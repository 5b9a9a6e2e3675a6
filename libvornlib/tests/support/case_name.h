#pragma once

#include <gtest/gtest.h>

#include <string>

namespace vorn::test {

/// The name of a parameterized test: the `name` of its case.
template <typename Case>
std::string caseName(const ::testing::TestParamInfo<Case>& info) {
  return info.param.name;
}

}  // namespace vorn::test
