#include "monitor/shared_output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace vorn::run {
namespace {

/// Writes until the reader would have to read.
void fill(const SharedOutput& output) {
  const std::string text(PIPE_BUF, 'x');
  while (output.write(text) > 0) {
  }
}

TEST(SharedOutputTest, APipeTakesWholeLines) {
  const std::string line = std::string(PIPE_BUF - 10, 'a') + "\n";
  EXPECT_EQ(pieceForPipe("short"), 5U);
  EXPECT_EQ(pieceForPipe(line + line), line.size());
  EXPECT_EQ(pieceForPipe(std::string(size_t{2} * PIPE_BUF, 'a')),
            size_t{PIPE_BUF});
}

TEST(SharedOutputTest, AFullPipeTakesNothing) {
  int ends[2] = {};
  ASSERT_EQ(::pipe(ends), 0);
  const SharedOutput output(ends[1]);
  EXPECT_NE(output.descriptor(), -1);
  EXPECT_EQ(output.write("one\n"), 4);
  fill(output);
  EXPECT_EQ(output.write("x"), 0);
  // Other writers wait as before.
  EXPECT_EQ(::fcntl(ends[1], F_GETFL) & O_NONBLOCK, 0);
  (void)::close(ends[0]);
  (void)::close(ends[1]);
}

TEST(SharedOutputTest, ASocketTakesNothingIfItIsFullAndFailsIfItIsClosed) {
  int ends[2] = {};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const SharedOutput output(ends[1]);
  EXPECT_EQ(output.descriptor(), ends[1]);
  EXPECT_EQ(output.write("one\n"), 4);
  fill(output);
  EXPECT_EQ(output.write("x"), 0);
  (void)::close(ends[0]);
  EXPECT_EQ(output.write("x"), -1);
  (void)::close(ends[1]);
}

TEST(SharedOutputTest, AFileTakesEverything) {
  std::string name = ::testing::TempDir() + "shared_output.XXXXXX";
  const int fd = ::mkstemp(name.data());
  const SharedOutput output(fd);
  EXPECT_EQ(output.descriptor(), -1);
  EXPECT_EQ(output.write(std::string(100'000, 'x')), 100'000);
  (void)::close(fd);
  (void)::unlink(name.c_str());
}

}  // namespace
}  // namespace vorn::run
