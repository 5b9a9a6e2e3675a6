#include "live/termination.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vorn::launch {
namespace {

using TerminationOutcome = Termination::Outcome;
using std::chrono::milliseconds;

constexpr milliseconds kLong{60'000};

/// A child that waits for signals. It exists as long as this object.
class Child {
 public:
  Child() : pid_(::fork()) {
    if (pid_ == 0) {
      for (;;) (void)::pause();
    }
  }
  ~Child() {
    (void)::kill(pid_, SIGKILL);
    (void)::waitpid(pid_, nullptr, 0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  Process process() const { return readProcess(pid_).value_or(Process()); }

 private:
  pid_t pid_;
};

TEST(TerminationTest, ProcessesExitAfterSigterm) {
  const Child first;
  const Child second;
  const auto results =
      terminate({first.process(), second.process()}, kLong, -1);
  ASSERT_EQ(results.size(), 2U);
  EXPECT_EQ(results[0].outcome, TerminationOutcome::TERMINATED);
  EXPECT_EQ(results[1].outcome, TerminationOutcome::TERMINATED);
  EXPECT_FALSE(first.process().isAlive());
  EXPECT_FALSE(second.process().isAlive());
}

TEST(TerminationTest, AnotherProcessWithTheSamePidReceivesNoSignal) {
  const Child child;
  Process earlier = child.process();
  --earlier.startTicks;
  EXPECT_EQ(terminate({earlier}, kLong, -1).front().outcome,
            TerminationOutcome::TERMINATED);
  EXPECT_TRUE(child.process().isAlive());
}

TEST(TerminationTest, AProcessThatHasExitedIsTerminated) {
  Process process;
  {
    const Child child;
    process = child.process();
  }
  EXPECT_EQ(terminate({process}, kLong, -1).front().outcome,
            TerminationOutcome::TERMINATED);
}

TEST(TerminationTest, AStopSignalEndsTheWaitWithoutSigkill) {
  int pipe_ends[2];
  ASSERT_EQ(::pipe(pipe_ends), 0);
  ASSERT_EQ(::write(pipe_ends[1], "x", 1), 1);
  // SIGTERM has no effect on a stopped process before it continues.
  const Child child;
  ASSERT_EQ(::kill(child.process().pid, SIGSTOP), 0);
  while (child.process().state != 'T') {
  }
  const auto results = terminate({child.process()}, kLong, pipe_ends[0]);
  EXPECT_EQ(results.front().outcome, TerminationOutcome::RUNNING);
  EXPECT_NE(results.front().error, "");
  EXPECT_TRUE(child.process().isAlive());
  (void)::close(pipe_ends[0]);
  (void)::close(pipe_ends[1]);
}

}  // namespace
}  // namespace vorn::launch
