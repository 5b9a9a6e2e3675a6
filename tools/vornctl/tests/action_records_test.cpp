#include "live/action_records.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <utility>

namespace vorn::launch {
namespace {

namespace fs = std::filesystem;

constexpr int64_t kTimeUs = 1'795'332'600'123'456;

ActionRecord stopOfTwo() {
  ActionRecord record;
  record.timeUs = kTimeUs;
  record.endUs = kTimeUs + 250'000;
  record.uid = 1000;
  record.user = "alice";
  record.sudoUser = "bob";
  record.tty = "pts/3";
  record.command = "stop";
  record.reason = "new lens\nfake line";
  record.outcome = "failed";
  record.nodes = {"camera", "a\"b\xff"};
  record.failures = {{"camera", "failed"}};
  record.launcherPid = 42;
  return record;
}

/// A record that ended at this time.
std::string lineAt(int64_t time_us) {
  ActionRecord record = stopOfTwo();
  record.timeUs = record.endUs = time_us;
  return lineOf(record);
}

/// A directory with a file of records.
class ActionFileTest : public testing::Test {
 protected:
  ActionFileTest() {
    std::string name = testing::TempDir() + "actionsXXXXXX";
    directory_ = ::mkdtemp(name.data());
    path_ = directory_ / "actions.jsonl";
  }
  ~ActionFileTest() override { fs::remove_all(directory_); }

  void write(const std::string& text, const char* suffix = "") {
    std::ofstream(path_.string() + suffix) << text;
  }

  std::vector<int64_t> timesSince(int64_t since_us) const {
    std::vector<int64_t> times;
    for (const auto& record : readActionRecords(path_, since_us)) {
      times.push_back(record.timeUs);
    }
    return times;
  }

  fs::path directory_;
  fs::path path_;
};

using Times = std::vector<int64_t>;

TEST(ActionRecordsTest, ALineContainsTheWholeRecord) {
  const std::string line = lineOf(stopOfTwo());
  EXPECT_EQ(line.find('\n'), line.size() - 1);
  const auto read = parseActionRecord(line.substr(0, line.size() - 1));
  ASSERT_TRUE(read);
  EXPECT_EQ(read->timeUs, kTimeUs);
  EXPECT_EQ(read->endUs, kTimeUs + 250'000);
  EXPECT_EQ(read->uid, 1000U);
  EXPECT_EQ(read->user, "alice");
  EXPECT_EQ(read->sudoUser, "bob");
  EXPECT_EQ(read->tty, "pts/3");
  EXPECT_EQ(read->command, "stop");
  EXPECT_EQ(read->reason, "new lens\nfake line");
  EXPECT_EQ(read->outcome, "failed");
  // Invalid UTF-8 becomes the replacement character.
  EXPECT_EQ(read->nodes,
            (std::vector<std::string>{"camera", "a\"b\xef\xbf\xbd"}));
  EXPECT_EQ(read->failures.at("camera"), "failed");
  EXPECT_EQ(read->launcherPid, 42);
}

TEST(ActionRecordsTest, TheTimeIsUtcWithMicroseconds) {
  EXPECT_EQ(formatUtc(kTimeUs), "2026-11-22T07:30:00.123456Z");
}

TEST(ActionRecordsTest, ALineOmitsTheLastNodesBeyondItsLimit) {
  ActionRecord record = stopOfTwo();
  record.nodes.assign(10, "camera");
  record.nodes[0] = "lidar";
  record.failures = {{"lidar", "failed"}, {"camera", "failed"}};
  const size_t whole = lineOf(record).size();
  const std::string line = lineOf(record, whole - 1);
  EXPECT_LT(line.size(), whole);
  const auto read = parseActionRecord(line);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->nodes.size(), 5U);
  EXPECT_EQ(read->nodes[0], "lidar");
  EXPECT_EQ(read->omittedNodes, 5U);
}

TEST(ActionRecordsTest, ATornOrForeignLineIsNotARecord) {
  const std::string line = lineOf(stopOfTwo());
  EXPECT_FALSE(parseActionRecord(line.substr(0, line.size() / 2)));
  EXPECT_FALSE(parseActionRecord(line.substr(0, 20) + line));
  for (const char* const text :
       {"", "null", "[]", "{}", "{\"schema\":1}", "\xff\xfe"}) {
    EXPECT_FALSE(parseActionRecord(text)) << text;
  }
  for (const auto& [member, wrong] :
       {std::pair{R"("schema":1)", R"("schema":2)"},
        std::pair{R"("time":"2026)", R"("time":"today)"},
        std::pair{R"("uid":1000)", R"("uid":-1)"},
        std::pair{R"("command":"stop")", R"("command":7)"}}) {
    std::string changed = line;
    changed.replace(changed.find(member), std::strlen(member), wrong);
    EXPECT_FALSE(parseActionRecord(changed)) << changed;
  }
  EXPECT_FALSE(parseActionRecord(std::string(kMaxActionLine, '[')));
}

TEST(ActionRecordsTest, MembersOfAnotherTypeAreIgnored) {
  const auto read = parseActionRecord(
      R"({"schema":1,"time":"2026-11-22T07:30:00.000000Z","end":)"
      R"("2026-11-22T07:30:00.000000Z","command":"stop","uid":0,"user":7,)"
      R"("launcherPid":99999999999,"nodes":[1,"camera",{}],"failures":[]})");
  ASSERT_TRUE(read);
  EXPECT_EQ(read->user, "");
  EXPECT_EQ(read->launcherPid, 0);
  EXPECT_EQ(read->nodes, std::vector<std::string>{"camera"});
}

TEST_F(ActionFileTest, RecordsOfBothFilesAreSortedByTheirStart) {
  write(lineAt(2) + lineAt(1), kOlderSuffix);
  write(lineAt(4) + lineAt(3));
  EXPECT_EQ(timesSince(0), (Times{1, 2, 3, 4}));
}

TEST_F(ActionFileTest, EarlierRecordsAreLeftOut) {
  write(lineAt(1) + lineAt(2) + lineAt(3));
  EXPECT_EQ(timesSince(2), (Times{2, 3}));
}

TEST_F(ActionFileTest, LinesThatAreNotRecordsAreIgnored) {
  write("torn" + lineAt(1) + std::string("\0\x1b[2J\n", 6) + lineAt(2) +
        lineAt(3).substr(0, 40));
  EXPECT_EQ(timesSince(0), (Times{2}));
}

TEST_F(ActionFileTest, OnlyTheEndOfATooLargeFileIsRead) {
  write(lineAt(1) + std::string(kMaxActionFile - 10, ' ') + "\n" + lineAt(2));
  EXPECT_EQ(timesSince(0), (Times{2}));
}

TEST_F(ActionFileTest, AMissingFileHasNoRecords) {
  EXPECT_EQ(timesSince(0), Times{});
}

TEST_F(ActionFileTest, ALinkOrADirectoryHasNoRecords) {
  write(lineAt(1), ".target");
  fs::create_symlink(path_.string() + ".target", path_);
  fs::create_directory(path_.string() + kOlderSuffix);
  EXPECT_EQ(timesSince(0), Times{});
}

}  // namespace
}  // namespace vorn::launch
