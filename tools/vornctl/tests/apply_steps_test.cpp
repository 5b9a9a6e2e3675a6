#include "commands/apply_steps.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

namespace vorn::launch {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr char kFile[] = "/etc/launch.yaml";

/// A power cut.
struct Interruption {};

/// A machine whose launcher runs a file until the next restart. Files with the
/// text "bad" are not healthy.
class ModelMachine : public ApplyOperations {
 public:
  bool read(const std::string& path, std::optional<std::string>& text,
            std::string& /*error*/) override {
    const auto found = files.find(path);
    text = found == files.end() ? std::nullopt
                                : std::optional<std::string>(found->second);
    return true;
  }

  bool write(const std::string& path, const std::string& text,
             std::string& error) override {
    const bool is_synced = path != kFile || text != unsynced;
    return change(path, error, [&] { files[path] = text; }) && is_synced;
  }

  bool remove(const std::string& path, std::string& error) override {
    return change(path, error, [&] { files.erase(path); });
  }

  bool mayRestart(std::string& error) override {
    error = "the robot moves";
    return isPermitted;
  }

  bool restart(std::string& error) override {
    beforeChange();
    running = files.count(kFile) > 0 ? files.at(kFile) : "";
    ++restarts;
    afterChange();
    error = "camera restarts";
    return running != "bad";
  }

  ApplyResult apply(const std::string& text) {
    return ApplySteps(*this, kFile, "12:00").apply(text);
  }

  /// The launch file; empty if it does not exist.
  std::string file() const {
    return files.count(kFile) > 0 ? files.at(kFile) : "";
  }

  std::map<std::string, std::string> files = {{kFile, "old"}};
  std::string running = "old";
  int restarts = 0;
  bool isPermitted = true;
  std::string unsynced;        // a launch file whose write fails at its end
  std::string fullPath;        // writes there fail
  int changesUntilCut = 1000;  // 0: before the next change; odd: after it

 private:
  template <typename Change>
  bool change(const std::string& path, std::string& error, Change perform) {
    beforeChange();
    if (path == fullPath) {
      error = "the disk is full";
      return false;
    }
    perform();
    afterChange();
    return true;
  }

  void beforeChange() {
    if (changesUntilCut-- == 0) throw Interruption();
  }
  void afterChange() { beforeChange(); }
};

TEST(ApplyStepsTest, ReplacesTheFileRestartsAndKeepsTheOldFile) {
  ModelMachine machine;
  EXPECT_EQ(machine.apply("new").outcome, ApplyOutcome::APPLIED);
  EXPECT_EQ(machine.running, "new");
  EXPECT_EQ(machine.files,
            (std::map<std::string, std::string>{
                {kFile, "new"}, {previousFileOf(kFile), "old"}}));
}

TEST(ApplyStepsTest, TheSameFileRestartsNothing) {
  ModelMachine machine;
  machine.isPermitted = false;
  EXPECT_EQ(machine.apply("old").outcome, ApplyOutcome::UNCHANGED);
  EXPECT_EQ(machine.restarts, 0);
  EXPECT_EQ(machine.files.size(), 1U);
}

TEST(ApplyStepsTest, ARefusalChangesNothing) {
  ModelMachine machine;
  machine.isPermitted = false;
  const ApplyResult result = machine.apply("new");
  EXPECT_EQ(result.outcome, ApplyOutcome::REFUSED);
  EXPECT_THAT(result.messages, ElementsAre("the robot moves"));
  EXPECT_EQ(machine.files.size(), 1U);
}

TEST(ApplyStepsTest, AFileThatFailsIsReplacedByTheOldOne) {
  ModelMachine machine;
  const ApplyResult result = machine.apply("bad");
  EXPECT_EQ(result.outcome, ApplyOutcome::PUT_BACK);
  EXPECT_THAT(
      result.messages,
      ElementsAre("the new launch file has failed: camera restarts",
                  "the old launch file is back, and its nodes are healthy"));
  EXPECT_EQ(machine.file(), "old");
  EXPECT_EQ(machine.running, "old");
  EXPECT_EQ(machine.files.count(journalOf(kFile)), 0U);
}

TEST(ApplyStepsTest, AFirstFileThatFailsIsRemoved) {
  ModelMachine machine;
  machine.files.clear();
  EXPECT_EQ(machine.apply("bad").outcome, ApplyOutcome::PUT_BACK);
  EXPECT_THAT(machine.files, IsEmpty());
}

TEST(ApplyStepsTest, AFullDiskLeavesTheOldFileInUse) {
  for (const std::string& path :
       {std::string(kFile), previousFileOf(kFile), journalOf(kFile)}) {
    ModelMachine machine;
    machine.fullPath = path;
    const ApplyResult result = machine.apply("new");
    EXPECT_EQ(result.outcome, ApplyOutcome::NOT_APPLIED) << path;
    EXPECT_THAT(result.messages, testing::Contains("the disk is full"));
    EXPECT_EQ(machine.file(), "old");
    EXPECT_EQ(machine.restarts, 0);
  }
}

/// Runs an apply of `text` until the change with this number, counted from
/// 0. False if it has fewer changes.
bool isCut(ModelMachine& machine, const std::string& text, int number) {
  machine.changesUntilCut = number;
  try {
    (void)machine.apply(text);
  } catch (const Interruption&) {
    machine.changesUntilCut = 1000;
    return true;
  }
  return false;
}

class InterruptedApplyTest : public testing::TestWithParam<const char*> {};

TEST_P(InterruptedApplyTest, LeavesAWholeFileAndTheNextRunCompletesIt) {
  for (const std::string next : {"old", "new", "third", "bad"}) {
    for (int number = 0;; ++number) {
      ModelMachine machine;
      if (!isCut(machine, GetParam(), number)) {
        EXPECT_GT(number, 8);
        break;
      }
      EXPECT_TRUE(machine.file() == "old" || machine.file() == GetParam());
      const bool was_at_work = machine.files.count(journalOf(kFile)) > 0;
      const ApplyResult result = machine.apply(next);
      if (was_at_work) {
        ASSERT_FALSE(result.messages.empty());
        EXPECT_THAT(result.messages.front(), HasSubstr("was interrupted"));
      }
      // The file that the interrupted run had put there was not confirmed.
      const std::string last = machine.file();
      EXPECT_TRUE(next == "bad" || last == next) << last << number;
      EXPECT_NE(last, "bad") << number;
      EXPECT_EQ(machine.running, last) << number << " then " << next;
      EXPECT_EQ(machine.files.count(journalOf(kFile)), 0U);
    }
  }
}

TEST_P(InterruptedApplyTest, CanBeInterruptedAgain) {
  for (int first = 0; first < 8; ++first) {
    for (int second = 0; second < 8; ++second) {
      ModelMachine machine;
      (void)isCut(machine, GetParam(), first);
      (void)isCut(machine, "new", second);
      EXPECT_THAT(machine.file(), testing::AnyOf("old", "new", GetParam()));
      machine.changesUntilCut = 1000;
      EXPECT_NE(machine.apply("bad").outcome, ApplyOutcome::APPLIED);
      EXPECT_THAT(machine.file(), testing::AnyOf("old", "new"));
      EXPECT_EQ(machine.running, machine.file());
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Files, InterruptedApplyTest,
                         testing::Values("new", "bad"));

TEST(ApplyStepsTest, PutsTheOldFileBackIfTheNewOneIsWrittenButNotSynced) {
  ModelMachine machine;
  machine.unsynced = "new";
  EXPECT_EQ(machine.apply("new").outcome, ApplyOutcome::NOT_APPLIED);
  EXPECT_EQ(machine.file(), "old");
}

}  // namespace
}  // namespace vorn::launch
