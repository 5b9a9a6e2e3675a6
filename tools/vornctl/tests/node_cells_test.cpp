#include "live/node_cells.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

namespace vorn::launch {
namespace {

NodeView viewWith(Condition condition) {
  NodeView view;
  view.name = "a";
  view.condition = condition;
  return view;
}

NodeView viewInPhase(const std::string& phase) {
  NodeView view = viewWith(Condition::RUNNING);
  view.run.state.emplace().phase = phase;
  return view;
}

std::string textOf(const NodeView& view, const std::string& column) {
  return cellFor(view, column).text.str();
}

Colour colourFor(const NodeView& view, const std::string& column) {
  return cellFor(view, column).colour;
}

std::string plainTextOf(const NodeView& view, const std::string& column) {
  return plainCellFor(view, column).text.str();
}

TEST(NodeCellsTest, TheColourOfAStateShowsWhatNeedsAttention) {
  const auto colour = [](Condition condition) {
    return colourFor(viewWith(condition), "state");
  };
  EXPECT_EQ(colour(Condition::RUNNING), Colour::GREEN);
  EXPECT_EQ(colour(Condition::EXITING), Colour::YELLOW);
  EXPECT_EQ(colour(Condition::STOPPING), Colour::YELLOW);
  EXPECT_EQ(colour(Condition::RESTARTING), Colour::YELLOW);
  EXPECT_EQ(colour(Condition::FAILED), Colour::RED);
  EXPECT_EQ(colour(Condition::UNKNOWN_NODE), Colour::RED);
  EXPECT_EQ(colour(Condition::DISABLED), Colour::FAINT);
  EXPECT_EQ(colour(Condition::STOPPED), Colour::FAINT);
  EXPECT_EQ(colour(Condition::NEVER_STARTED), Colour::FAINT);
}

TEST(NodeCellsTest, AMissingExecutableIsRed) {
  NodeView view = viewWith(Condition::DISABLED);
  view.isExecutableMissing = true;
  EXPECT_EQ(colourFor(view, "state"), Colour::RED);
}

TEST(NodeCellsTest, ACrashLoopIsRedAndPartOfTheState) {
  NodeView view = viewWith(Condition::RESTARTING);
  view.restartInSeconds = 4;
  EXPECT_EQ(textOf(view, "state"), "restarting in 4s");
  view.isCrashLoop = true;
  view.restarts = 5;
  EXPECT_EQ(textOf(view, "state"), "restarting in 4s, crash loop");
  EXPECT_EQ(colourFor(view, "state"), Colour::RED);
  EXPECT_EQ(colourFor(view, "restarts"), Colour::RED);
}

TEST(NodeCellsTest, ThePhaseReplacesTheStateOfANodeThatIsNotUp) {
  EXPECT_EQ(stateOrPhase(viewInPhase("starting")).text, "starting");
  EXPECT_EQ(stateOrPhase(viewInPhase("ready")).text, "running");
  EXPECT_EQ(stateOrPhase(viewWith(Condition::RUNNING)).text, "running");
  NodeView view = viewInPhase("unhealthy");
  view.isCrashLoop = true;
  EXPECT_EQ(stateOrPhase(view).text, "running, crash loop");
  view = viewInPhase("gave up");
  view.condition = Condition::DISABLED;
  EXPECT_EQ(stateOrPhase(view).text, "disabled");
}

TEST(NodeCellsTest, TheColourOfAPhaseShowsWhatNeedsAttention) {
  EXPECT_EQ(colourFor(viewInPhase("ready"), "ready"), Colour::GREEN);
  EXPECT_EQ(colourFor(viewInPhase("starting"), "ready"), Colour::YELLOW);
  EXPECT_EQ(colourFor(viewInPhase("unhealthy"), "ready"), Colour::RED);
  EXPECT_EQ(textOf(viewWith(Condition::RUNNING), "ready"), "-");
}

TEST(NodeCellsTest, AFailureIsRedInTheLastExit) {
  NodeView view = viewWith(Condition::RUNNING);
  EXPECT_EQ(textOf(view, "last_exit"), "-");
  HistoryEvent& exit = view.lastExit.emplace();
  exit.kind = HistoryEvent::Kind::EXITED;
  exit.cause = HistoryEvent::Cause::ITSELF;
  exit.code = CLD_DUMPED;
  exit.status = SIGSEGV;
  EXPECT_EQ(textOf(view, "last_exit"), "SIGSEGV+core");
  EXPECT_EQ(colourFor(view, "last_exit"), Colour::RED);
  exit.code = CLD_EXITED;
  exit.status = 0;
  EXPECT_EQ(textOf(view, "last_exit"), "0");
  EXPECT_EQ(colourFor(view, "last_exit"), Colour::NONE);
}

TEST(NodeCellsTest, AReplacedProgramIsYellow) {
  NodeView view = viewWith(Condition::RUNNING);
  EXPECT_EQ(textOf(view, "stale"), "-");
  view.isStale = false;
  EXPECT_EQ(textOf(view, "stale"), "no");
  view.isStale = true;
  EXPECT_EQ(textOf(view, "stale"), "yes");
  EXPECT_EQ(colourFor(view, "stale"), Colour::YELLOW);
}

TEST(NodeCellsTest, AMissingValueIsADash) {
  const NodeView view = viewWith(Condition::STOPPED);
  for (const char* const column : {"pid", "uptime", "policy", "required",
                                   "executable", "restarts", "cpu", "memory"}) {
    EXPECT_EQ(textOf(view, column), "-") << column;
    EXPECT_EQ(plainTextOf(view, column), "-") << column;
  }
  EXPECT_EQ(textOf(view, "started"), "never");
  EXPECT_EQ(plainTextOf(view, "started"), "-");
}

TEST(NodeCellsTest, APlainCellIsOneWordOrNumber) {
  NodeView view = viewInPhase("gave up");
  view.uptimeSeconds = 125;
  view.startSeconds = 1'795'178'096;
  view.memoryBytes = 2048;
  view.cpuPercent = 12.5;
  EXPECT_EQ(plainTextOf(view, "ready"), "gave-up");
  EXPECT_EQ(plainTextOf(view, "uptime"), "125");
  EXPECT_EQ(plainTextOf(view, "started"), "1795178096");
  EXPECT_EQ(plainTextOf(view, "memory"), "2048");
  EXPECT_EQ(plainTextOf(view, "cpu"), textOf(view, "cpu"));
  view.condition = Condition::NEVER_STARTED;
  EXPECT_EQ(plainTextOf(view, "state"), "never-started");
  view.run.state.reset();
  EXPECT_EQ(plainTextOf(view, "ready"), "-");
}

TEST(NodeCellsTest, WideIsEveryColumn) {
  const auto columns = expandColumns({"pid", "wide"});
  ASSERT_EQ(columns.size(), statusColumns().size() + 1);
  EXPECT_EQ(columns[0], "pid");
  EXPECT_EQ(columns[1], "node");
}

}  // namespace
}  // namespace vorn::launch
