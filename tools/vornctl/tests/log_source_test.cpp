#include "live/log_source.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

#include "live/line_splitter.h"
#include "output/duration.h"

namespace vorn::launch {
namespace {

namespace fs = std::filesystem;

constexpr int64_t kStartUs = 1'795'176'000'000'000;  // 2026-11-20T12:00:00Z

/// A line of a launcher, `seconds` (less than an hour) after kStartUs.
std::string lineAt(int seconds, const std::string& text) {
  char time[64] = {};
  (void)std::snprintf(time, sizeof(time), "2026-11-20T12:%02d:%02d.000000Z ",
                      seconds / 60, seconds % 60);
  return time + text + "\n";
}

int64_t timeAt(int seconds) { return kStartUs + seconds * kSecondUs; }

class LogSourceTest : public testing::Test {
 protected:
  LogSourceTest() {
    std::string path = fs::temp_directory_path() / "log.XXXXXX";
    directory_ = ::mkdtemp(path.data());
    path_ = directory_ / "launch.log";
  }
  ~LogSourceTest() override { fs::remove_all(directory_); }

  void write(const std::string& name, const std::string& text) const {
    std::ofstream(directory_ / name, std::ios::binary) << text;
  }

  void append(const std::string& text) const {
    std::ofstream(path_, std::ios::binary | std::ios::app) << text;
  }

  void writeCompressed(const std::string& name, const std::string& text) const {
    gzFile file = ::gzopen((directory_ / name).c_str(), "wb");
    ASSERT_EQ(::gzwrite(file, text.data(), static_cast<unsigned>(text.size())),
              static_cast<int>(text.size()));
    ASSERT_EQ(::gzclose(file), Z_OK);
  }

  LogLocation location() const {
    std::string error;
    const auto found = findLog({}, path_, error);
    EXPECT_TRUE(found) << error;
    return *found;
  }

  /// The texts since then, without their times.
  std::vector<std::string> textsSince(int64_t since_us) const {
    std::vector<std::string> texts;
    std::string error;
    EXPECT_TRUE(readLog(location(), since_us, collect(texts), error)) << error;
    return texts;
  }

  static std::string textOf(const LogRecord& record) {
    constexpr size_t kTimeLength = 28;
    return std::string(
        record.text.substr(record.timeUs == 0 ? 0 : kTimeLength));
  }

  static LogReader collect(std::vector<std::string>& texts) {
    return [&texts](const LogRecord& record) {
      texts.push_back(textOf(record));
      return true;
    };
  }

  fs::path directory_;
  fs::path path_;
};

using Texts = std::vector<std::string>;

TEST_F(LogSourceTest, ALineWithoutATimeIsAsOldAsTheOneBeforeIt) {
  write("launch.log", "a\n" + lineAt(1, "b") + "c\n" + lineAt(2, "d") +
                          "e\xff\n\x1b[2J\nunfinished");
  EXPECT_EQ(textsSince(0),
            (Texts{"a", "b", "c", "d", "e\xff", "\x1b[2J", "unfinished"}));
  EXPECT_EQ(textsSince(timeAt(2)),
            (Texts{"d", "e\xff", "\x1b[2J", "unfinished"}));
  EXPECT_EQ(textsSince(timeAt(3)), Texts{});
}

TEST_F(LogSourceTest, ATimeAnywhereInALongFileIsFound) {
  std::string text;
  for (int second = 0; second < 3000; ++second) {
    text += lineAt(second, std::to_string(second)) +
            std::string(static_cast<size_t>(second * 7 % 500), 'x') + "\n";
  }
  write("launch.log", text);
  for (int second = 0; second < 3000; second += 37) {
    const Texts texts = textsSince(timeAt(second));
    ASSERT_EQ(texts.front(), std::to_string(second));
    ASSERT_EQ(texts.size(), 2U * static_cast<size_t>(3000 - second));
  }
}

TEST_F(LogSourceTest, OnlyAFewBlocksOfALongFileAreRead) {
  // Holes of 1 TiB: a test that reads them does not end.
  write("launch.log", "");
  fs::resize_file(path_, uintmax_t{1} << 40U);
  append(lineAt(1, "first") + lineAt(2, "second"));
  EXPECT_EQ(textsSince(0), (Texts{"first", "second"}));
  EXPECT_EQ(textsSince(timeAt(2)), Texts{"second"});
  fs::resize_file(path_, uintmax_t{2} << 40U);
  append("\n" + lineAt(3, "last"));
  Texts texts;
  std::string error;
  ASSERT_TRUE(readLogEnd(
      location(), 1, 0, [](const LogRecord& r) { return r.timeUs != 0; },
      collect(texts), error));
  EXPECT_EQ(texts, Texts{"last"});
}

TEST_F(LogSourceTest, AFileWithTimesOutOfOrderIsReadCompletely) {
  std::string text;
  for (int second = 0; second < 3000; ++second) {
    // The clock was set back in the middle.
    text += lineAt(second < 1500 ? second + 100 : second - 1500,
                   std::to_string(second)) +
            std::string(200, 'x') + "\n";
  }
  write("launch.log", text);
  const Texts texts = textsSince(timeAt(1400));
  EXPECT_EQ(texts.front(), "1300");
  EXPECT_EQ(texts.size(), 2U * (200 + 100));
}

TEST_F(LogSourceTest, RotatedFilesPrecedeTheFile) {
  writeCompressed("launch.log.3.gz", lineAt(0, "third"));
  writeCompressed("launch.log.2.gz", lineAt(1, "second"));
  write("launch.log.1", lineAt(2, "first"));
  write("launch.log", lineAt(3, "current"));
  write("launch.log.5", lineAt(9, "after a gap"));
  EXPECT_EQ(textsSince(0), (Texts{"third", "second", "first", "current"}));
  EXPECT_EQ(textsSince(timeAt(2)), (Texts{"first", "current"}));
}

TEST_F(LogSourceTest, RotatedFilesThatAreTooOldAreNotRead) {
  write("launch.log.2", std::string("\x1f\x8b not compressed", 17));
  write("launch.log.1", lineAt(2, "first"));
  write("launch.log", "");
  EXPECT_EQ(textsSince(timeAt(3)), Texts{});
  std::string error;
  const LogReader reader = [](const LogRecord&) { return true; };
  EXPECT_FALSE(readLog(location(), 0, reader, error));
  EXPECT_EQ(error,
            "cannot read " + path_.string() + ".2: unknown compression method");
}

TEST_F(LogSourceTest, ARenamedFileHasOlderNeighbours) {
  write("launch.log.1", lineAt(2, "first"));
  write("launch.log.2", lineAt(1, "second"));
  write("launch.log", lineAt(3, "another launcher's"));
  path_ = directory_ / "launch.log.1";
  EXPECT_EQ(textsSince(0), (Texts{"second", "first"}));
}

TEST_F(LogSourceTest, TheLastMatchingRecordsAreFoundFromTheEnd) {
  std::string text;
  for (int second = 0; second < 3000; ++second) {
    text += lineAt(second, second % 1000 == 7 ? "match" : "other") +
            std::string(300, 'x') + "\n";
  }
  writeCompressed("launch.log.1.gz", lineAt(0, "match in .1"));
  write("launch.log", text);
  const auto last = [this](size_t count, int64_t since_us) {
    std::vector<std::string> texts;
    std::string error;
    const auto matches = [](const LogRecord& record) {
      return record.text.find("match") != std::string_view::npos;
    };
    EXPECT_TRUE(
        readLogEnd(location(), count, since_us, matches, collect(texts), error))
        << error;
    return texts;
  };
  EXPECT_EQ(last(0, 0), Texts{});
  EXPECT_EQ(last(2, 0), (Texts{"match", "match"}));
  EXPECT_EQ(last(9, 0), (Texts{"match in .1", "match", "match", "match"}));
  EXPECT_EQ(last(9, timeAt(1500)), Texts{"match"});
}

/// Follows the log, which `change` changes after the first record, until there
/// are `count` records.
class FollowTest : public LogSourceTest {
 protected:
  template <typename Change>
  Texts follow(size_t count, Change change) {
    Texts texts;
    std::string error;
    LogPosition position;
    const LogLocation log = location();
    EXPECT_TRUE(readLog(log, 0, collect(texts), error, &position));
    std::thread writer([&] { change(); });
    EXPECT_TRUE(followLog(
        log, position, -1,
        [&](const LogRecord& record) {
          texts.push_back(textOf(record));
          return texts.size() < count;
        },
        error));
    writer.join();
    return texts;
  }
};

TEST_F(FollowTest, ContinuesWithTheUnfinishedLine) {
  write("launch.log", "one\ntw");
  EXPECT_EQ(follow(3, [this] { append("o\nthree\n"); }),
            (Texts{"one", "two", "three"}));
}

TEST_F(FollowTest, ContinuesAfterATruncation) {
  write("launch.log", "a long line\n");
  EXPECT_EQ(follow(2, [this] { write("launch.log", "new\n"); }),
            (Texts{"a long line", "new"}));
}

TEST_F(FollowTest, ContinuesWithTheFileThatReplacesTheOther) {
  write("launch.log", "one\n");
  EXPECT_EQ(follow(3,
                   [this] {
                     write("next", "three\n");
                     append("two\n");
                     fs::rename(directory_ / "next", path_);
                   }),
            (Texts{"one", "two", "three"}));
}

TEST_F(FollowTest, EndsWhenItIsCancelled) {
  write("launch.log", "one\n");
  int ends[2] = {};
  ASSERT_EQ(::pipe(ends), 0);
  ASSERT_EQ(::write(ends[1], "x", 1), 1);
  Texts texts;
  LogPosition position;
  std::string error;
  EXPECT_TRUE(followLog(location(), position, ends[0], collect(texts), error));
  EXPECT_EQ(texts, Texts{"one"});
  (void)::close(ends[0]);
  (void)::close(ends[1]);
}

}  // namespace
}  // namespace vorn::launch
