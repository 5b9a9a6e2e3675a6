#include "live/event_text.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

namespace vorn::launch {
namespace {

using EventKind = HistoryEvent::Kind;
using EventCause = HistoryEvent::Cause;

HistoryEvent eventOf(EventKind kind, EventCause cause = EventCause::UNKNOWN) {
  HistoryEvent event;
  event.kind = kind;
  event.cause = cause;
  event.launcher = 7;
  event.code = CLD_EXITED;
  event.detail = "/bin/a";
  return event;
}

HistoryEvent exitOf(int code, int status,
                    EventCause cause = EventCause::ITSELF) {
  HistoryEvent exit = eventOf(EventKind::EXITED, cause);
  exit.code = code;
  exit.status = status;
  return exit;
}

TEST(EventTextTest, AStartHasItsCause) {
  const auto start = [](EventCause cause) {
    return eventText(eventOf(EventKind::STARTED, cause));
  };
  EXPECT_EQ(start(EventCause::UNKNOWN), "started");
  EXPECT_EQ(start(EventCause::START_UP), "started with the launcher");
  EXPECT_EQ(start(EventCause::ITSELF), "restarted after its exit");
  EXPECT_EQ(start(EventCause::OPERATOR), "started by a command");
  EXPECT_EQ(start(EventCause::REQUIRED),
            "restarted with a node that requires it");
}

TEST(EventTextTest, AnExitHasItsCauseIfThatIsACommand) {
  const auto exit = [](EventCause cause) {
    return eventText(exitOf(CLD_KILLED, SIGTERM, cause));
  };
  const std::string text = "was killed by SIGTERM (Terminated)";
  EXPECT_EQ(exit(EventCause::ITSELF), text);
  EXPECT_EQ(exit(EventCause::UNKNOWN), text);
  EXPECT_EQ(exit(EventCause::OPERATOR), text + ", stopped by a command");
  EXPECT_EQ(exit(EventCause::REQUIRED),
            text + ", stopped with a node that requires it");
}

TEST(EventTextTest, AnExitIsAStatusOrASignal) {
  EXPECT_EQ(exitText(exitOf(CLD_EXITED, 3)), "exited with status 3");
  EXPECT_EQ(exitWord(exitOf(CLD_EXITED, 3)), "3");
  EXPECT_EQ(exitText(exitOf(CLD_DUMPED, SIGSEGV)),
            "was killed by SIGSEGV (Segmentation fault), core dumped");
  EXPECT_EQ(exitWord(exitOf(CLD_DUMPED, SIGSEGV)), "SIGSEGV");
  EXPECT_EQ(exitText(exitOf(CLD_KILLED, 40)), "was killed by signal 40");
  EXPECT_EQ(exitWord(exitOf(CLD_KILLED, 40)), "signal 40");
}

TEST(EventTextTest, OnlyTheSigkillOfAStopIsForced) {
  const std::string forced = ", because SIGTERM did not end it in time";
  const std::string killed = "was killed by SIGKILL (Killed)";
  EXPECT_EQ(exitText(exitOf(CLD_KILLED, SIGKILL)), killed);
  EXPECT_EQ(exitText(exitOf(CLD_KILLED, SIGKILL, EventCause::OPERATOR)),
            killed + forced);
  EXPECT_EQ(exitText(exitOf(CLD_KILLED, SIGKILL, EventCause::REQUIRED)),
            killed + forced);
}

TEST(EventTextTest, AProgramThatCannotBeExecutedIsNotAnOrdinaryExit) {
  HistoryEvent exit = exitOf(CLD_EXITED, 1);
  exit.isExecutionFailed = true;
  EXPECT_EQ(exitText(exit), "could not be executed, exit status 1");
}

struct NamedEvent {
  EventKind kind;
  const char* word;
  const char* text;
};

TEST(EventTextTest, EachKindOfEventHasATextAndAWord) {
  const NamedEvent events[] = {
      {EventKind::LAUNCHER_STARTED, "launcher-started", "launcher 7 started"},
      {EventKind::LAUNCHER_STOPPING, "launcher-stopping",
       "launcher 7 received SIGTERM and stops all nodes"},
      {EventKind::STARTED, "started", "started"},
      {EventKind::EXITED, "exited", "exited with status 0"},
      {EventKind::LOST, "lost", "launcher 7 ended; the exit is not in the log"},
      {EventKind::START_REFUSED, "start-refused",
       "start refused: the node is disabled"},
      {EventKind::START_SKIPPED, "start-skipped",
       "not started: autostart is false"},
      {EventKind::EXECUTABLE_MISSING, "executable-missing",
       "disabled: the executable /bin/a does not exist"},
      {EventKind::FORK_FAILED, "fork-failed", "not started: fork failed"},
      {EventKind::STOP_FAILED, "stop-failed", "stop failed: /bin/a"},
      {EventKind::RESTART_CANCELLED, "restart-cancelled",
       "stopped by a command before its restart"},
  };
  for (const NamedEvent& event : events) {
    EXPECT_STREQ(wordFor(event.kind), event.word);
    EXPECT_EQ(eventText(eventOf(event.kind)), event.text);
  }
}

TEST(EventTextTest, EachCauseHasAWord) {
  EXPECT_STREQ(wordFor(EventCause::UNKNOWN), "unknown");
  EXPECT_STREQ(wordFor(EventCause::START_UP), "start-up");
  EXPECT_STREQ(wordFor(EventCause::ITSELF), "itself");
  EXPECT_STREQ(wordFor(EventCause::OPERATOR), "operator");
  EXPECT_STREQ(wordFor(EventCause::REQUIRED), "required");
}

TEST(EventTextTest, AnActionHasItsUserOutcomeAndReason) {
  ActionRecord action;
  action.command = "stop";
  action.uid = 1000;
  action.outcome = "done";
  EXPECT_EQ(actionText(action), "stop by uid 1000");
  action.user = "root";
  action.sudoUser = "alice";
  action.outcome = "failed";
  action.reason = "battery change";
  EXPECT_EQ(actionText(action),
            "stop by root (alice by sudo), failed: battery change");
}

}  // namespace
}  // namespace vorn::launch
