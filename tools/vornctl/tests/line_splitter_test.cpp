#include "live/line_splitter.h"

#include <gtest/gtest.h>

#include <vector>

namespace vorn::launch {
namespace {

struct Line {
  int64_t begin;
  std::string text;
  bool operator==(const Line& other) const {
    return begin == other.begin && text == other.text;
  }
};

/// The lines of these pieces, with the offsets of their first bytes.
std::vector<Line> split(const std::vector<std::string>& pieces) {
  std::vector<Line> lines;
  LineSplitter* current = nullptr;
  LineSplitter splitter([&](std::string_view line) {
    lines.push_back({current->lineBegin(), std::string(line)});
    return true;
  });
  current = &splitter;
  for (const std::string& piece : pieces) EXPECT_TRUE(splitter.add(piece));
  EXPECT_TRUE(splitter.finish());
  return lines;
}

TEST(LineSplitterTest, PiecesDoNotChangeTheLines) {
  const std::vector<Line> lines = {{0, "one"}, {4, ""}, {5, "two"}, {9, "end"}};
  EXPECT_EQ(split({"one\n\ntwo\nend"}), lines);
  EXPECT_EQ(split({"on", "e\n", "\ntw", "", "o", "\nend"}), lines);
}

TEST(LineSplitterTest, DropsTheEndOfALongLine) {
  const std::string most(kMaxLogLine, 'x');
  const std::vector<Line> lines = {
      {0, most}, {static_cast<int64_t>(most.size()) * 3 + 1, "next"}};
  EXPECT_EQ(split({most + most + most + "\nnext\n"}), lines);
  EXPECT_EQ(split({most, most, most, "\nne", "xt\n"}), lines);
}

TEST(LineSplitterTest, DropsNulsAtTheStartOfALineOnly) {
  using namespace std::string_literals;
  const std::vector<Line> lines = {{0, "one"}, {7, "t\0o"s}};
  EXPECT_EQ(split({"\0\0\0one\n\0t\0o\n\0"s}), lines);
  EXPECT_EQ(split({"\0"s, "\0\0one\n\0t\0o\n\0"s}), lines);
}

TEST(LineSplitterTest, StopsWhenTheReceiverStops) {
  int count = 0;
  LineSplitter splitter([&](std::string_view) { return ++count < 2; });
  EXPECT_FALSE(splitter.add("one\ntwo\nthree\n"));
  EXPECT_EQ(count, 2);
}

}  // namespace
}  // namespace vorn::launch
