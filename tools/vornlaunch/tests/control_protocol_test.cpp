#include "vorn/control_protocol.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace vorn::launch {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;

template <typename Record>
std::vector<int> bytesOf(const Record& record) {
  const auto* const bytes = reinterpret_cast<const unsigned char*>(&record);
  return {bytes, bytes + sizeof(record)};
}

TEST(ControlProtocolTest, ARequestIsFourBytesOfCommandThenTheName) {
  std::string bytes("\x03\x00\x00\x00planner", 11);
  bytes.resize(132);
  ControlRequest request;
  ASSERT_EQ(sizeof(request), bytes.size());
  std::memcpy(&request, bytes.data(), bytes.size());
  EXPECT_EQ(request.cmd, ControlRequest::Cmd::STATUS);
  EXPECT_STREQ(request.name, "planner");
}

TEST(ControlProtocolTest, AResponseLiesInMemoryFieldByField) {
  ControlResponse response;
  response.result = ControlResponse::Result::FAILED;
  response.pid = 0x01020304;
  response.state = -2;
  response.startSeconds = 0x1112131415161718;
  EXPECT_THAT(bytesOf(response),
              ElementsAre(2, 0, 0, 0,              // result
                          0, 0, 0, 0,              // padding
                          4, 3, 2, 1,              // pid
                          0xfe, 0xff, 0xff, 0xff,  // state
                          0x18, 0x17, 0x16, 0x15, 0x14, 0x13, 0x12, 0x11));
}

TEST(ControlProtocolTest, ANewResponseIsAllZeroPaddingIncluded) {
  alignas(ControlResponse) unsigned char memory[sizeof(ControlResponse)];
  std::memset(memory, 0xff, sizeof(memory));
  const auto* const response = new (memory) ControlResponse();
  EXPECT_THAT(bytesOf(*response), Each(0));
}

}  // namespace
}  // namespace vorn::launch
