#include "control_node.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "epoll.h"
#include "node_manager.h"
#include "support/locked_node.h"
#include "support/log_capture.h"
#include "support/node_fixture.h"
#include "support/private_tmp.h"
#include "support/system_calls.h"

namespace vorn::launch {
namespace {

using test::addNode;
using test::failWith;
using test::logLine;
using test::LogLine;
using test::real;
using test::systemCalls;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::IsEmpty;

using Cmd = ControlRequest::Cmd;
using Result = ControlResponse::Result;
using Strings = std::vector<std::string>;
namespace fs = std::filesystem;

const fs::path kDirectory = "/tmp/vornlaunch";
const fs::path kSocket = "/tmp/vornlaunch/vornlaunch.sock";
constexpr pid_t kForkedPid = 100'042;

mode_t modeOf(const fs::path& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777U;
}

bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

/// A /tmp of its own and the log, for every test that touches the socket.
class PrivateTmpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string refusal = test::enterPrivateTmp();
    if (!refusal.empty()) GTEST_SKIP() << refusal;
  }

  // The replacements refer to objects that are destroyed next.
  void TearDown() override { systemCalls() = {}; }

  const test::LogCapture log_;
};

// ---- The constructor and the instance.

class ControlDirectoryTest : public PrivateTmpTest {};

TEST_F(ControlDirectoryTest, IsCreatedWithTheDefaultPermissions) {
  (void)::umask(027);
  const ControlNode control;
  EXPECT_EQ(modeOf(kDirectory), 0750U);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(ControlDirectoryTest, IsCreatedWithItsParents) {
  const int root = ::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(::chroot("/tmp"), 0);  // empty, so there is no /tmp in it
  { const ControlNode control; }
  const bool is_created = fs::is_directory(kDirectory);
  ASSERT_EQ(::fchdir(root), 0);
  ASSERT_EQ(::chroot("."), 0);
  (void)::close(root);
  EXPECT_TRUE(is_created);
}

TEST_F(ControlDirectoryTest, IsLeftAsItIsWhenItExists) {
  ASSERT_EQ(::mkdir(kDirectory.c_str(), 0700), 0);
  (void)::umask(0);
  const ControlNode control;
  EXPECT_EQ(modeOf(kDirectory), 0700U);
}

TEST_F(ControlDirectoryTest, ThatCannotBeMadeIsAFilesystemError) {
  std::ofstream(kDirectory) << "a file in its place";
  try {
    const ControlNode control;
    ADD_FAILURE() << "no exception";
  } catch (const fs::filesystem_error& error) {
    EXPECT_EQ(error.code(), std::errc::not_a_directory);
    EXPECT_EQ(error.path1(), kDirectory);
    EXPECT_THAT(error.what(), ::testing::HasSubstr("Not a directory"));
  }
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(ControlDirectoryTest, ThatCannotBeMadeIsTriedAgainByTheNextGetInstance) {
  std::ofstream(kDirectory) << "a file in its place";
  EXPECT_THROW(ControlNode::getInstance(), fs::filesystem_error);
  EXPECT_THROW(ControlNode::getInstance(), fs::filesystem_error);
  ASSERT_TRUE(fs::remove(kDirectory));
  const ControlNode& instance = ControlNode::getInstance();
  EXPECT_TRUE(fs::is_directory(kDirectory));
  EXPECT_EQ(&ControlNode::getInstance(), &instance);
}

// ---- createSocket() and init().

class ControlNodeTest : public PrivateTmpTest {
 protected:
  void SetUp() override {
    PrivateTmpTest::SetUp();
    if (IsSkipped()) return;
    control_ = std::make_unique<ControlNode>();
    ASSERT_TRUE(epoll_.open());
  }

  /// Records the calls on the socket as "<name> after <log lines> lines", and
  /// makes the test's earlier replacement or the real call.
  void recordSteps() {
    auto& calls = systemCalls();
    record(calls.socket, real.socket, "socket");
    record(calls.unlink, real.unlink, "unlink");
    record(calls.bind, real.bind, "bind");
    record(calls.chmod, real.chmod, "chmod");
    record(calls.listen, real.listen, "listen");
    record(calls.epoll_ctl, real.epoll_ctl, "register");
    record(calls.close, real.close, "close");
  }

  template <typename Call>
  void record(Call& call, const Call& otherwise, const std::string& name) {
    call = [this, name, inner = call ? call : otherwise](auto... arguments) {
      const int kept = errno;
      steps_.push_back(name + " after " + std::to_string(log_.lines().size()));
      errno = kept;
      return inner(arguments...);
    };
  }

  /// The descriptor that the next socket() gives; -1 until then.
  void watchSocket() {
    systemCalls().socket = [this](int domain, int type, int protocol) {
      fd_ = real.socket(domain, type, protocol);
      return fd_;
    };
  }

  const std::string kName = "vornlaunch.sock";
  Epoll epoll_;
  std::unique_ptr<ControlNode> control_;
  Strings steps_;
  int fd_ = -1;
};

TEST_F(ControlNodeTest, CreateSocketTakesItsStepsInOrder) {
  recordSteps();
  EXPECT_GE(control_->createSocket("x", SOCK_STREAM, 0600), 0);
  EXPECT_THAT(steps_, ElementsAre("socket after 0", "unlink after 0",
                                  "bind after 0", "chmod after 0"));
  EXPECT_THAT(log_.lines(),
              ElementsAre(::testing::AllOf(
                  logLine("INFO", false, "createSocket",
                          "Created socket '/tmp/vornlaunch/x' with mode '600'"),
                  Field(&LogLine::file, "control_node.cpp"))));
}

TEST_F(ControlNodeTest, CreateSocketSetsTheModeForAnyUmask) {
  (void)::umask(077);
  EXPECT_GE(control_->createSocket("x", SOCK_STREAM, 0646), 0);
  EXPECT_TRUE(fs::is_socket(kDirectory / "x"));
  EXPECT_EQ(modeOf(kDirectory / "x"), 0646U);
}

TEST_F(ControlNodeTest, CreateSocketMakesAUnixSocketOfTheType) {
  std::vector<int> arguments;
  systemCalls().socket = [&](int domain, int type, int protocol) {
    arguments = {domain, type, protocol};
    return real.socket(domain, type, protocol);
  };
  const int fd = control_->createSocket("x", SOCK_DGRAM, 0600);
  EXPECT_THAT(arguments, ElementsAre(AF_UNIX, SOCK_DGRAM, 0));
  int type = 0;
  socklen_t length = sizeof(type);
  ASSERT_EQ(::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length), 0);
  EXPECT_EQ(type, SOCK_DGRAM);
}

TEST_F(ControlNodeTest, CreateSocketBindsTheWholeZeroedAddress) {
  sockaddr_un expected{};
  expected.sun_family = AF_UNIX;
  std::strcpy(expected.sun_path, "/tmp/vornlaunch/x");
  systemCalls().bind = [&](int fd, const sockaddr* address, socklen_t length) {
    EXPECT_EQ(length, 110U);
    EXPECT_EQ(std::memcmp(address, &expected, sizeof(expected)), 0);
    return real.bind(fd, address, length);
  };
  EXPECT_GE(control_->createSocket("x", SOCK_STREAM, 0600), 0);
}

TEST_F(ControlNodeTest, CreateSocketCutsAPathAfter107Characters) {
  const std::string name(200, 'n');
  const std::string cut = ("/tmp/vornlaunch/" + name).substr(0, 107);
  EXPECT_GE(control_->createSocket(name.c_str(), SOCK_STREAM, 0600), 0);
  EXPECT_TRUE(fs::is_socket(cut));
  EXPECT_THAT(log_.lines(), ElementsAre(logLine("INFO", false, "createSocket",
                                                "Created socket '" + cut +
                                                    "' with mode '600'")));
}

TEST_F(ControlNodeTest, CreateSocketReplacesAnOldFileOfAnyKind) {
  std::ofstream(kDirectory / "x") << "no socket";
  EXPECT_GE(control_->createSocket("x", SOCK_STREAM, 0600), 0);
  EXPECT_TRUE(fs::is_socket(kDirectory / "x"));
}

TEST_F(ControlNodeTest, AFailedSocketIsOneErrorLineAndTheEnd) {
  systemCalls().socket = [](int, int, int) { return failWith(EMFILE); };
  recordSteps();
  EXPECT_EQ(control_->createSocket("x", SOCK_STREAM, 0600), -1);
  EXPECT_THAT(steps_, ElementsAre("socket after 0"));
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(logLine("ERROR", false, "createSocket",
                          "Failed to open socket 'x': Too many open files")));
}

TEST_F(ControlNodeTest, AFailedUnlinkIsOneErrorLineThenTheSocketIsClosed) {
  ASSERT_TRUE(fs::create_directory(kDirectory / "x"));
  watchSocket();
  recordSteps();
  EXPECT_EQ(control_->createSocket("x", SOCK_STREAM, 0600), -1);
  EXPECT_THAT(steps_,
              ElementsAre("socket after 0", "unlink after 0", "close after 1"));
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(logLine("ERROR", false, "createSocket",
                          "Failed to unlink old socket 'x': Is a directory")));
  EXPECT_FALSE(isOpen(fd_));
}

TEST_F(ControlNodeTest, AFailedBindIsOneErrorLineThenUnlinkAndClose) {
  ASSERT_TRUE(fs::remove(kDirectory));
  watchSocket();
  recordSteps();
  EXPECT_EQ(control_->createSocket("x", SOCK_STREAM, 0600), -1);
  EXPECT_THAT(steps_,
              ElementsAre("socket after 0", "unlink after 0", "bind after 0",
                          "unlink after 1", "close after 1"));
  EXPECT_THAT(log_.lines(), ElementsAre(logLine("ERROR", false, "createSocket",
                                                "Failed to bind socket 'x': "
                                                "No such file or directory")));
  EXPECT_FALSE(isOpen(fd_));
}

TEST_F(ControlNodeTest, AFailedBindRemovesThePath) {
  const fs::path path = kDirectory / "x";
  systemCalls().bind = [&](int, const sockaddr*, socklen_t) {
    std::ofstream(path) << "half made";
    return failWith(EIO);
  };
  EXPECT_EQ(control_->createSocket("x", SOCK_STREAM, 0600), -1);
  EXPECT_FALSE(fs::exists(path));
}

TEST_F(ControlNodeTest, AFailedChmodIsOneWarningAndTheSocketIsGood) {
  systemCalls().chmod = [](const char*, mode_t) { return failWith(EPERM); };
  const int fd = control_->createSocket("x", SOCK_STREAM, 0600);
  EXPECT_TRUE(isOpen(fd));
  EXPECT_TRUE(fs::is_socket(kDirectory / "x"));
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(
          logLine("WARN", false, "createSocket",
                  "chmod failed, error: Operation not permitted"),
          logLine("INFO", false, "createSocket",
                  "Created socket '/tmp/vornlaunch/x' with mode '600'")));
}

TEST_F(ControlNodeTest, InitTakesItsStepsInOrderAndLogsOneLine) {
  recordSteps();
  EXPECT_TRUE(control_->init(&epoll_));
  EXPECT_THAT(steps_, ElementsAre("socket after 0", "unlink after 0",
                                  "bind after 0", "chmod after 0",
                                  "listen after 1", "register after 1"));
  EXPECT_THAT(log_.lines(),
              ElementsAre(logLine("INFO", false, "createSocket",
                                  "Created socket '" + kSocket.string() +
                                      "' with mode '666'")));
}

TEST_F(ControlNodeTest, TheListeningSocketIsCloseOnExecBeforeItListens) {
  systemCalls().listen = [](int fd, int backlog) {
    EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
    return real.listen(fd, backlog);
  };
  EXPECT_TRUE(control_->init(&epoll_));
}

TEST_F(ControlNodeTest, TheListeningSocketHasOnlyTheStatusFlagNonBlocking) {
  systemCalls().socket = [this](int domain, int type, int protocol) {
    fd_ = real.socket(domain, type, protocol);
    EXPECT_EQ(::fcntl(fd_, F_SETFL, O_APPEND), 0);  // to be replaced
    return fd_;
  };
  systemCalls().listen = [](int fd, int backlog) {
    EXPECT_EQ(::fcntl(fd, F_GETFL) & ~O_ACCMODE, O_NONBLOCK);
    return real.listen(fd, backlog);
  };
  EXPECT_TRUE(control_->init(&epoll_));
}

TEST_F(ControlNodeTest, TheBacklogIsFive) {
  int backlog = 0;
  systemCalls().listen = [&](int fd, int given) {
    backlog = given;
    return real.listen(fd, given);
  };
  EXPECT_TRUE(control_->init(&epoll_));
  EXPECT_EQ(backlog, 5);
}

TEST_F(ControlNodeTest, TheListeningSocketIsRegisteredForInput) {
  watchSocket();
  uint32_t events = 0;
  int registered = -1;
  systemCalls().epoll_ctl = [&](int epoll, int operation, int fd,
                                epoll_event* event) {
    registered = fd;
    events = event->events;
    return real.epoll_ctl(epoll, operation, fd, event);
  };
  EXPECT_TRUE(control_->init(&epoll_));
  EXPECT_EQ(registered, fd_);
  EXPECT_EQ(events, static_cast<uint32_t>(EPOLLIN));
}

TEST_F(ControlNodeTest, AFailedCreateSocketFailsInitAndNothingIsRegistered) {
  ASSERT_TRUE(fs::create_directories(kSocket));
  recordSteps();
  EXPECT_FALSE(control_->init(&epoll_));
  EXPECT_THAT(steps_,
              ElementsAre("socket after 0", "unlink after 0", "close after 1"));
}

TEST_F(ControlNodeTest, AFailedListenClosesBeforeItsLineAndLeavesTheFile) {
  watchSocket();
  systemCalls().listen = [](int, int) { return failWith(EADDRINUSE); };
  recordSteps();
  EXPECT_FALSE(control_->init(&epoll_));
  EXPECT_THAT(steps_,
              ElementsAre("socket after 0", "unlink after 0", "bind after 0",
                          "chmod after 0", "listen after 1", "close after 1"));
  EXPECT_EQ(log_.lines().back(),
            logLine("ERROR", false, "init", "listen failed"));
  EXPECT_FALSE(isOpen(fd_));
  EXPECT_TRUE(fs::is_socket(kSocket));
}

TEST_F(ControlNodeTest, AFailedRegistrationClosesAndLeavesTheLineToEpoll) {
  watchSocket();
  systemCalls().epoll_ctl = [](int, int, int, epoll_event*) {
    return failWith(ENOSPC);
  };
  EXPECT_FALSE(control_->init(&epoll_));
  EXPECT_FALSE(isOpen(fd_));
  EXPECT_TRUE(fs::is_socket(kSocket));
  EXPECT_THAT(log_.lines(),
              ElementsAre(Field(&LogLine::func, "createSocket"),
                          logLine("ERROR", false, "registerHandler",
                                  "epoll_ctl failed to add fd.")));
}

TEST_F(ControlNodeTest, AFailedInitLeavesTheObjectWithoutASocket) {
  systemCalls().listen = [](int, int) { return failWith(EADDRINUSE); };
  EXPECT_FALSE(control_->init(&epoll_));
  int accepting = 0;
  systemCalls().accept = [&](int fd, sockaddr*, socklen_t*) {
    accepting = fd;
    return failWith(EBADF);
  };
  control_->controlHandler();
  EXPECT_EQ(accepting, -1);
  int closed = 0;
  systemCalls().close = [&](int fd) {
    ++closed;
    return real.close(fd);
  };
  control_.reset();
  EXPECT_EQ(closed, 0);
}

TEST_F(ControlNodeTest, TheDestructorClosesTheSocketAndLeavesTheFile) {
  watchSocket();
  EXPECT_TRUE(control_->init(&epoll_));
  EXPECT_TRUE(isOpen(fd_));
  control_.reset();
  EXPECT_FALSE(isOpen(fd_));
  EXPECT_TRUE(fs::is_socket(kSocket));
}

TEST_F(ControlNodeTest, TheDestructorClosesASocketThatIsDescriptorZero) {
  ASSERT_EQ(real.close(STDIN_FILENO), 0);
  watchSocket();
  EXPECT_TRUE(control_->init(&epoll_));
  ASSERT_EQ(fd_, STDIN_FILENO);
  control_.reset();
  EXPECT_FALSE(isOpen(fd_));
}

// ---- controlHandler(), with real clients.

/// A client of the socket; it has connected when it is constructed.
class Client {
 public:
  Client() : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kSocket.c_str());
    if (::connect(fd_, reinterpret_cast<const sockaddr*>(&address),
                  sizeof(address)) != 0) {
      throw std::runtime_error("cannot connect");
    }
  }
  ~Client() { hangUp(); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  void send(const std::string& bytes) const {
    ASSERT_EQ(::write(fd_, bytes.data(), bytes.size()),
              static_cast<ssize_t>(bytes.size()));
  }

  /// All that has arrived and was not yet read; an end of the stream adds
  /// nothing. Never waits.
  std::string receive() const {
    std::array<char, 256> buffer{};
    const ssize_t size =
        real.recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT);
    return {buffer.data(), static_cast<size_t>(std::max<ssize_t>(size, 0))};
  }

  /// True when the launcher has closed and nothing is left to read.
  bool isAtEnd() const {
    char byte = 0;
    return real.recv(fd_, &byte, 1, MSG_DONTWAIT) == 0;
  }

  void hangUp() {
    if (fd_ >= 0) (void)real.close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

std::string request(uint32_t command, const std::string& name) {
  std::string bytes(reinterpret_cast<const char*>(&command), sizeof(command));
  bytes += name;
  bytes.resize(sizeof(ControlRequest));
  return bytes;
}

std::string request(Cmd command, const std::string& name) {
  return request(static_cast<uint32_t>(command), name);
}

std::string bytesOf(const ControlResponse& response) {
  return {reinterpret_cast<const char*>(&response), sizeof(response)};
}

/// The reply of a command that fills in nothing but its result, byte for byte.
std::string reply(Result result) {
  std::string bytes(24, '\0');
  bytes.front() = static_cast<char>(result);
  return bytes;
}

/// Lets node operations run without any process: executables exist, forks
/// return kForkedPid, signals arrive, and stopped processes disappear at once.
void pretendProcesses() {
  auto& calls = systemCalls();
  calls.stat = [](const char*, struct stat*) { return 0; };
  calls.fork = [] { return kForkedPid; };
  calls.kill = [](pid_t, int) { return 0; };
  calls.popen = [](const char*, const char*) {
    FILE* const output = std::tmpfile();
    (void)std::fputs("0\n", output);
    std::rewind(output);
    return output;
  };
  calls.pclose = [](FILE* output) { return std::fclose(output); };
  calls.usleep = [](useconds_t) { return 0; };
}

class ControlHandlerTest : public ControlNodeTest {
 protected:
  void SetUp() override {
    ControlNodeTest::SetUp();
    if (IsSkipped()) return;
    ASSERT_TRUE(control_->init(&epoll_));
    client_.emplace();
    addNode("planner");
    // The client reads its reply and hangs up as soon as that is waited for.
    systemCalls().poll = [this](pollfd* fds, nfds_t count, int timeout) {
      reply_ += client_->receive();
      client_->hangUp();
      return real.poll(fds, count, timeout);
    };
    seen_ = log_.lines().size();
  }

  /// The reply to `bytes`.
  std::string exchange(const std::string& bytes) {
    client_->send(bytes);
    control_->controlHandler();
    return reply_;
  }

  std::vector<LogLine> newLines() const {
    auto lines = log_.lines();
    lines.erase(lines.begin(), lines.begin() + static_cast<long>(seen_));
    return lines;
  }

  /// Keeps the client from hanging up; poll() is the real one.
  static void stayConnected() { systemCalls().poll = nullptr; }

  static void replacePoll(int result, short events, int error = 0) {
    systemCalls().poll = [=](pollfd* fds, nfds_t, int) {
      fds->revents = events;
      errno = error;
      return result;
    };
  }

  std::optional<Client> client_;
  std::string reply_;
  size_t seen_ = 0;
};

const LogLine kPollTimeout =
    logLine("WARN", false, "controlHandler", "poll timeout");

LogLine commandLine(int command) {
  return logLine("INFO", false, "controlHandler",
                 "control cmd: " + std::to_string(command));
}

LogLine receivedLine(int received, int error) {
  return logLine("ERROR", false, "controlHandler",
                 "received: " + std::to_string(received) +
                     " expected: 132 errno: " + std::to_string(error));
}

LogLine sendLine(int size) {
  return logLine("ERROR", false, "controlHandler",
                 "send fail, size: " + std::to_string(size));
}

/// Closed descriptors, one entry per close.
std::vector<int>& watchCloses() {
  static std::vector<int> closed;
  systemCalls().close = [](int fd) {
    closed.push_back(fd);
    return real.close(fd);
  };
  return closed;
}

TEST_F(ControlHandlerTest, AnswersARequestWith24BytesAndOneLine) {
  EXPECT_EQ(exchange(request(Cmd::ENABLE, "planner")), reply(Result::SUCCESS));
  EXPECT_EQ(reply_.size(), 24U);
  EXPECT_THAT(newLines(),
              ElementsAre(::testing::AllOf(
                  commandLine(5), Field(&LogLine::file, "control_node.cpp"))));
}

TEST_F(ControlHandlerTest, RunsWhenTheLoopReportsAConnection) {
  client_->send(request(Cmd::ENABLE, "planner"));
  const auto handlers = epoll_.wait(-1);
  ASSERT_EQ(handlers.size(), 1U);
  (*handlers.front())();
  EXPECT_EQ(reply_, reply(Result::SUCCESS));
}

TEST_F(ControlHandlerTest, ServesOneConnectionPerCall) {
  Client second;
  client_->send(request(Cmd::ENABLE, "planner"));
  second.send(request(Cmd::ENABLE, "planner"));
  control_->controlHandler();
  EXPECT_EQ(reply_, reply(Result::SUCCESS));
  EXPECT_EQ(second.receive(), "");
  EXPECT_EQ(epoll_.wait(0).size(), 1U);  // the second still wakes the loop
  stayConnected();
  control_->controlHandler();
  EXPECT_EQ(second.receive(), reply(Result::SUCCESS));
  EXPECT_THAT(epoll_.wait(0), IsEmpty());
}

TEST_F(ControlHandlerTest, DoesNotRepeatAnInterruptedAccept) {
  int calls = 0;
  systemCalls().accept = [&](int, sockaddr*, socklen_t*) {
    ++calls;
    return failWith(EINTR);
  };
  control_->controlHandler();
  EXPECT_EQ(calls, 1);
  EXPECT_THAT(newLines(), IsEmpty());
}

TEST_F(ControlHandlerTest, AcceptsIntoAWholeAddress) {
  systemCalls().accept = [](int fd, sockaddr* address, socklen_t* length) {
    EXPECT_NE(address, nullptr);
    EXPECT_EQ(*length, 110U);
    return real.accept(fd, address, length);
  };
  EXPECT_EQ(exchange(request(Cmd::ENABLE, "planner")), reply(Result::SUCCESS));
}

TEST_F(ControlHandlerTest, TheConnectionIsBlockingAndNotCloseOnExec) {
  systemCalls().recv = [](int fd, void* buffer, size_t size, int flags) {
    EXPECT_EQ(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(::fcntl(fd, F_GETFD), 0);
    return real.recv(fd, buffer, size, flags);
  };
  EXPECT_EQ(exchange(request(Cmd::ENABLE, "planner")), reply(Result::SUCCESS));
}

TEST_F(ControlHandlerTest, ReadsTheRequestByOneCallWithoutFlags) {
  int calls = 0;
  systemCalls().recv = [&](int fd, void* buffer, size_t size, int flags) {
    ++calls;
    EXPECT_EQ(size, 132U);
    EXPECT_EQ(flags, 0);
    return real.recv(fd, buffer, size, flags);
  };
  EXPECT_EQ(exchange(request(Cmd::ENABLE, "planner")), reply(Result::SUCCESS));
  EXPECT_EQ(calls, 1);
}

TEST_F(ControlHandlerTest, RefusesARequestInTwoPieces) {
  int calls = 0;
  systemCalls().recv = [&](int fd, void* buffer, size_t size, int flags) {
    ++calls;
    const ssize_t received = real.recv(fd, buffer, size, flags);
    client_->send(std::string(128, 'n'));  // the rest is too late
    return received;
  };
  client_->send(std::string(4, '\0'));
  errno = ENOTTY;  // an old one is shown
  control_->controlHandler();
  EXPECT_EQ(calls, 1);
  EXPECT_THAT(newLines(), ElementsAre(receivedLine(4, ENOTTY)));
  EXPECT_EQ(client_->receive(), "");
}

TEST_F(ControlHandlerTest, ServesALongRequestFromItsFirst132Bytes) {
  stayConnected();
  client_->send(request(Cmd::ENABLE, "planner") +
                request(Cmd::DISABLE, "planner"));
  control_->controlHandler();
  EXPECT_EQ(client_->receive(), reply(Result::SUCCESS));
  EXPECT_THAT(newLines(), ElementsAre(commandLine(5), kPollTimeout));
  control_->controlHandler();  // the rest went with the connection
  EXPECT_FALSE(NodeManager::getInstance().findNode("planner")->disabled);
}

TEST_F(ControlHandlerTest, RepeatsAnInterruptedRecv) {
  int interruptions = 2;
  systemCalls().recv = [&](int fd, void* buffer, size_t size,
                           int flags) -> ssize_t {
    if (interruptions-- > 0) return failWith(EINTR);
    return real.recv(fd, buffer, size, flags);
  };
  EXPECT_EQ(exchange(request(Cmd::ENABLE, "planner")), reply(Result::SUCCESS));
  EXPECT_THAT(newLines(), ElementsAre(commandLine(5)));
}

TEST_F(ControlHandlerTest, AFailedRecvIsOneErrorLineAndClosesWithoutAReply) {
  systemCalls().recv = [](int, void*, size_t, int) {
    return failWith(ECONNRESET);
  };
  control_->controlHandler();
  EXPECT_THAT(newLines(), ElementsAre(receivedLine(-1, ECONNRESET)));
  EXPECT_TRUE(client_->isAtEnd());
}

struct Unknown {
  const char* name;
  uint32_t command;
  int shown;
};

class UnknownCommandTest : public ControlHandlerTest,
                           public ::testing::WithParamInterface<Unknown> {};

TEST_P(UnknownCommandTest, IsOneWarningAndNoReply) {
  client_->send(request(GetParam().command, "planner"));
  control_->controlHandler();
  EXPECT_TRUE(client_->isAtEnd());
  EXPECT_THAT(
      newLines(),
      ElementsAre(commandLine(GetParam().shown),
                  logLine("WARN", false, "controlHandler",
                          "unknow cmd: " + std::to_string(GetParam().shown))));
}

INSTANTIATE_TEST_SUITE_P(
    Number, UnknownCommandTest,
    ::testing::Values(Unknown{"Six", 6, 6},
                      Unknown{"AllBits", 4'294'967'295, -1},
                      Unknown{"TopBit", 2'147'483'648, -2'147'483'647 - 1},
                      Unknown{"SecondByte", 256, 256}),
    [](const auto& test) { return test.param.name; });

TEST_F(ControlHandlerTest, SendsTheReplyByOneCallWithoutFlags) {
  int calls = 0;
  systemCalls().send = [&](int fd, const void* bytes, size_t size, int flags) {
    ++calls;
    EXPECT_EQ(size, 24U);
    EXPECT_EQ(flags, 0);
    return real.send(fd, bytes, size, flags);
  };
  EXPECT_EQ(exchange(request(Cmd::ENABLE, "planner")), reply(Result::SUCCESS));
  EXPECT_EQ(calls, 1);
}

TEST_F(ControlHandlerTest, RepeatsAnInterruptedSend) {
  int interruptions = 2;
  systemCalls().send = [&](int fd, const void* bytes, size_t size,
                           int flags) -> ssize_t {
    if (interruptions-- > 0) return failWith(EINTR);
    return real.send(fd, bytes, size, flags);
  };
  EXPECT_EQ(exchange(request(Cmd::ENABLE, "planner")), reply(Result::SUCCESS));
  EXPECT_THAT(newLines(), ElementsAre(commandLine(5)));
}

TEST_F(ControlHandlerTest, AClientThatHasGoneIsOneErrorLineAndNoWait) {
  (void)::signal(SIGPIPE, SIG_IGN);
  const auto& closed = watchCloses();
  systemCalls().poll = [](pollfd*, nfds_t, int) {
    ADD_FAILURE() << "waited for the hang-up";
    return -1;
  };
  client_->send(request(Cmd::ENABLE, "planner"));
  client_->hangUp();
  control_->controlHandler();
  EXPECT_THAT(newLines(), ElementsAre(commandLine(5), sendLine(-1)));
  EXPECT_EQ(closed.size(), 1U);
}

TEST_F(ControlHandlerTest, AShortSendIsOneErrorLineAndNoWait) {
  systemCalls().send = [](int, const void*, size_t, int) { return 23; };
  systemCalls().poll = [](pollfd*, nfds_t, int) {
    ADD_FAILURE() << "waited for the hang-up";
    return -1;
  };
  client_->send(request(Cmd::ENABLE, "planner"));
  control_->controlHandler();
  EXPECT_THAT(newLines(), ElementsAre(commandLine(5), sendLine(23)));
  EXPECT_TRUE(client_->isAtEnd());
}

TEST_F(ControlHandlerTest, WaitsAHundredMillisecondsOnlyForHangUps) {
  systemCalls().poll = [](pollfd* fds, nfds_t count, int timeout) {
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(fds->events, 0);
    EXPECT_EQ(timeout, 100);
    fds->revents = POLLHUP;
    return 1;
  };
  client_->send(request(Cmd::ENABLE, "planner"));
  control_->controlHandler();
  EXPECT_THAT(newLines(), ElementsAre(commandLine(5)));
}

TEST_F(ControlHandlerTest, AClientThatStaysIsOneWarningAndGetsItsReply) {
  stayConnected();
  client_->send(request(Cmd::ENABLE, "planner"));
  const auto begin = std::chrono::steady_clock::now();
  control_->controlHandler();
  EXPECT_GE(std::chrono::steady_clock::now() - begin,
            std::chrono::milliseconds(100));
  EXPECT_THAT(newLines(), ElementsAre(commandLine(5), kPollTimeout));
  EXPECT_EQ(client_->receive(), reply(Result::SUCCESS));
  EXPECT_TRUE(client_->isAtEnd());
}

TEST_F(ControlHandlerTest, RepeatsAnInterruptedPoll) {
  int interruptions = 2;
  systemCalls().poll = [&](pollfd* fds, nfds_t, int) {
    if (interruptions-- > 0) return failWith(EINTR);
    fds->revents = POLLHUP;
    return 1;
  };
  exchange(request(Cmd::ENABLE, "planner"));
  EXPECT_EQ(interruptions, -1);
  EXPECT_THAT(newLines(), ElementsAre(commandLine(5)));
}

TEST_F(ControlHandlerTest, AHangUpAmongOtherConditionsIsAHangUp) {
  replacePoll(1, POLLERR | POLLHUP);
  exchange(request(Cmd::ENABLE, "planner"));
  EXPECT_THAT(newLines(), ElementsAre(commandLine(5)));
}

TEST_F(ControlHandlerTest, AConditionWithoutAHangUpIsATimeout) {
  replacePoll(1, POLLERR);
  exchange(request(Cmd::ENABLE, "planner"));
  EXPECT_THAT(newLines(), ElementsAre(commandLine(5), kPollTimeout));
}

TEST_F(ControlHandlerTest, AFailedPollIsATimeout) {
  replacePoll(-1, POLLHUP, EINVAL);
  exchange(request(Cmd::ENABLE, "planner"));
  EXPECT_THAT(newLines(), ElementsAre(commandLine(5), kPollTimeout));
}

TEST_F(ControlHandlerTest, EachConnectionIsClosedOnce) {
  const auto& closed = watchCloses();
  int connection = -1;
  systemCalls().accept = [&](int fd, sockaddr* address, socklen_t* length) {
    connection = real.accept(fd, address, length);
    return connection;
  };
  exchange(request(Cmd::ENABLE, "planner"));
  EXPECT_THAT(closed, ElementsAre(connection));
}

TEST_F(ControlHandlerTest, ServesAndClosesAConnectionThatIsDescriptorZero) {
  ASSERT_EQ(real.close(STDIN_FILENO), 0);
  const auto& closed = watchCloses();
  EXPECT_EQ(exchange(request(Cmd::ENABLE, "planner")), reply(Result::SUCCESS));
  EXPECT_THAT(closed, ElementsAre(STDIN_FILENO));
}

TEST_F(ControlHandlerTest, TheReplyCarriesNoOldMemory) {
  for (int i = 0; i < 16; ++i) {  // leaves dirty blocks of the reply's size
    std::vector<unsigned char> dirt(16 + sizeof(ControlResponse), 0xff);
    dirt.front() = static_cast<unsigned char>(i);
  }
  EXPECT_EQ(exchange(request(Cmd::ENABLE, "nobody")), reply(Result::NOT_FOUND));
}

TEST_F(ControlHandlerTest, ANameWithoutAnEndIsReadToItsLastByte) {
  addNode(std::string(128, 'n'));
  EXPECT_EQ(exchange(request(Cmd::ENABLE, std::string(128, 'n'))),
            reply(Result::SUCCESS));
}

TEST_F(ControlHandlerTest, BytesAfterTheNamesEndAreIgnored) {
  const std::string name("planner\0rubbish", 15);
  EXPECT_EQ(exchange(request(Cmd::ENABLE, name)), reply(Result::SUCCESS));
}

TEST_F(ControlHandlerTest, AStatusReplyCarriesItsFieldsInTheirPlaces) {
  Node& node = *NodeManager::getInstance().findNode("planner");
  node.pid = 0x01020304;
  node.state = NodeState::RESTARTING;
  node.startWallTime += std::chrono::seconds(0x0102030405);
  EXPECT_EQ(exchange(request(Cmd::STATUS, "planner")),
            std::string("\0\0\0\0\0\0\0\0"
                        "\4\3\2\1\2\0\0\0"
                        "\5\4\3\2\1\0\0\0",
                        24));
}

// ---- Commands and their operations.

struct Dispatch {
  const char* name;
  uint32_t number;
  bool disabled_before;
  NodeState state;
  bool disabled;
  Strings texts;  // the log of the node's operation
};

class DispatchTest : public ControlHandlerTest,
                     public ::testing::WithParamInterface<Dispatch> {};

TEST_P(DispatchTest, RunsTheOperationOfItsNumber) {
  pretendProcesses();
  Node& node = addNode("running");
  node.state = NodeState::RUNNING;
  node.pid = kForkedPid - 1;
  node.disabled = GetParam().disabled_before;
  seen_ = log_.lines().size();
  const std::string answer = exchange(request(GetParam().number, "running"));
  if (static_cast<Cmd>(GetParam().number) == Cmd::STATUS) {
    EXPECT_EQ(answer, bytesOf(*control_->nodeStatus("running")));
  } else {
    EXPECT_EQ(answer, reply(Result::SUCCESS));
  }
  EXPECT_EQ(node.state, GetParam().state);
  EXPECT_EQ(node.disabled, GetParam().disabled);
  Strings texts;
  for (const LogLine& line : newLines()) texts.push_back(line.text);
  Strings expected = {"control cmd: " + std::to_string(GetParam().number)};
  expected.insert(expected.end(), GetParam().texts.begin(),
                  GetParam().texts.end());
  EXPECT_EQ(texts, expected);
}

INSTANTIATE_TEST_SUITE_P(
    Command, DispatchTest,
    ::testing::Values(
        Dispatch{"Start",
                 0,
                 false,
                 NodeState::RUNNING,
                 false,
                 {"Node 'running' already running"}},
        Dispatch{"Stop", 1, false, NodeState::STOPPED, false, {}},
        Dispatch{"Restart",
                 2,
                 false,
                 NodeState::RUNNING,
                 false,
                 {"Node start 'running' ok", "Node 'running' success"}},
        Dispatch{"Status", 3, false, NodeState::RUNNING, false, {}},
        Dispatch{"Disable", 4, false, NodeState::DISABLED, true, {}},
        Dispatch{"Enable", 5, true, NodeState::RUNNING, false, {}}),
    [](const auto& test) { return test.param.name; });

// ---- The commands by themselves.

using Command =
    std::shared_ptr<ControlResponse> (ControlNode::*)(const char* name);

class ControlCommandTest : public PrivateTmpTest {
 protected:
  void SetUp() override {
    PrivateTmpTest::SetUp();
    if (IsSkipped()) return;
    control_ = std::make_unique<ControlNode>();
    pretendProcesses();
    node_ = &addNode("planner");
    node_->state = NodeState::RUNNING;
    node_->pid = kForkedPid - 1;
  }

  /// Runs `command` on the node. Only `result` may be set in the reply.
  Result run(Command command, const char* name = "planner") {
    const auto response = (control_.get()->*command)(name);
    ControlResponse only_result;
    only_result.result = response->result;
    EXPECT_EQ(bytesOf(*response), bytesOf(only_result));
    return response->result;
  }

  std::unique_ptr<ControlNode> control_;
  Node* node_ = nullptr;
};

TEST_F(ControlCommandTest, FailsWhenItsOperationFails) {
  systemCalls().kill = [](pid_t, int) { return failWith(ESRCH); };
  EXPECT_EQ(run(&ControlNode::nodeStop), Result::FAILED);
  EXPECT_EQ(run(&ControlNode::nodeRestart), Result::FAILED);
  EXPECT_EQ(run(&ControlNode::nodeDisable), Result::FAILED);
}

TEST_F(ControlCommandTest, StatusOfANodeThatNeverRanIsAllZero) {
  (void)addNode("fresh");
  EXPECT_EQ(bytesOf(*control_->nodeStatus("fresh")),
            bytesOf(ControlResponse{}));
}

TEST_F(ControlCommandTest, StatusTruncatesTheStartTimeTowardZero) {
  using std::chrono::nanoseconds;
  using Clock = std::chrono::system_clock;
  const std::pair<int64_t, int64_t> cases[] = {
      {1'999'999'999, 1},
      {999'999'999, 0},
      {0, 0},
      {-999'999'999, 0},
      {-1'000'000'000, -1},
      {-1'999'999'999, -1},
      {5'000'000'000, 5},
      {7'258'118'400'999'999'999, 7'258'118'400}};
  for (const auto& [count, seconds] : cases) {
    node_->startWallTime = Clock::time_point(nanoseconds(count));
    EXPECT_EQ(control_->nodeStatus("planner")->startSeconds, seconds) << count;
  }
}

TEST_F(ControlCommandTest, StatusDoesNotTakeTheNodesLock) {
  test::lockSoThatLockingThrows(*node_);
  EXPECT_EQ(control_->nodeStatus("planner")->result, Result::SUCCESS);
}

TEST_F(ControlCommandTest, WithoutANodeOfTheNameIsNotFound) {
  EXPECT_EQ(run(&ControlNode::nodeStop, "Planner"), Result::NOT_FOUND);
  EXPECT_EQ(run(&ControlNode::nodeStatus, "Planner"), Result::NOT_FOUND);
  EXPECT_EQ(node_->state, NodeState::RUNNING);
}

}  // namespace
}  // namespace vorn::launch
