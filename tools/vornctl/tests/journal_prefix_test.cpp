#include "output/journal_prefix.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace vorn::launch {
namespace {

class JournalPrefixTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(::pipe(streams_), 0); }
  void TearDown() override {
    (void)::unsetenv("JOURNAL_STREAM");
    for (const int fd : streams_) (void)::close(fd);
  }

  /// Lets JOURNAL_STREAM name this stream; one number of it differs by `other`.
  static void name(int fd, ino_t other = 0) {
    struct stat status {};
    ASSERT_EQ(::fstat(fd, &status), 0);
    const std::string text = std::to_string(status.st_dev) + ':' +
                             std::to_string(status.st_ino + other);
    ASSERT_EQ(::setenv("JOURNAL_STREAM", text.c_str(), 1), 0);
  }

  int streams_[2] = {-1, -1};
};

TEST_F(JournalPrefixTest, IsTheLevelOfALineInTheJournal) {
  name(streams_[1]);
  EXPECT_EQ(journalPrefix(streams_[1], JournalLevel::ERROR).str(), "<3>");
  EXPECT_EQ(journalPrefix(streams_[1], JournalLevel::WARNING).str(), "<4>");
}

TEST_F(JournalPrefixTest, IsEmptyForAnotherStream) {
  EXPECT_TRUE(journalPrefix(streams_[1], JournalLevel::ERROR).empty());
  name(streams_[1], 1);
  EXPECT_TRUE(journalPrefix(streams_[1], JournalLevel::ERROR).empty());
  EXPECT_TRUE(journalPrefix(-1, JournalLevel::ERROR).empty());
}

}  // namespace
}  // namespace vorn::launch
