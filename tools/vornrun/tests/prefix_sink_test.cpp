#include "monitor/prefix_sink.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace vorn::run {
namespace {

class PrefixSinkTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(::pipe2(ends_, O_CLOEXEC), 0); }
  void TearDown() override {
    (void)::close(ends_[0]);
    (void)::close(ends_[1]);
  }

  PrefixSink sink() { return {Stream::ERROR, ends_[1], "lamp: ", dropped_}; }

  std::string readAll() const {
    (void)::fcntl(ends_[0], F_SETFL, O_NONBLOCK);
    std::string all;
    char text[4096];
    for (ssize_t size = ::read(ends_[0], text, sizeof(text)); size > 0;
         size = ::read(ends_[0], text, sizeof(text)))
      all.append(text, static_cast<size_t>(size));
    return all;
  }

  /// The sink's turn while the reader is ready.
  void proceed(PrefixSink& sink) const {
    PollSet polls;
    sink.addPolls(polls);
    polls.wait(0);
    sink.proceed(polls, 0);
  }

  int ends_[2] = {-1, -1};
  uint64_t dropped_ = 0;
};

TEST_F(PrefixSinkTest, EachLineOfItsStreamHasAPrefixAndAnEnd) {
  PrefixSink sink = this->sink();
  sink.write(Stream::ERROR, "one\n\ntwo");
  sink.write(Stream::OUTPUT, "of the other stream\n");
  EXPECT_EQ(readAll(), "lamp: one\nlamp: \nlamp: two\n");
}

TEST_F(PrefixSinkTest, LinesForAStoppedReaderAreDroppedAndCounted) {
  PrefixSink sink = this->sink();
  const std::string line = std::string(999, 'a') + "\n";
  constexpr uint64_t kLines = 200;
  for (uint64_t i = 0; i < kLines; ++i) sink.write(Stream::ERROR, line);
  ASSERT_GT(dropped_, 0U);
  EXPECT_EQ(dropped_ % line.size(), 0U);

  std::string all = readAll();
  proceed(sink);
  all += readAll();
  const std::string notice =
      "lamp: vornrun: " + std::to_string(dropped_) + " bytes dropped\n";
  EXPECT_EQ(all.size(), (kLines - dropped_ / line.size()) * (line.size() + 6) +
                            notice.size());
  EXPECT_EQ(all.substr(all.size() - notice.size()), notice);
  EXPECT_EQ(sink.heldBytes(), 0U);
}

TEST_F(PrefixSinkTest, TheSharedDescriptorStaysBlocking) {
  PrefixSink sink = this->sink();
  EXPECT_EQ(::fcntl(ends_[1], F_GETFL) & O_NONBLOCK, 0);
}

}  // namespace
}  // namespace vorn::run
