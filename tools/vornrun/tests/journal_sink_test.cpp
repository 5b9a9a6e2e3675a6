#include "monitor/journal_sink.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

namespace vorn::run {
namespace {

constexpr char kHeader[] = "lamp\n\n6\n1\n0\n0\n0\n";

/// The journal's end of the socket.
class JournalSinkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string name = ::testing::TempDir() + "journal_sink.XXXXXX";
    ASSERT_NE(::mkdtemp(name.data()), nullptr);
    directory_ = name;
    path_ = name + "/stdout";
    startJournal();
  }
  void TearDown() override {
    stopJournal();
    std::filesystem::remove_all(directory_);
  }

  void startJournal() {
    listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path_.data(), path_.size());
    ASSERT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&address),
                     sizeof(address)),
              0);
    ASSERT_EQ(::listen(listener_, 1), 0);
  }
  void accept() {
    connection_ =
        ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    ASSERT_GE(connection_, 0);
  }
  void stopJournal() {
    (void)::close(connection_);
    (void)::close(listener_);
    (void)::unlink(path_.c_str());
  }
  JournalSink sink() { return {Stream::OUTPUT, path_, "lamp", 6, dropped_}; }
  std::string readAll() const {
    std::string all;
    char text[4096];
    for (ssize_t size = ::read(connection_, text, sizeof(text)); size > 0;
         size = ::read(connection_, text, sizeof(text)))
      all.append(text, static_cast<size_t>(size));
    return all;
  }
  static void proceed(JournalSink& sink, int64_t now_ms) {
    PollSet polls;
    sink.addPolls(polls);
    polls.wait(0);
    sink.proceed(polls, now_ms);
  }

  std::string directory_;
  std::string path_;
  int listener_ = -1;
  int connection_ = -1;
  uint64_t dropped_ = 0;
};

TEST_F(JournalSinkTest, TheHeaderHasTheIdentifierAndThePriority) {
  JournalSink sink = this->sink();
  accept();
  sink.write(Stream::OUTPUT, "one\n");
  sink.write(Stream::ERROR, "of the other stream\n");
  EXPECT_EQ(readAll(), std::string(kHeader) + "one\n");
}

TEST_F(JournalSinkTest, ANameCannotChangeTheHeader) {
  EXPECT_EQ(journalHeader("a\nb", 5), "a?b\n\n5\n1\n0\n0\n0\n");
}

TEST_F(JournalSinkTest, LinesWaitForTheRestartOfTheJournal) {
  JournalSink sink = this->sink();
  accept();
  stopJournal();
  proceed(sink, monotonicMs());
  sink.write(Stream::OUTPUT, "one\n");
  EXPECT_NE(sink.deadline(), kNever);
  startJournal();
  proceed(sink, sink.deadline());
  accept();
  EXPECT_EQ(readAll(), std::string(kHeader) + "one\n");
  EXPECT_EQ(sink.heldBytes(), 0U);
}

TEST_F(JournalSinkTest, TheEndSendsTheLinesToARestartedJournal) {
  stopJournal();
  JournalSink sink = this->sink();
  sink.write(Stream::OUTPUT, "one\n");
  sink.finish();
  EXPECT_EQ(sink.heldBytes(), 4U);
  startJournal();
  sink.finish();
  accept();
  EXPECT_EQ(readAll(), std::string(kHeader) + "one\n");
}

TEST_F(JournalSinkTest, AJournalThatEndsDuringAWriteGetsTheLineLater) {
  JournalSink sink = this->sink();
  accept();
  stopJournal();
  sink.write(Stream::OUTPUT, "one\n");
  EXPECT_EQ(sink.heldBytes(), 4U);
  EXPECT_EQ(dropped_, 0U);
  startJournal();
}

TEST_F(JournalSinkTest, APathThatIsTooLongIsNotAJournal) {
  JournalSink sink(Stream::OUTPUT, std::string(200, 'a'), "lamp", 6, dropped_);
  sink.write(Stream::OUTPUT, "one\n");
  proceed(sink, sink.deadline());
  sink.finish();
  EXPECT_EQ(sink.heldBytes(), 4U);
}

TEST_F(JournalSinkTest, LinesForAStoppedJournalAreDroppedAndCounted) {
  JournalSink sink = this->sink();
  accept();
  const std::string line = std::string(999, 'a') + "\n";
  constexpr uint64_t kLines = 1000;
  for (uint64_t i = 0; i < kLines; ++i) sink.write(Stream::OUTPUT, line);
  ASSERT_GT(dropped_, 0U);
  std::string all = readAll();
  proceed(sink, 0);
  all += readAll();
  proceed(sink, 0);
  all += readAll();
  const std::string notice =
      "\nvornrun: " + std::to_string(dropped_) + " bytes dropped\n";
  EXPECT_EQ(all.size(), sizeof(kHeader) - 1 + kLines * line.size() - dropped_ +
                            notice.size());
  EXPECT_EQ(all.substr(all.size() - notice.size()), notice);
}

}  // namespace
}  // namespace vorn::run
