#include "monitor/output_queue.h"

#include <gtest/gtest.h>
#include <limits.h>

#include <string>

#include "monitor/shared_output.h"

namespace vorn::run {
namespace {

TEST(OutputQueueTest, PartsAreTakenTogetherOrNotAtAll) {
  OutputQueue queue;
  const std::string half(OutputQueue::kSize / 2, 'a');
  EXPECT_TRUE(queue.append({half, "b"}));
  EXPECT_FALSE(queue.append({"c", half}));
  EXPECT_EQ(queue.content(), half + "b");
}

TEST(OutputQueueTest, ReadBytesMakeRoom) {
  OutputQueue queue;
  const std::string most(OutputQueue::kSize - 3, 'a');
  ASSERT_TRUE(queue.append({most, "one"}));
  queue.removeFront(most.size());
  EXPECT_TRUE(queue.append({"two", std::string(OutputQueue::kSize - 6, 'b')}));
  EXPECT_EQ(queue.content().substr(0, 7), "onetwob");
  EXPECT_EQ(queue.content().size(), OutputQueue::kSize);
}

TEST(PieceForPipeTest, IsWrittenAtOnceWithoutACutLine) {
  const std::string line(PIPE_BUF - 2, 'a');
  EXPECT_EQ(pieceForPipe(line + "\n"), line.size() + 1);
  EXPECT_EQ(pieceForPipe(line + "\n\n"), line.size() + 2);
  EXPECT_EQ(pieceForPipe(line + "\nbc\n"), line.size() + 1);
}

TEST(PieceForPipeTest, ALineLargerThanThePipeAllowsIsCut) {
  EXPECT_EQ(pieceForPipe(std::string(PIPE_BUF + 1, 'a') + "\n"),
            size_t{PIPE_BUF});
}

}  // namespace
}  // namespace vorn::run
