#include "output/table.h"

#include <gtest/gtest.h>

#include <clocale>
#include <sstream>

namespace vorn::launch {
namespace {

std::string aligned(const Table& table, bool has_colours) {
  std::ostringstream stream;
  Output out(stream);
  printAligned(out, table, has_colours);
  return stream.str();
}

TEST(TableTest, ColumnsAreAlignedAndLinesEndWithTheirLastText) {
  EXPECT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
  const Table table = {{"NODE", "PID"},
                       {{{"camera"}, {"1"}}, {{"é"}, {""}}, {{""}, {"22"}}}};
  EXPECT_EQ(aligned(table, false),
            "NODE    PID\n"
            "camera  1\n"
            "é\n"
            "        22\n");
}

TEST(TableTest, ColoursDoNotDisturbTheAlignment) {
  const Table table = {{}, {{{"on", Colour::GREEN}, {"x"}}, {{"off"}, {"y"}}}};
  EXPECT_EQ(aligned(table, true), "\x1b[32mon\x1b[0m   x\noff  y\n");
  EXPECT_EQ(aligned(table, false), "on   x\noff  y\n");
}

TEST(TableTest, APlainOneHasTabsAndNothingElse) {
  std::ostringstream stream;
  Output out(stream);
  printPlain(out, {{"NODE", "PID"}, {{{"camera", Colour::RED}, {"1"}}}});
  EXPECT_EQ(stream.str(), "NODE\tPID\ncamera\t1\n");
}

TEST(TableTest, LosesColumnsInThisOrderUntilItFits) {
  const auto titles = [](size_t width) {
    Table table = {{"ONE", "TWO", "THREE"}, {{{"1"}, {"2"}, {"3"}}}};
    fitInto(table, width, {2, 1});
    EXPECT_EQ(table.rows.front().size(), table.header.size());
    std::string text;
    for (const OutputText& title : table.header) text += title.str() + ' ';
    return text;
  };
  EXPECT_EQ(titles(15), "ONE TWO THREE ");
  EXPECT_EQ(titles(14), "ONE TWO ");
  EXPECT_EQ(titles(8), "ONE TWO ");
  EXPECT_EQ(titles(7), "ONE ");
}

TEST(TableTest, ShortensTheFirstColumnWhenNoneIsLeftToLose) {
  EXPECT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
  Table table = {{"NODE", "STATE"}, {{{"camera"}, {"running"}}}};
  fitInto(table, 12, {});
  EXPECT_EQ(table.header.front().str(), "NO…");
  EXPECT_EQ(table.rows.front().front().text.str(), "ca…");
}

TEST(TableTest, TheLastColumnIsTruncatedToAtLeastItsTitle) {
  EXPECT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
  for (const auto& [width, shown] :
       {std::pair(13, "camera --x"), std::pair(10, "camera…"),
        std::pair(3, "cam…")}) {
    Table table = {{"P", "CMND"}, {{{"1"}, {"camera --x"}}}};
    truncateLastColumn(table, static_cast<size_t>(width));
    EXPECT_EQ(table.rows.front().back().text.str(), shown);
  }
}

TEST(TableTest, TheGapsOfAllColumnsTakeRoomOfTheLastOne) {
  EXPECT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
  Table table = {{"P", "Q", "CMND"}, {{{"1"}, {"2"}, {"camera --x"}}}};
  truncateLastColumn(table, 13);
  EXPECT_EQ(aligned(table, false), "P  Q  CMND\n1  2  camera…\n");
}

TEST(TableTest, TheLastColumnWithoutATitleHasAtLeastOneCharacter) {
  EXPECT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
  Table table = {{}, {{{"1"}, {"camera"}}}};
  truncateLastColumn(table, 1);
  EXPECT_EQ(aligned(table, false), "1  …\n");
}

TEST(TableTest, EveryColourHasItsSequenceAndEnds) {
  EXPECT_EQ(coloured("x", Colour::NONE).str(), "x");
  EXPECT_EQ(coloured("", Colour::RED).str(), "");
  EXPECT_EQ(coloured("x", Colour::RED).str(), "\x1b[31mx\x1b[0m");
  EXPECT_EQ(coloured("x", Colour::YELLOW).str(), "\x1b[33mx\x1b[0m");
  EXPECT_EQ(coloured("x", Colour::FAINT).str(), "\x1b[2mx\x1b[0m");
  EXPECT_EQ(coloured("x", Colour::BOLD).str(), "\x1b[1mx\x1b[0m");
}

}  // namespace
}  // namespace vorn::launch
