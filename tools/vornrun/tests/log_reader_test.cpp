#include "monitor/log_reader.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

namespace vorn::run {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Records the texts that it is given.
class RecordingSink : public LogSink {
 public:
  explicit RecordingSink(std::vector<std::string>& texts) : texts_(texts) {}
  void write(Stream, std::string_view text) override {
    texts_.emplace_back(text);
  }

 private:
  std::vector<std::string>& texts_;
};

class LogReaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(::pipe2(ends_, O_CLOEXEC | O_NONBLOCK), 0);
    sinks_.push_back(std::make_unique<RecordingSink>(texts_));
  }
  void TearDown() override {
    (void)::close(ends_[0]);
    closeWriter();
  }
  void put(std::string_view text) const {
    ASSERT_EQ(::write(ends_[1], text.data(), text.size()),
              static_cast<ssize_t>(text.size()));
  }
  void closeWriter() {
    if (ends_[1] >= 0) (void)::close(ends_[1]);
    ends_[1] = -1;
  }
  LogReader reader(bool holds_partial_lines) {
    return {Stream::OUTPUT, ends_[0], holds_partial_lines, held_};
  }

  int ends_[2] = {-1, -1};
  LogSinks sinks_;
  std::vector<std::string> texts_;
  uint64_t held_ = 0;
};

TEST_F(LogReaderTest, WholeLinesAreHandedOnTogether) {
  LogReader lines = reader(true);
  put("one\ntwo\nthr");
  lines.read(sinks_, 0, SIZE_MAX);
  EXPECT_THAT(texts_, ElementsAre("one\ntwo\n"));
  EXPECT_EQ(held_, 3U);
  put("ee\n");
  lines.read(sinks_, 0, SIZE_MAX);
  EXPECT_THAT(texts_, ElementsAre("one\ntwo\n", "three\n"));
  EXPECT_EQ(held_, 0U);
}

TEST_F(LogReaderTest, ThePartOfALineIsHandedOnAfterAPause) {
  LogReader lines = reader(true);
  put("50 %");
  lines.read(sinks_, 1000, SIZE_MAX);
  EXPECT_EQ(lines.deadline(), 3000);
  lines.flushPartialLine(sinks_, 2999);
  EXPECT_THAT(texts_, IsEmpty());
  lines.flushPartialLine(sinks_, 3000);
  EXPECT_THAT(texts_, ElementsAre("50 %"));
  EXPECT_EQ(lines.deadline(), kNever);
}

TEST_F(LogReaderTest, ALineLargerThanTheBufferIsHandedOnInParts) {
  LogReader lines = reader(true);
  const std::string part(32 << 10, 'a');
  put("one\n" + part + "b\n");
  while (lines.read(sinks_, 0, SIZE_MAX) > 0) {
  }
  EXPECT_THAT(texts_, ElementsAre("one\n", part, "b\n"));
}

TEST_F(LogReaderTest, WithoutLinesEverythingIsHandedOnAsItIsRead) {
  LogReader bytes = reader(false);
  put(std::string_view("a\0b", 3));
  bytes.read(sinks_, 0, SIZE_MAX);
  EXPECT_THAT(texts_, ElementsAre(std::string("a\0b", 3)));
}

TEST_F(LogReaderTest, TheEndOfTheStreamIsSeen) {
  LogReader lines = reader(true);
  EXPECT_EQ(lines.read(sinks_, 0, SIZE_MAX), 0U);
  EXPECT_EQ(lines.descriptor(), ends_[0]);
  closeWriter();
  EXPECT_EQ(lines.read(sinks_, 0, SIZE_MAX), 0U);
  EXPECT_EQ(lines.descriptor(), -1);
}

}  // namespace
}  // namespace vorn::run
