#include "epoll.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/log_capture.h"
#include "support/system_calls.h"

namespace vorn::launch {
namespace {

using test::logLine;
using test::real;
using test::systemCalls;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

static_assert(std::is_nothrow_destructible_v<Epoll>);
static_assert(!std::is_copy_constructible_v<Epoll>);

constexpr int kNotADescriptor = 1'000'000;
constexpr int kPatienceMs = 60'000;

void doNothing() {}

/// An eventfd, readable once it has been set.
class Event {
 public:
  Event() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (fd_ == -1) throw std::runtime_error("eventfd failed");
  }
  ~Event() { (void)real.close(fd_); }
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  int fd() const { return fd_; }
  void set() const { (void)::eventfd_write(fd_, 1); }

 private:
  int fd_;
};

/// One call of epoll_ctl.
struct Control {
  int epoll_fd;
  int operation;
  int fd;
  const epoll_event* address;
  epoll_event event;  // zero if there was none
};

/// Lets the calls happen and remembers them.
class EpollTest : public ::testing::Test {
 protected:
  EpollTest() {
    systemCalls().epoll_create1 = [this](int flags) {
      create_flags_.push_back(flags);
      epoll_fd_ = real.epoll_create1(flags);
      return epoll_fd_;
    };
    systemCalls().epoll_ctl = [this](int epoll_fd, int operation, int fd,
                                     epoll_event* event) {
      controls_.push_back({epoll_fd, operation, fd, event,
                           event == nullptr ? epoll_event{} : *event});
      return real.epoll_ctl(epoll_fd, operation, fd, event);
    };
    systemCalls().epoll_wait = [this](int epoll_fd, epoll_event* events,
                                      int max_events, int timeout) {
      max_events_.push_back(max_events);
      timeouts_.push_back(timeout);
      return real.epoll_wait(epoll_fd, events, max_events, timeout);
    };
  }
  ~EpollTest() override { systemCalls() = {}; }

  /// The number of handlers, which wait() asks events for.
  int handlerCount(Epoll& epoll) {
    int count = -1;
    const auto kept = std::exchange(
        systemCalls().epoll_wait, [&](int, epoll_event*, int max_events, int) {
          count = max_events;
          return 0;
        });
    (void)epoll.wait(0);
    systemCalls().epoll_wait = kept;
    return count;
  }

  test::LogCapture log_;
  // The calls that reached the kernel, in order.
  std::vector<int> create_flags_;
  std::vector<Control> controls_;
  std::vector<int> max_events_;
  std::vector<int> timeouts_;
  int epoll_fd_ = -1;  // the last one created
};

/// Runs the handlers that wait() returned, as the main loop does.
void runAll(const std::vector<Epoll::Handler*>& ready) {
  for (const auto* handler : ready) (*handler)();
}

// --- open

TEST_F(EpollTest, OpeningCreatesADescriptorThatIsClosedOnExec) {
  Epoll epoll;
  EXPECT_TRUE(epoll.open());
  EXPECT_THAT(create_flags_, ElementsAre(EPOLL_CLOEXEC));
  EXPECT_EQ(FD_CLOEXEC, ::fcntl(epoll_fd_, F_GETFD));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(EpollTest, DescriptorZeroIsAnOpenOne) {
  int creations = 0;
  std::vector<int> closed;
  systemCalls().epoll_create1 = [&](int) {
    ++creations;
    return 0;
  };
  systemCalls().close = [&](int fd) {
    closed.push_back(fd);
    return 0;
  };
  {
    Epoll epoll;
    EXPECT_TRUE(epoll.open());
    EXPECT_TRUE(epoll.open());
  }
  systemCalls().close = nullptr;
  EXPECT_EQ(1, creations);
  EXPECT_THAT(closed, ElementsAre(0));
}

TEST_F(EpollTest, AFailedCreationIsOneErrorLineAndFalse) {
  systemCalls().epoll_create1 = [](int) { return test::failWith(EMFILE); };
  Epoll epoll;
  EXPECT_FALSE(epoll.open());
  EXPECT_THAT(log_.lines(), ElementsAre(logLine("ERROR", false, "open",
                                                "epoll create failed.")));
}

TEST_F(EpollTest, AfterAFailedCreationItIsClosedAndMayBeOpenedAgain) {
  const auto create = std::exchange(systemCalls().epoll_create1,
                                    [](int) { return test::failWith(EMFILE); });
  Epoll epoll;
  ASSERT_FALSE(epoll.open());
  const Event event;
  EXPECT_FALSE(epoll.registerHandler(event.fd(), doNothing, EPOLLIN));
  EXPECT_EQ(-1, controls_.at(0).epoll_fd);
  systemCalls().epoll_create1 = create;
  EXPECT_TRUE(epoll.open());
  EXPECT_TRUE(epoll.registerHandler(event.fd(), doNothing, EPOLLIN));
}

// --- registerHandler

class OpenEpollTest : public EpollTest {
 protected:
  OpenEpollTest() { EXPECT_TRUE(epoll_.open()); }

  /// The pointer of a registration, copied: the kernel's structure is packed.
  void* handlerOf(size_t place) const {
    return controls_.at(place).event.data.ptr;
  }

  /// Makes wait() report these registrations, by their place in controls_.
  void reportRegistrations(const std::vector<size_t>& places) {
    systemCalls().epoll_wait = [=](int, epoll_event* events, int, int) {
      for (size_t i = 0; i < places.size(); ++i) {
        events[i] = controls_.at(places[i]).event;
      }
      return static_cast<int>(places.size());
    };
  }

  Epoll epoll_;
};

TEST_F(OpenEpollTest, RegisteringPutsTheDescriptorIntoTheKernelsSet) {
  const Event event;
  EXPECT_TRUE(epoll_.registerHandler(event.fd(), doNothing, EPOLLIN));
  ASSERT_THAT(controls_, SizeIs(1));
  EXPECT_EQ(epoll_fd_, controls_[0].epoll_fd);
  EXPECT_EQ(EPOLL_CTL_ADD, controls_[0].operation);
  EXPECT_EQ(event.fd(), controls_[0].fd);
  EXPECT_EQ(static_cast<uint32_t>(EPOLLIN), controls_[0].event.events);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(OpenEpollTest, TheKernelHoldsTheAddressOfTheStoredHandler) {
  const Event event;
  int calls = 0;
  ASSERT_TRUE(epoll_.registerHandler(
      event.fd(), [&] { ++calls; }, EPOLLIN));
  ASSERT_THAT(controls_, SizeIs(1));
  (*static_cast<Epoll::Handler*>(handlerOf(0)))();
  EXPECT_EQ(1, calls);
  event.set();
  EXPECT_THAT(epoll_.wait(0), ElementsAre(handlerOf(0)));
}

TEST_F(OpenEpollTest, AHandlersAddressStaysWhileOthersComeAndGo) {
  const Event event;
  const std::vector<Event> others(20);
  ASSERT_TRUE(epoll_.registerHandler(event.fd(), doNothing, EPOLLIN));
  event.set();
  const auto before = epoll_.wait(0);
  ASSERT_THAT(before, SizeIs(1));
  for (const auto& other : others) {
    ASSERT_TRUE(epoll_.registerHandler(other.fd(), doNothing, EPOLLIN));
  }
  EXPECT_EQ(before, epoll_.wait(0));
  for (const auto& other : others) {
    ASSERT_TRUE(epoll_.unregisterHandler(other.fd()));
  }
  EXPECT_EQ(before, epoll_.wait(0));
}

TEST_F(OpenEpollTest, WithoutEventsNothingIsRegistered) {
  const Event event;
  EXPECT_FALSE(epoll_.registerHandler(event.fd(), doNothing, 0));
  EXPECT_THAT(log_.lines(),
              ElementsAre(logLine("ERROR", false, "registerHandler",
                                  "not specify events.")));
  EXPECT_THAT(controls_, IsEmpty());
  EXPECT_EQ(0, handlerCount(epoll_));
}

TEST_F(OpenEpollTest, ASecondRegistrationOfADescriptorIsOneErrorLineAndFalse) {
  const Event event;
  ASSERT_TRUE(epoll_.registerHandler(event.fd(), doNothing, EPOLLIN));
  EXPECT_FALSE(epoll_.registerHandler(event.fd(), doNothing, EPOLLIN));
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(logLine("ERROR", false, "registerHandler", "emplace fail")));
  EXPECT_THAT(controls_, SizeIs(1));  // the kernel was not asked
  EXPECT_EQ(1, handlerCount(epoll_));
}

TEST_F(OpenEpollTest, ADescriptorThatTheKernelRefusesIsOneErrorLineAndFalse) {
  EXPECT_FALSE(epoll_.registerHandler(kNotADescriptor, doNothing, EPOLLIN));
  EXPECT_THAT(log_.lines(),
              ElementsAre(logLine("ERROR", false, "registerHandler",
                                  "epoll_ctl failed to add fd.")));
}

TEST_F(OpenEpollTest, ADescriptorThatTheKernelRefusesLeavesNoHandler) {
  const Event event;
  const auto add = std::exchange(
      systemCalls().epoll_ctl,
      [](int, int, int, epoll_event*) { return test::failWith(ENOMEM); });
  EXPECT_FALSE(epoll_.registerHandler(event.fd(), doNothing, EPOLLIN));
  EXPECT_EQ(0, handlerCount(epoll_));
  systemCalls().epoll_ctl = add;
  EXPECT_TRUE(epoll_.registerHandler(event.fd(), doNothing, EPOLLIN));
}

// --- unregisterHandler

TEST_F(OpenEpollTest, UnregisteringTakesTheDescriptorOutOfTheKernelsSet) {
  const Event event;
  ASSERT_TRUE(epoll_.registerHandler(event.fd(), doNothing, EPOLLIN));
  EXPECT_TRUE(epoll_.unregisterHandler(event.fd()));
  ASSERT_THAT(controls_, SizeIs(2));
  EXPECT_EQ(epoll_fd_, controls_[1].epoll_fd);
  EXPECT_EQ(EPOLL_CTL_DEL, controls_[1].operation);
  EXPECT_EQ(event.fd(), controls_[1].fd);
  EXPECT_EQ(nullptr, controls_[1].address);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(OpenEpollTest, UnregisteringDestroysTheHandlerOnly) {
  const Event event;
  const auto witness = std::make_shared<int>(0);
  ASSERT_TRUE(epoll_.registerHandler(
      event.fd(), [witness] {}, EPOLLIN));
  ASSERT_TRUE(epoll_.unregisterHandler(event.fd()));
  EXPECT_EQ(1, witness.use_count());
  EXPECT_EQ(0, handlerCount(epoll_));
  EXPECT_NE(-1, ::fcntl(event.fd(), F_GETFD));  // still open
}

TEST_F(OpenEpollTest, UnregisteringAnUnknownDescriptorFailsInTheKernel) {
  const Event event;
  EXPECT_FALSE(epoll_.unregisterHandler(event.fd()));
  EXPECT_THAT(controls_, SizeIs(1));
  EXPECT_THAT(log_.lines(),
              ElementsAre(logLine("ERROR", false, "unregisterHandler",
                                  "epoll_ctl failed to remove fd.")));
}

TEST_F(OpenEpollTest, ARemovalThatTheKernelRefusesKeepsTheHandler) {
  const Event event;
  int calls = 0;
  ASSERT_TRUE(epoll_.registerHandler(
      event.fd(), [&] { ++calls; }, EPOLLIN));
  systemCalls().epoll_ctl = [](int, int, int, epoll_event*) {
    return test::failWith(ENOMEM);
  };
  EXPECT_FALSE(epoll_.unregisterHandler(event.fd()));
  EXPECT_THAT(log_.lines(),
              ElementsAre(logLine("ERROR", false, "unregisterHandler",
                                  "epoll_ctl failed to remove fd.")));
  event.set();
  runAll(epoll_.wait(0));
  EXPECT_EQ(1, calls);
}

TEST_F(OpenEpollTest, ARemovalWithoutAHandlerIsOneErrorLineAndFalse) {
  const Event event;
  epoll_event in_kernel_only{};
  in_kernel_only.events = EPOLLIN;
  ASSERT_EQ(
      0, real.epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, event.fd(), &in_kernel_only));
  EXPECT_FALSE(epoll_.unregisterHandler(event.fd()));
  EXPECT_THAT(log_.lines(),
              ElementsAre(logLine("ERROR", false, "unregisterHandler",
                                  "handler erase failed.")));
  // The kernel has removed it nevertheless.
  EXPECT_EQ(-1, real.epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, event.fd(), nullptr));
}

// --- wait

TEST_F(OpenEpollTest, WaitReturnsTheHandlersOfReadyDescriptorsOnly) {
  const Event ready;
  const Event idle;
  int ready_calls = 0;
  int idle_calls = 0;
  ASSERT_TRUE(epoll_.registerHandler(
      ready.fd(), [&] { ++ready_calls; }, EPOLLIN));
  ASSERT_TRUE(epoll_.registerHandler(
      idle.fd(), [&] { ++idle_calls; }, EPOLLIN));
  ready.set();
  const auto handlers = epoll_.wait(-1);
  EXPECT_EQ(0, ready_calls);  // running them is the caller's part
  runAll(handlers);
  EXPECT_EQ(1, ready_calls);
  EXPECT_EQ(0, idle_calls);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(OpenEpollTest, WaitAsksForAsManyEventsAsThereAreHandlers) {
  const Event first;
  const Event second;
  const Event third;
  ASSERT_TRUE(epoll_.registerHandler(first.fd(), doNothing, EPOLLIN));
  (void)epoll_.wait(0);
  ASSERT_TRUE(epoll_.registerHandler(second.fd(), doNothing, EPOLLIN));
  ASSERT_TRUE(epoll_.registerHandler(third.fd(), doNothing, EPOLLIN));
  (void)epoll_.wait(0);
  ASSERT_TRUE(epoll_.unregisterHandler(first.fd()));
  (void)epoll_.wait(0);
  EXPECT_THAT(max_events_, ElementsAre(1, 3, 2));
}

TEST_F(OpenEpollTest, WaitPassesItsTimeoutOn) {
  const Event event;
  ASSERT_TRUE(epoll_.registerHandler(event.fd(), doNothing, EPOLLIN));
  event.set();
  (void)epoll_.wait(-1);
  (void)epoll_.wait(0);
  (void)epoll_.wait(1000);
  EXPECT_THAT(timeouts_, ElementsAre(-1, 0, 1000));
}

TEST_F(OpenEpollTest, WaitKeepsTheKernelsOrder) {
  const std::vector<Event> events(3);
  for (const auto& event : events) {
    ASSERT_TRUE(epoll_.registerHandler(event.fd(), doNothing, EPOLLIN));
  }
  reportRegistrations({2, 0, 1});
  EXPECT_THAT(epoll_.wait(0),
              ElementsAre(handlerOf(2), handlerOf(0), handlerOf(1)));
}

TEST_F(OpenEpollTest, WithoutHandlersWaitIsRefusedByTheKernel) {
  EXPECT_THAT(epoll_.wait(0), IsEmpty());
  EXPECT_THAT(max_events_, ElementsAre(0));
  EXPECT_THAT(log_.lines(), ElementsAre(logLine("ERROR", false, "wait",
                                                "epoll_wait failed.")));
}

TEST_F(OpenEpollTest, ATimeoutIsAnEmptyResultWithoutALine) {
  const Event event;
  ASSERT_TRUE(epoll_.registerHandler(event.fd(), doNothing, EPOLLIN));
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_THAT(epoll_.wait(50), IsEmpty());
  EXPECT_GE(std::chrono::steady_clock::now() - begin,
            std::chrono::milliseconds(50));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

void swallow(int) {}

TEST_F(OpenEpollTest, AnInterruptedWaitIsAFailureAndNotRepeated) {
  const Event event;
  ASSERT_TRUE(epoll_.registerHandler(event.fd(), doNothing, EPOLLIN));
  struct sigaction action {};
  action.sa_handler = swallow;
  ASSERT_EQ(0, real.sigaction(SIGALRM, &action, nullptr));
  // Repeated, because the first one can arrive before the wait.
  const itimerval every_20_ms{{0, 20'000}, {0, 20'000}};
  const itimerval never{};
  ASSERT_EQ(0, ::setitimer(ITIMER_REAL, &every_20_ms, nullptr));
  const auto ready = epoll_.wait(kPatienceMs);
  ASSERT_EQ(0, ::setitimer(ITIMER_REAL, &never, nullptr));
  EXPECT_THAT(ready, IsEmpty());
  EXPECT_THAT(timeouts_, ElementsAre(kPatienceMs));
  EXPECT_THAT(log_.lines(), ElementsAre(logLine("ERROR", false, "wait",
                                                "epoll_wait failed.")));
}

// --- The end

TEST_F(EpollTest, TheEndOfAClosedOneClosesNothing) {
  int closes = 0;
  systemCalls().close = [&](int fd) {
    ++closes;
    return real.close(fd);
  };
  { const Epoll epoll; }
  systemCalls().close = nullptr;
  EXPECT_EQ(0, closes);
}

TEST_F(EpollTest, ItsDestructorDestroysTheHandlersButNotTheirDescriptors) {
  const Event event;
  const auto witness = std::make_shared<int>(0);
  {
    Epoll epoll;
    ASSERT_TRUE(epoll.open());
    ASSERT_TRUE(epoll.registerHandler(
        event.fd(), [witness] {}, EPOLLIN));
  }
  EXPECT_EQ(1, witness.use_count());
  EXPECT_NE(-1, ::fcntl(event.fd(), F_GETFD));
  EXPECT_THAT(controls_, SizeIs(1));  // the registration, no removal
}

TEST_F(EpollTest, ItClosesTheDescriptorBeforeItDestroysTheHandlers) {
  const Event event;
  int fd_flags = 0;
  {
    Epoll epoll;
    ASSERT_TRUE(epoll.open());
    const std::shared_ptr<void> last(
        nullptr, [&](void*) { fd_flags = ::fcntl(epoll_fd_, F_GETFD); });
    ASSERT_TRUE(epoll.registerHandler(
        event.fd(), [last] {}, EPOLLIN));
  }
  EXPECT_EQ(-1, fd_flags);
}

}  // namespace
}  // namespace vorn::launch
