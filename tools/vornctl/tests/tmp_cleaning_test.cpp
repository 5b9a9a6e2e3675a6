#include "live/tmp_cleaning.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "live/configuration_files.h"

namespace vorn::launch {
namespace {

namespace fs = std::filesystem;

Verdict verdictOn(const std::string& rules) {
  return tmpCleaningFinding(parseTmpfiles(rules)).verdict;
}

TEST(TmpCleaningTest, CleaningByAgeIsAWarning) {
  EXPECT_EQ(verdictOn("q /tmp 1777 root root 10d\n"), Verdict::WARNING);
  EXPECT_EQ(verdictOn("# a comment\n\nD! /tmp 1777 root root 10d"),
            Verdict::WARNING);
  EXPECT_EQ(verdictOn("e /tm* - - - 1w"), Verdict::WARNING);
}

TEST(TmpCleaningTest, TmpIsNotCleanedWithoutAnAge) {
  for (const char* const rules :
       {"", "D /tmp 1777 root root -", "D /tmp 1777 root root", "d /tmp",
        "q /var/tmp 1777 root root 30d", "r /tmp/x - - - 10d"}) {
    EXPECT_EQ(verdictOn(rules), Verdict::PASSED) << rules;
  }
}

TEST(TmpCleaningTest, ARuleCanExcludeTheSocketOrItsDirectory) {
  const std::string cleaning = "q /tmp 1777 root root 10d\n";
  for (const char* const rule : {"x /tmp/vornlaunch", "X /tmp/vorn*",
                                 "x /tmp/vornlaunch/vornlaunch.sock"}) {
    EXPECT_EQ(verdictOn(cleaning + rule), Verdict::PASSED) << rule;
  }
  EXPECT_EQ(verdictOn(cleaning + "x /tmp/other"), Verdict::WARNING);
}

TEST(TmpCleaningTest, NothingIsCleanedWithoutSystemd) {
  EXPECT_EQ(tmpCleaningFinding(std::nullopt).verdict, Verdict::PASSED);
}

TEST(TmpCleaningTest, AnEarlierDirectoryReplacesFilesOfLaterOnes) {
  std::string name = testing::TempDir() + "configurationXXXXXX";
  const fs::path directory = ::mkdtemp(name.data());
  for (const char* const path :
       {"etc/b.conf", "etc/note.txt", "usr/a.conf", "usr/b.conf"}) {
    fs::create_directories((directory / path).parent_path());
    std::ofstream(directory / path) << path;
  }
  std::vector<std::string> texts;
  for (const auto& path : configurationFiles(
           {directory / "etc", directory / "none", directory / "usr"},
           ".conf")) {
    texts.push_back(readConfiguration(path));
  }
  EXPECT_EQ(texts, (std::vector<std::string>{"usr/a.conf", "etc/b.conf"}));
  fs::remove_all(directory);
}

}  // namespace
}  // namespace vorn::launch
