#include "control_client.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <future>
#include <iterator>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "support/fake_launcher.h"
#include "support/socket_calls.h"

namespace vorn::launch {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using test::FakeLauncher;
using test::realSocketCalls;
using test::socketCalls;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::Le;
using ::testing::Not;

constexpr char kMayTakeEffect[] =
    "the request was delivered and may still take effect";

ControlClient clientOf(const FakeLauncher& launcher) {
  ControlOptions options;
  options.socketPath = launcher.path();
  return ControlClient(options);
}

std::string replyOf(ControlResponse::Result result) {
  ControlResponse response;
  response.result = result;
  return FakeLauncher::bytesOf(response);
}

/// A client's six calls by command.
ControlReply call(ControlClient& client, ControlRequest::Cmd cmd,
                  std::string_view name) {
  switch (cmd) {
    case ControlRequest::Cmd::START:
      return client.start(name);
    case ControlRequest::Cmd::STOP:
      return client.stop(name);
    case ControlRequest::Cmd::RESTART:
      return client.restart(name);
    case ControlRequest::Cmd::STATUS: {
      const StatusReply reply = client.status(name);
      return static_cast<const ControlReply&>(reply);
    }
    case ControlRequest::Cmd::DISABLE:
      return client.disable(name);
    case ControlRequest::Cmd::ENABLE:
      return client.enable(name);
  }
  return {};
}

/// The calls of this thread since the last one of this name, without poll().
std::vector<std::string> callsSince(const std::string& name) {
  const auto& made = socketCalls().made;
  const auto last = std::find(made.rbegin(), made.rend(), name);
  std::vector<std::string> calls;
  std::copy_if(last.base(), made.end(), std::back_inserter(calls),
               [](const std::string& call) { return call != "poll"; });
  return calls;
}

// -- Requests.

class EachCommandTest : public ::testing::TestWithParam<ControlRequest::Cmd> {};

TEST_P(EachCommandTest, SendsItsNumberAndTheNamePaddedWithNuls) {
  std::promise<std::string> received;
  const FakeLauncher launcher([&](int connection) {
    std::string bytes(sizeof(ControlRequest), '\0');
    ASSERT_EQ(::recv(connection, bytes.data(), bytes.size(), 0), 132);
    const std::string reply = replyOf(ControlResponse::Result::SUCCESS);
    ASSERT_EQ(::send(connection, reply.data(), reply.size(), 0), 24);
    received.set_value(bytes + FakeLauncher::readToEnd(connection));
  });
  ControlClient client = clientOf(launcher);
  EXPECT_TRUE(call(client, GetParam(), "planner").isDone());
  std::string expected(132, '\0');
  const auto number = static_cast<uint32_t>(GetParam());
  std::memcpy(expected.data(), &number, sizeof(number));
  expected.replace(4, 7, "planner");
  EXPECT_EQ(received.get_future().get(), expected);
}

INSTANTIATE_TEST_SUITE_P(
    All, EachCommandTest,
    ::testing::Values(ControlRequest::Cmd::START, ControlRequest::Cmd::STOP,
                      ControlRequest::Cmd::RESTART, ControlRequest::Cmd::STATUS,
                      ControlRequest::Cmd::DISABLE,
                      ControlRequest::Cmd::ENABLE),
    [](const auto& test) {
      return "Number" + std::to_string(static_cast<uint32_t>(test.param));
    });

TEST(ControlClientNameTest, OneOf127BytesIsSentWhole) {
  std::promise<std::string> received;
  const FakeLauncher launcher([&](int connection) {
    ControlRequest request;
    ASSERT_EQ(::recv(connection, &request, sizeof(request), 0), 132);
    received.set_value(request.name);
  });
  const std::string name(127, 'n');
  EXPECT_EQ(clientOf(launcher).status(name).outcome, Outcome::UNKNOWN);
  EXPECT_EQ(received.get_future().get(), name);
}

TEST(ControlClientNameTest, OneOf128BytesIsRefusedWithoutASocket) {
  const ControlReply reply = ControlClient().start(std::string(128, 'n'));
  EXPECT_EQ(reply.outcome, Outcome::INVALID_NAME);
  EXPECT_EQ(reply.message,
            "a node's name has at most 127 bytes; this one has 128");
  EXPECT_THAT(socketCalls().made, IsEmpty());
}

TEST(ControlClientNameTest, OneWithANulIsRefusedWithoutASocket) {
  const ControlReply reply = ControlClient().stop(std::string_view("a\0b", 3));
  EXPECT_EQ(reply.outcome, Outcome::INVALID_NAME);
  EXPECT_EQ(reply.message, "a node's name cannot contain a NUL byte");
  EXPECT_THAT(socketCalls().made, IsEmpty());
}

// -- Replies.

class EachResultTest : public ::testing::TestWithParam<
                           std::pair<ControlResponse::Result, Outcome>> {};

TEST_P(EachResultTest, IsTheOutcomeAndNeedsNoMessage) {
  const auto [result, outcome] = GetParam();
  const FakeLauncher launcher(FakeLauncher::replyWith(replyOf(result)));
  const ControlReply reply = clientOf(launcher).start("planner");
  EXPECT_EQ(reply.outcome, outcome);
  EXPECT_EQ(reply.message, "");
}

INSTANTIATE_TEST_SUITE_P(
    All, EachResultTest,
    ::testing::Values(
        std::pair{ControlResponse::Result::SUCCESS, Outcome::DONE},
        std::pair{ControlResponse::Result::NOT_FOUND, Outcome::NOT_FOUND},
        std::pair{ControlResponse::Result::FAILED, Outcome::FAILED}),
    [](const auto& test) {
      return "Number" + std::to_string(static_cast<int32_t>(test.param.first));
    });

TEST(ControlClientReplyTest, StatusContainsStatePidAndLastStart) {
  ControlResponse response;
  response.pid = 999;
  response.state = 2;
  response.startSeconds = 1763040288;
  const FakeLauncher launcher(
      FakeLauncher::replyWith(FakeLauncher::bytesOf(response)));
  const StatusReply reply = clientOf(launcher).status("planner");
  ASSERT_TRUE(reply.isDone());
  EXPECT_EQ(reply.state, NodeState::RESTARTING);
  EXPECT_EQ(reply.pid, 999);
  EXPECT_EQ(reply.startSeconds, 1763040288);
}

TEST(ControlClientReplyTest, IdentifiesTheListener) {
  const FakeLauncher launcher(
      FakeLauncher::replyWith(replyOf(ControlResponse::Result::SUCCESS)));
  const ControlReply reply = clientOf(launcher).start("planner");
  EXPECT_EQ(reply.launcherPid, ::getpid());
  EXPECT_EQ(reply.launcherUid, ::geteuid());
}

TEST(ControlClientReplyTest, ArrivesInPieces) {
  const FakeLauncher launcher([](int connection) {
    ControlRequest request;
    (void)::recv(connection, &request, sizeof(request), 0);
    for (const char byte : replyOf(ControlResponse::Result::FAILED)) {
      (void)::send(connection, &byte, 1, 0);
    }
  });
  EXPECT_EQ(clientOf(launcher).start("planner").outcome, Outcome::FAILED);
}

TEST(ControlClientReplyTest, IsWholeAfter24BytesWhileTheConnectionStaysOpen) {
  std::string after;
  const FakeLauncher launcher([&](int connection) {
    FakeLauncher::replyWith(replyOf(ControlResponse::Result::SUCCESS) +
                            "more")(connection);
    after = FakeLauncher::readToEnd(connection);  // until the client closes
  });
  EXPECT_TRUE(clientOf(launcher).start("planner").isDone());
}

TEST(ControlClientReplyTest, OfNoBytesLeavesTheOutcomeUnknown) {
  const FakeLauncher launcher(FakeLauncher::replyWith(""));
  const ControlReply reply = clientOf(launcher).start("planner");
  EXPECT_EQ(reply.outcome, Outcome::UNKNOWN);
  EXPECT_EQ(
      reply.message,
      std::string("the launcher hung up without a reply; ") + kMayTakeEffect);
}

TEST(ControlClientReplyTest, Of23BytesIsAProtocolError) {
  const FakeLauncher launcher(FakeLauncher::replyWith(
      replyOf(ControlResponse::Result::SUCCESS).substr(0, 23)));
  const ControlReply reply = clientOf(launcher).start("planner");
  EXPECT_EQ(reply.outcome, Outcome::PROTOCOL_ERROR);
  EXPECT_EQ(
      reply.message,
      std::string("the reply ended after 23 of 24 bytes; ") + kMayTakeEffect);
}

TEST(ControlClientReplyTest, WithAnUnknownResultIsAProtocolError) {
  for (const int32_t result : {-1, 3, 0x7f7f7f7f}) {
    const FakeLauncher launcher(FakeLauncher::replyWith(
        replyOf(static_cast<ControlResponse::Result>(result))));
    const ControlReply reply = clientOf(launcher).start("planner");
    EXPECT_EQ(reply.outcome, Outcome::PROTOCOL_ERROR);
    EXPECT_THAT(reply.message,
                AllOf(HasSubstr("unknown result " + std::to_string(result)),
                      HasSubstr(kMayTakeEffect)));
  }
}

TEST(ControlClientReplyTest, WithAnUnknownStateIsAProtocolError) {
  for (const int32_t state : {-1, 4}) {
    ControlResponse response;
    response.state = state;
    const FakeLauncher launcher(
        FakeLauncher::replyWith(FakeLauncher::bytesOf(response)));
    const StatusReply reply = clientOf(launcher).status("planner");
    EXPECT_EQ(reply.outcome, Outcome::PROTOCOL_ERROR);
    EXPECT_EQ(reply.message, "the reply has the state " +
                                 std::to_string(state) +
                                 ", the pid 0 and the start 0");
  }
}

TEST(ControlClientReplyTest, WithANegativePidIsAProtocolError) {
  ControlResponse response;
  response.pid = -1;
  const FakeLauncher launcher(
      FakeLauncher::replyWith(FakeLauncher::bytesOf(response)));
  EXPECT_EQ(clientOf(launcher).status("planner").outcome,
            Outcome::PROTOCOL_ERROR);
}

TEST(ControlClientReplyTest, WithANegativeStartIsAProtocolError) {
  ControlResponse response;
  response.startSeconds = std::numeric_limits<int64_t>::min();
  const FakeLauncher launcher(
      FakeLauncher::replyWith(FakeLauncher::bytesOf(response)));
  EXPECT_EQ(clientOf(launcher).status("planner").outcome,
            Outcome::PROTOCOL_ERROR);
}

TEST(ControlClientReplyTest, CutByAResetLeavesTheOutcomeUnknown) {
  // A connection closed with unread bytes in it is reset.
  const FakeLauncher launcher([](int connection) {
    char byte = 0;
    (void)::recv(connection, &byte, 1, 0);
  });
  const ControlReply reply = clientOf(launcher).start("planner");
  EXPECT_EQ(reply.outcome, Outcome::UNKNOWN);
  EXPECT_EQ(reply.message, std::string("no reply: Connection reset by peer; ") +
                               kMayTakeEffect);
}

TEST(ControlClientReplyTest, TimesOutAfterTheTotalLimit) {
  const FakeLauncher launcher(
      [&](int connection) { (void)FakeLauncher::readToEnd(connection); });
  ControlOptions options;
  options.socketPath = launcher.path();
  options.totalLimit = milliseconds(250);
  const ControlReply reply = ControlClient(options).start("planner");
  EXPECT_EQ(reply.outcome, Outcome::UNKNOWN);
  EXPECT_EQ(reply.message,
            std::string("no reply within 0.25 s; ") + kMayTakeEffect);
}

TEST(ControlClientReplyTest, ThatDoesNotComeInTimeLeavesTheOutcomeUnknown) {
  std::string rest;
  const FakeLauncher launcher(
      [&](int connection) { rest = FakeLauncher::readToEnd(connection); });
  ControlOptions options;
  options.socketPath = launcher.path();
  options.replyLimit = milliseconds(250);
  const ControlReply reply = ControlClient(options).start("planner");
  EXPECT_EQ(reply.outcome, Outcome::UNKNOWN);
  EXPECT_EQ(reply.message,
            std::string("no reply within 0.25 s; ") + kMayTakeEffect);
}

// -- Who does not listen.

TEST(NoLauncherTest, ThereIsNoSocket) {
  ControlOptions options;
  options.socketPath = "/nonexistent/socket";
  const ControlReply reply = ControlClient(options).start("planner");
  EXPECT_EQ(reply.outcome, Outcome::NO_LAUNCHER);
  EXPECT_EQ(
      reply.message,
      "no launcher is running: the socket /nonexistent/socket does not exist");
}

TEST(NoLauncherTest, TheSocketIsStale) {
  FakeLauncher launcher({});
  const std::string left = launcher.path() + "-left";
  {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    left.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address),
                     sizeof(address)),
              0);
    (void)::close(fd);
  }
  ControlOptions options;
  options.socketPath = left;
  const ControlReply reply = ControlClient(options).start("planner");
  (void)::unlink(left.c_str());
  EXPECT_EQ(reply.outcome, Outcome::NO_LAUNCHER);
  EXPECT_EQ(reply.message, "no launcher is running: " + left +
                               " is a stale socket, no process listens on it");
}

TEST(NoLauncherTest, WeMayNotConnect) {
  for (const int error : {EACCES, EPERM}) {
    socketCalls().connect = [error](int, const sockaddr*, socklen_t) {
      errno = error;
      return -1;
    };
    const ControlReply reply = ControlClient().start("planner");
    EXPECT_EQ(reply.outcome, Outcome::NO_LAUNCHER);
    EXPECT_EQ(reply.message,
              "no permission to connect to /tmp/vornlaunch/vornlaunch.sock");
  }
}

TEST(NoLauncherTest, AnyOtherFailureIsReported) {
  socketCalls().connect = [](int, const sockaddr*, socklen_t) {
    errno = EPROTOTYPE;
    return -1;
  };
  const ControlReply reply = ControlClient().start("planner");
  EXPECT_EQ(reply.outcome, Outcome::NO_LAUNCHER);
  EXPECT_EQ(reply.message,
            "cannot connect to /tmp/vornlaunch/vornlaunch.sock: Protocol wrong "
            "type for socket");
}

TEST(NoLauncherTest, ItClosesBeforeTheSend) {
  const FakeLauncher launcher({});
  socketCalls().send = [](int, const void*, size_t, int) -> ssize_t {
    errno = EPIPE;
    return -1;
  };
  const ControlReply reply = clientOf(launcher).start("planner");
  EXPECT_EQ(reply.outcome, Outcome::NO_LAUNCHER);
  EXPECT_EQ(reply.message, "the launcher closed the connection: Broken pipe");
}

TEST(NoLauncherTest, TheRequestIsNeverContinuedWhenItWasCut) {
  const FakeLauncher launcher({});
  socketCalls().send = [](int, const void*, size_t, int) -> ssize_t {
    return 100;
  };
  const ControlReply reply = clientOf(launcher).start("planner");
  EXPECT_EQ(reply.outcome, Outcome::NO_LAUNCHER);
  EXPECT_EQ(reply.message, "the request could not be sent in one piece");
}

TEST(NoLauncherTest, ThePathOfTheSocketIsTooLong) {
  ControlOptions options;
  options.socketPath = std::string(108, 'p');
  const ControlReply reply = ControlClient(options).start("planner");
  EXPECT_EQ(reply.outcome, Outcome::NO_LAUNCHER);
  EXPECT_THAT(reply.message, HasSubstr("longer than 107 bytes"));
  EXPECT_THAT(socketCalls().made, IsEmpty());
}

TEST(NoLauncherTest, APathOf107BytesIsTriedWhole) {
  std::string tried;
  socketCalls().connect = [&](int, const sockaddr* address, socklen_t) {
    tried = reinterpret_cast<const sockaddr_un*>(address)->sun_path;
    errno = ENOENT;
    return -1;
  };
  ControlOptions options;
  options.socketPath = std::string(107, 'p');
  EXPECT_EQ(ControlClient(options).start("planner").outcome,
            Outcome::NO_LAUNCHER);
  EXPECT_EQ(tried, options.socketPath);
}

TEST(NotSentTest, NoSocketCanBeMade) {
  socketCalls().socket = [](int, int, int) {
    errno = EMFILE;
    return -1;
  };
  const ControlReply reply = ControlClient().start("planner");
  EXPECT_EQ(reply.outcome, Outcome::NOT_SENT);
  EXPECT_EQ(reply.message, "cannot create a socket: Too many open files");
}

// -- Trusted listeners.

/// Makes the kernel report `uid` as the listener's user.
void pretendListenerIs(uid_t uid) {
  socketCalls().getsockopt = [uid](int fd, int level, int option, void* value,
                                   socklen_t* size) {
    const int result =
        realSocketCalls.getsockopt(fd, level, option, value, size);
    static_cast<ucred*>(value)->uid = uid;
    return result;
  };
}

class TrustTest : public ::testing::Test {
 protected:
  std::atomic<size_t> received_{0};
  FakeLauncher launcher_{[this](int connection) {
    ControlRequest request;
    const ssize_t count = ::recv(connection, &request, sizeof(request), 0);
    if (count > 0) received_ += static_cast<size_t>(count);
    const std::string reply = replyOf(ControlResponse::Result::SUCCESS);
    (void)::send(connection, reply.data(), reply.size(), MSG_NOSIGNAL);
  }};
};

TEST_F(TrustTest, AnotherUserGetsNothing) {
  const uid_t other = ::geteuid() + 1000;
  pretendListenerIs(other);
  const ControlReply reply = clientOf(launcher_).start("planner");
  EXPECT_EQ(reply.outcome, Outcome::UNTRUSTED);
  EXPECT_EQ(reply.launcherUid, other);
  EXPECT_EQ(reply.message, "the launcher on " + launcher_.path() +
                               " belongs to user " + std::to_string(other) +
                               ", neither root nor you");
  EXPECT_THAT(socketCalls().made, Not(::testing::Contains("send")));
  EXPECT_EQ(received_, 0U);
}

TEST_F(TrustTest, RootIsTrusted) {
  pretendListenerIs(0);
  EXPECT_TRUE(clientOf(launcher_).start("planner").isDone());
}

TEST_F(TrustTest, OurselvesAreTrusted) {
  EXPECT_TRUE(clientOf(launcher_).start("planner").isDone());
}

TEST_F(TrustTest, AnyUserIsTrustedOnRequest) {
  pretendListenerIs(::geteuid() + 1000);
  ControlOptions options;
  options.socketPath = launcher_.path();
  options.trustAnyUser = true;
  EXPECT_TRUE(ControlClient(options).start("planner").isDone());
}

TEST_F(TrustTest, AListenerOfUnknownUserIsNotTrusted) {
  socketCalls().getsockopt = [](int, int, int, void*, socklen_t*) {
    errno = ENOPROTOOPT;
    return -1;
  };
  const ControlReply reply = clientOf(launcher_).start("planner");
  EXPECT_EQ(reply.outcome, Outcome::UNTRUSTED);
  EXPECT_EQ(
      reply.message,
      "cannot determine the user of the launcher: Protocol not available");
  EXPECT_EQ(received_, 0U);
}

/// Has a symbolic link at the socket's path.
class LinkedSocketTest : public TrustTest {
 protected:
  LinkedSocketTest() {
    std::filesystem::create_symlink(launcher_.path(), link_);
    options_.socketPath = link_;
  }
  ~LinkedSocketTest() override { std::filesystem::remove(link_); }

  static void pretendLinkIs(uid_t uid) {
    socketCalls().lstat = [uid](const char* path, struct stat* status) {
      const int result = realSocketCalls.lstat(path, status);
      status->st_uid = uid;
      return result;
    };
  }

  const std::string link_ = launcher_.path() + "-link";
  ControlOptions options_;
};

TEST_F(LinkedSocketTest, OfAnotherUserIsRefused) {
  const uid_t other = ::geteuid() + 1000;
  pretendLinkIs(other);
  const ControlReply reply = ControlClient(options_).start("planner");
  EXPECT_EQ(reply.outcome, Outcome::UNTRUSTED);
  EXPECT_EQ(reply.message,
            link_ + " is a symbolic link that belongs to user " +
                std::to_string(other) +
                ", neither root nor you; remove it, or use the path of the "
                "launcher's own socket");
  EXPECT_THAT(socketCalls().made, Not(::testing::Contains("connect")));
}

TEST_F(LinkedSocketTest, OfRootIsFollowed) {
  pretendLinkIs(0);
  EXPECT_TRUE(ControlClient(options_).start("planner").isDone());
}

TEST_F(LinkedSocketTest, OfOurselvesIsFollowed) {
  EXPECT_TRUE(ControlClient(options_).start("planner").isDone());
}

TEST_F(LinkedSocketTest, OfAnotherUserIsFollowedWhenAnyUserIsTrusted) {
  pretendLinkIs(::geteuid() + 1000);
  options_.trustAnyUser = true;
  EXPECT_TRUE(ControlClient(options_).start("planner").isDone());
}

TEST_F(LinkedSocketTest, IsTheOnlyFileWithAnOwnerThatMatters) {
  pretendLinkIs(::geteuid() + 1000);
  EXPECT_TRUE(clientOf(launcher_).start("planner").isDone());
}

// -- While others wait before us.

/// Fills the queue of a launcher that accepts no connection.
class Queue {
 public:
  explicit Queue(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    for (;;) {
      const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
      if (::connect(fd, reinterpret_cast<const sockaddr*>(&address),
                    sizeof(address)) != 0) {
        (void)::close(fd);
        break;
      }
      waiting_.push_back(fd);
    }
    socketCalls().made.clear();
  }
  ~Queue() { leave(); }
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;

  void leave() {
    for (const int fd : waiting_) (void)::close(fd);
    waiting_.clear();
  }

 private:
  std::vector<int> waiting_;
};

TEST(BusyLauncherTest, IsTriedUntilTheConnectLimit) {
  const FakeLauncher launcher({}, 1);
  const Queue queue(launcher.path());
  ControlOptions options;
  options.socketPath = launcher.path();
  options.connectLimit = milliseconds(300);
  const auto begin = std::chrono::steady_clock::now();
  const ControlReply reply = ControlClient(options).start("planner");
  EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(300));
  EXPECT_EQ(reply.outcome, Outcome::NOT_SENT);
  EXPECT_EQ(
      reply.message,
      "the launcher is busy: it accepted no connection within 0.3 s; nothing "
      "was sent");
}

TEST(BusyLauncherTest, GetsTheRequestWhenItsQueueHasRoom) {
  FakeLauncher launcher({}, 1);
  Queue queue(launcher.path());
  int tries = 0;
  socketCalls().connect = [&](int fd, const sockaddr* address, socklen_t size) {
    if (++tries == 3) {
      queue.leave();
      launcher.serve([](int connection) {
        ControlRequest request;
        if (::recv(connection, &request, sizeof(request), 0) <= 0) return;
        const std::string reply = replyOf(ControlResponse::Result::SUCCESS);
        (void)::send(connection, reply.data(), reply.size(), MSG_NOSIGNAL);
      });
    }
    return realSocketCalls.connect(fd, address, size);
  };
  EXPECT_TRUE(clientOf(launcher).start("planner").isDone());
  EXPECT_GE(tries, 3);
}

TEST(BusyLauncherTest, IsTriedWithGrowingPauses) {
  const FakeLauncher launcher({}, 1);
  const Queue queue(launcher.path());
  std::vector<int> pauses;
  socketCalls().poll = [&](pollfd* watched, nfds_t count, int limit) {
    pauses.push_back(limit);
    return realSocketCalls.poll(watched, count, limit);
  };
  ControlOptions options;
  options.socketPath = launcher.path();
  options.connectLimit = milliseconds(400);
  EXPECT_EQ(ControlClient(options).start("planner").outcome, Outcome::NOT_SENT);
  // A pause may be looked at twice when poll() ends a little early.
  pauses.erase(std::unique(pauses.begin(), pauses.end()), pauses.end());
  EXPECT_THAT(pauses, IsSupersetOf({1, 2, 4, 8, 16, 32, 64, 100}));
  EXPECT_THAT(pauses, ::testing::Each(AllOf(Ge(1), Le(100))));
}

TEST(BusyLauncherTest, IsLeftAtOnceWhenCancelled) {
  const FakeLauncher launcher({}, 1);
  const Queue queue(launcher.path());
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  ASSERT_EQ(::write(ends[1], "x", 1), 1);
  ControlOptions options;
  options.socketPath = launcher.path();
  options.cancelFd = ends[0];
  const ControlReply reply = ControlClient(options).start("planner");
  EXPECT_EQ(reply.outcome, Outcome::NOT_SENT);
  EXPECT_EQ(reply.message, "given up before the request was sent");
}

TEST(NotSentTest, NoRequestIsSentAfterACancel) {
  const FakeLauncher launcher(
      FakeLauncher::replyWith(replyOf(ControlResponse::Result::SUCCESS)));
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  ASSERT_EQ(::write(ends[1], "x", 1), 1);
  ControlOptions options;
  options.socketPath = launcher.path();
  options.cancelFd = ends[0];
  EXPECT_EQ(ControlClient(options).stop("planner").outcome, Outcome::NOT_SENT);
  EXPECT_THAT(callsSince("socket"), ElementsAre("close"));
}

// -- While the launcher works.

TEST(WaitingTest, ACancelLeavesTheOutcomeUnknown) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  std::string rest;
  const FakeLauncher launcher([&](int connection) {
    ControlRequest request;
    (void)::recv(connection, &request, sizeof(request), 0);
    (void)::write(ends[1], "x", 1);
    rest = FakeLauncher::readToEnd(connection);
  });
  ControlOptions options;
  options.socketPath = launcher.path();
  options.cancelFd = ends[0];
  const ControlReply reply = ControlClient(options).stop("planner");
  EXPECT_EQ(reply.outcome, Outcome::UNKNOWN);
  EXPECT_EQ(reply.message,
            std::string("given up waiting for the reply; ") + kMayTakeEffect);
}

TEST(WaitingTest, IsReported) {
  std::promise<void> told_twice;
  const FakeLauncher launcher([&](int connection) {
    ControlRequest request;
    (void)::recv(connection, &request, sizeof(request), 0);
    told_twice.get_future().wait();
    const std::string reply = replyOf(ControlResponse::Result::SUCCESS);
    (void)::send(connection, reply.data(), reply.size(), 0);
  });
  std::vector<milliseconds> told;
  ControlOptions options;
  options.socketPath = launcher.path();
  options.onWait = [&](milliseconds since) {
    told.push_back(since);
    if (told.size() == 2) told_twice.set_value();
  };
  EXPECT_TRUE(ControlClient(options).stop("planner").isDone());
  ASSERT_GE(told.size(), 2U);
  EXPECT_GE(told[0], milliseconds(90));
  EXPECT_GE(told[1], told[0] + milliseconds(90));
}

TEST(WaitingTest, AnInterruptingSignalDoesNotCancel) {
  int interruptions = 0;
  const FakeLauncher launcher(
      FakeLauncher::replyWith(replyOf(ControlResponse::Result::SUCCESS)));
  socketCalls().poll = [&](pollfd* watched, nfds_t count, int limit) {
    if (++interruptions > 3) return realSocketCalls.poll(watched, count, limit);
    errno = EINTR;
    return -1;
  };
  EXPECT_TRUE(clientOf(launcher).stop("planner").isDone());
}

TEST(WaitingTest, AReadThatIsInterruptedOrFindsNothingIsRepeated) {
  std::vector<int> errors = {EINTR, EAGAIN};
  const FakeLauncher launcher(
      FakeLauncher::replyWith(replyOf(ControlResponse::Result::SUCCESS)));
  socketCalls().recv = [&](int fd, void* bytes, size_t count,
                           int flags) -> ssize_t {
    if (errors.empty()) return realSocketCalls.recv(fd, bytes, count, flags);
    errno = errors.back();
    errors.pop_back();
    return -1;
  };
  EXPECT_TRUE(clientOf(launcher).stop("planner").isDone());
}

// -- The order of calls, and signals.

TEST(WindowTest, BetweenConnectAndSendOnlyTheUserIsChecked) {
  const FakeLauncher launcher(
      FakeLauncher::replyWith(replyOf(ControlResponse::Result::SUCCESS)));
  ASSERT_TRUE(clientOf(launcher).start("planner").isDone());
  EXPECT_THAT(callsSince("socket"),
              ElementsAre("lstat", "pthread_sigmask", "connect", "getsockopt",
                          "send", "pthread_sigmask", "recv", "close"));
}

TEST(WindowTest, TheConnectionIsNonBlockingAndNotForChildren) {
  int type = 0;
  socketCalls().socket = [&](int domain, int wanted, int protocol) {
    type = wanted;
    return realSocketCalls.socket(domain, wanted, protocol);
  };
  (void)ControlClient().start("planner");
  EXPECT_EQ(type, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC);
}

TEST(WindowTest, EverySignalIsBlockedFromConnectToSend) {
  const FakeLauncher launcher(
      FakeLauncher::replyWith(replyOf(ControlResponse::Result::SUCCESS)));
  const auto blocked = [] {
    sigset_t mask;
    (void)realSocketCalls.pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    std::vector<int> signals;
    for (int number = 1; number < SIGRTMIN; ++number) {
      if (::sigismember(&mask, number) == 1) signals.push_back(number);
    }
    return signals;
  };
  std::vector<int> at_connect;
  std::vector<int> at_send;
  std::vector<int> at_recv;
  socketCalls().connect = [&](int fd, const sockaddr* address, socklen_t size) {
    at_connect = blocked();
    return realSocketCalls.connect(fd, address, size);
  };
  socketCalls().send = [&](int fd, const void* bytes, size_t count, int flags) {
    at_send = blocked();
    EXPECT_EQ(flags, MSG_NOSIGNAL);
    return realSocketCalls.send(fd, bytes, count, flags);
  };
  socketCalls().recv = [&](int fd, void* bytes, size_t count, int flags) {
    at_recv = blocked();
    return realSocketCalls.recv(fd, bytes, count, flags);
  };
  const std::vector<int> before = blocked();
  ASSERT_TRUE(clientOf(launcher).start("planner").isDone());
  const auto all = IsSupersetOf({SIGTSTP, SIGTTIN, SIGTTOU, SIGINT, SIGTERM,
                                 SIGHUP, SIGQUIT, SIGALRM, SIGUSR1});
  EXPECT_THAT(at_connect, all);
  EXPECT_THAT(at_send, all);
  EXPECT_EQ(at_recv, before);
  EXPECT_EQ(blocked(), before);
}

TEST(WindowTest, EveryWayOutRestoresSignalsAndClosesOnce) {
  const auto is_restored_and_closed = [] {
    sigset_t mask;
    (void)realSocketCalls.pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    EXPECT_EQ(::sigismember(&mask, SIGTERM), 0);
    const auto& made = socketCalls().made;
    EXPECT_EQ(std::count(made.begin(), made.end(), "socket"),
              std::count(made.begin(), made.end(), "close"));
    EXPECT_EQ(std::count(made.begin(), made.end(), "shutdown"), 0);
  };
  const FakeLauncher launcher(FakeLauncher::replyWith(""));
  socketCalls().made.clear();  // the server's own
  (void)clientOf(launcher).start("planner");
  is_restored_and_closed();
  (void)ControlClient().start("planner");
  is_restored_and_closed();
  pretendListenerIs(::geteuid() + 1000);
  (void)clientOf(launcher).start("planner");
  is_restored_and_closed();
}

TEST(WindowTest, ThousandsOfCallsLeaveNoDescriptorOpen) {
  const FakeLauncher launcher(
      FakeLauncher::replyWith(replyOf(ControlResponse::Result::SUCCESS)));
  const auto descriptors = [] {
    const std::filesystem::directory_iterator directory("/proc/self/fd");
    return std::distance(begin(directory), end(directory));
  };
  ControlClient client = clientOf(launcher);
  const auto before = descriptors();
  for (int i = 0; i < 2000; ++i) {
    ASSERT_TRUE(client.status("planner").isDone());
  }
  // The launcher's end of the last connection is in this process as well.
  const auto limit = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (descriptors() != before && std::chrono::steady_clock::now() < limit) {
    std::this_thread::yield();
  }
  EXPECT_EQ(descriptors(), before);
}

}  // namespace
}  // namespace vorn::launch
