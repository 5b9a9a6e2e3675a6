#include "vorn/control_protocol.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace vorn::launch {
namespace {

using ::testing::Each;

template <typename Record>
std::vector<int> bytesOf(const Record& record) {
  const auto* const bytes = reinterpret_cast<const unsigned char*>(&record);
  return {bytes, bytes + sizeof(record)};
}

TEST(ControlProtocolTest, ANewResponseIsAllZeroPaddingIncluded) {
  alignas(ControlResponse) unsigned char memory[sizeof(ControlResponse)];
  std::memset(memory, 0xff, sizeof(memory));
  const auto* const response = new (memory) ControlResponse();
  EXPECT_THAT(bytesOf(*response), Each(0));
}

}  // namespace
}  // namespace vorn::launch
