#include "monitor/log_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace vorn::run {
namespace {

using ::testing::ElementsAre;
using ::testing::StartsWith;

class LogDirectoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string name = ::testing::TempDir() + "log_directory.XXXXXX";
    ASSERT_NE(::mkdtemp(name.data()), nullptr);
    parent_ = name;
    settings_.path = name + "/new/logs";
    settings_.fileSize = 8;
    settings_.totalSize = 100;
    settings_.keptFiles = 3;
  }
  void TearDown() override { std::filesystem::remove_all(parent_); }

  void write(std::initializer_list<std::string_view> texts) {
    LogDirectory directory(settings_, dropped_);
    for (const std::string_view text : texts)
      directory.write(Stream::OUTPUT, text);
    directory.finish();
  }

  std::string content(const std::string& name) const {
    std::ifstream file(settings_.path + "/" + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  /// The names of all files in their order in time.
  std::vector<std::string> names() const {
    std::vector<std::string> found;
    for (const auto& entry :
         std::filesystem::directory_iterator(settings_.path))
      found.push_back(entry.path().filename());
    std::sort(found.begin(), found.end());
    return found;
  }

  std::vector<std::string> contents() const {
    std::vector<std::string> found;
    for (const std::string& name : names()) found.push_back(content(name));
    return found;
  }

  std::string parent_;
  LogDirectorySettings settings_;
  uint64_t dropped_ = 0;
};

TEST_F(LogDirectoryTest, EveryByteIsInTheFile) {
  const std::string bytes("a\0\xFF\r\n b", 7);
  write({bytes});
  EXPECT_EQ(content("current"), bytes);
  struct stat status {};
  ASSERT_EQ(::stat((settings_.path + "/current").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
}

TEST_F(LogDirectoryTest, TheNextRunContinuesTheFile) {
  write({"one\n"});
  write({"two\n"});
  EXPECT_THAT(contents(), ElementsAre("one\ntwo\n"));
}

TEST_F(LogDirectoryTest, FilesEndWithWholeLinesAndAreInOrder) {
  write({"one\ntwo\nthree\nfour"});
  EXPECT_THAT(contents(), ElementsAre("one\ntwo\n", "three\n", "four"));
  EXPECT_THAT(names()[0], StartsWith("00000001-"));
  write({"\nfive\n"});
  EXPECT_THAT(names()[2], StartsWith("00000003-"));
  EXPECT_THAT(contents(),
              ElementsAre("one\ntwo\n", "three\n", "four\n", "five\n"));
}

TEST_F(LogDirectoryTest, AHugeLineIsSplitBetweenFiles) {
  write({"0123456789abcdef0\n"});
  EXPECT_THAT(contents(), ElementsAre("01234567", "89abcdef", "0\n"));
}

TEST_F(LogDirectoryTest, OnlyTheNewestFilesAreKept) {
  write({"1234567\n2234567\n3234567\n4234567\n5234567\n6\n"});
  EXPECT_THAT(contents(),
              ElementsAre("3234567\n", "4234567\n", "5234567\n", "6\n"));
}

TEST_F(LogDirectoryTest, AllFilesTogetherAreNotLargerThanTheTotalSize) {
  settings_.totalSize = 24;
  write({"1234567\n2234567\n3234567\n4234567\n"});
  EXPECT_THAT(contents(), ElementsAre("2234567\n", "3234567\n", "4234567\n"));
}

TEST_F(LogDirectoryTest, OtherFilesRemain) {
  settings_.keptFiles = 0;
  write({"1\n"});
  std::ofstream(settings_.path + "/notes") << "mine";
  write({"234567\n", "8\n"});
  EXPECT_EQ(content("notes"), "mine");
  EXPECT_EQ(content("current"), "8\n");
}

TEST_F(LogDirectoryTest, ALineOfOneStreamIsNotContinuedByTheOther) {
  settings_.fileSize = 100;
  LogDirectory directory(settings_, dropped_);
  directory.write(Stream::OUTPUT, "50 %");
  directory.write(Stream::ERROR, "failed\n");
  EXPECT_EQ(content("current"), "50 %\nfailed\n");
}

TEST_F(LogDirectoryTest, AFileThatAnotherMonitorHasFinishedStays) {
  LogDirectory first(settings_, dropped_);
  LogDirectory second(settings_, dropped_);
  first.write(Stream::OUTPUT, "1234567\n");
  second.write(Stream::OUTPUT, "a\n");
  first.write(Stream::OUTPUT, "2\n");
  second.write(Stream::OUTPUT, "bcdefg\n");
  EXPECT_EQ(dropped_, 0U);
  std::string all;
  for (const std::string& text : contents()) all += text;
  EXPECT_EQ(all.size(), 19U);
}

TEST_F(LogDirectoryTest, ALinkIsNotFollowed) {
  std::filesystem::create_directories(settings_.path);
  const std::string victim = parent_ + "/victim";
  ASSERT_EQ(::symlink(victim.c_str(), (settings_.path + "/current").c_str()),
            0);
  write({"one\n"});
  EXPECT_FALSE(std::filesystem::exists(victim));
  EXPECT_EQ(dropped_, 4U);
}

TEST_F(LogDirectoryTest, AFileWithAnotherNameIsNotContinued) {
  std::filesystem::create_directories(settings_.path);
  std::ofstream(settings_.path + "/current") << "x";
  std::filesystem::create_hard_link(settings_.path + "/current",
                                    parent_ + "/victim");
  write({"one\n"});
  EXPECT_EQ(content("current"), "x");
  EXPECT_EQ(dropped_, 4U);
}

TEST_F(LogDirectoryTest, DroppedOutputIsReportedWhenTheDirectoryIsUsable) {
  std::ofstream(parent_ + "/new") << "a file";
  LogDirectory directory(settings_, dropped_);
  directory.write(Stream::OUTPUT, "one\n");
  directory.write(Stream::OUTPUT, "two\n");
  PollSet polls;
  directory.proceed(polls, directory.deadline());
  ASSERT_TRUE(std::filesystem::remove(parent_ + "/new"));
  directory.proceed(polls, directory.deadline());
  EXPECT_EQ(directory.deadline(), kNever);
  const std::string notice = "vornrun: 8 bytes dropped: Not a directory\n";
  EXPECT_EQ(content("current"), notice);
}

TEST_F(LogDirectoryTest, TheEndReportsDroppedOutput) {
  std::ofstream(parent_ + "/new") << "a file";
  LogDirectory directory(settings_, dropped_);
  directory.write(Stream::OUTPUT, "one\n");
  ASSERT_TRUE(std::filesystem::remove(parent_ + "/new"));
  directory.finish();
  EXPECT_EQ(content("current"), "vornrun: 4 bytes dropped: Not a directory\n");
}

TEST_F(LogDirectoryTest, FinishedFilesAreCompressedOneAfterTheOther) {
  settings_.compresses = true;
  LogDirectory directory(settings_, dropped_);
  directory.write(Stream::OUTPUT, "1234567\n2234567\n3\n");
  const auto compressed = [this] {
    const auto found = names();
    return std::count_if(found.begin(), found.end(), [](const auto& name) {
      return std::filesystem::path(name).extension() == ".gz";
    });
  };
  for (int turn = 0; turn < 1000 && compressed() < 2; ++turn) {
    PollSet polls;
    directory.addPolls(polls);
    polls.wait(100);
    directory.proceed(polls, monotonicMs());
  }
  EXPECT_EQ(compressed(), 2);
  EXPECT_EQ(content("current"), "3\n");
}

TEST_F(LogDirectoryTest, TheEndStopsACompression) {
  settings_.compresses = true;
  write({"1234567\n2\n"});
  EXPECT_THAT(names(), ElementsAre(StartsWith("00000001-"), "current"));
}

TEST_F(LogDirectoryTest, AUselessDirectoryCostsTheOutputOnly) {
  std::ofstream(parent_ + "/new") << "a file";
  write({"one\n", "two\n"});
  EXPECT_EQ(dropped_, 8U);
}

}  // namespace
}  // namespace vorn::run
