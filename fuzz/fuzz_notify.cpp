// Datagrams of any content to the socket of sd_notify(3). The correct result:
// the datagram with its sender and without its descriptors, the assignments in
// it, and a state file in JSON.
//
// Input: for each datagram a byte that selects whether a descriptor is passed,
// its size in four bytes, and its bytes.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "monitor/health.h"
#include "monitor/node_state.h"
#include "monitor/notify_message.h"
#include "monitor/notify_socket.h"
#include "support/check.h"
#include "support/input.h"

namespace vorn::fuzz {
namespace {

constexpr size_t kLongest = 4096;  // of a datagram that is not cut

int lowestFreeDescriptor() {
  const int fd = ::dup(STDERR_FILENO);
  (void)::close(fd);
  return fd;
}

/// A notify socket and its address.
class NotifySocket {
 public:
  NotifySocket() : fd_(run::createNotifySocket(name_)) {
    check(fd_ >= 0 && name_.substr(0, 1) == "@", "a socket is created");
    address_.sun_family = AF_UNIX;
    name_.copy(address_.sun_path + 1, name_.size() - 1, 1);
  }

  int number() const { return fd_; }

  void send(std::string_view text, bool with_descriptor) {
    iovec part = {const_cast<char*>(text.data()), text.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_name = &address_;
    message.msg_namelen =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name_.size());
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (with_descriptor) {
      message.msg_control = control;
      message.msg_controllen = sizeof(control);
      cmsghdr* const header = CMSG_FIRSTHDR(&message);
      header->cmsg_level = SOL_SOCKET;
      header->cmsg_type = SCM_RIGHTS;
      header->cmsg_len = CMSG_LEN(sizeof(int));
      std::memcpy(CMSG_DATA(header), &fd_, sizeof(fd_));
    }
    check(::sendmsg(fd_, &message, 0) == static_cast<ssize_t>(text.size()),
          "a datagram is sent");
  }

 private:
  std::string name_;
  int fd_;
  sockaddr_un address_{};
};

bool hasLine(std::string_view text, std::string_view line) {
  const std::string lines = "\n" + std::string(text) + "\n";
  return lines.find("\n" + std::string(line) + "\n") != std::string::npos;
}

run::NotifyMessage checkMessage(std::string_view text) {
  const run::NotifyMessage message = run::parseNotifyMessage(text);
  check(message.isReady == hasLine(text, "READY=1") &&
            message.isStopping == hasLine(text, "STOPPING=1") &&
            message.isAlive == hasLine(text, "WATCHDOG=1") &&
            message.requestsAbort == hasLine(text, "WATCHDOG=trigger"),
        "each assignment is a line");
  check(message.hasStatus || message.status.empty(), "no status is empty");
  return message;
}

void checkStateFile(const run::NodeState& state) {
  const auto read =
      nlohmann::json::parse(stateText(state, {"node", 42, 7}), nullptr, false);
  check(read.is_object() && read["phase"] == nameOf(state.phase) &&
            read["status"] == state.status && read["ready"] == state.isReady,
        "the state is JSON");
}

}  // namespace
}  // namespace vorn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vorn::fuzz;
  namespace run = vorn::run;
  static NotifySocket socket;
  run::RunSettings settings;
  settings.ready = run::Condition{run::Condition::Kind::NOTIFY, ""};
  settings.watchdog = run::milliseconds(1000);
  run::NodeState state;
  const run::Environment environment;
  run::Health health(settings, {"node", nullptr, environment}, state);
  health.noteExecuted(1);
  const int free_descriptor = lowestFreeDescriptor();
  Input input(data, size);
  while (!input.empty()) {
    const bool with_descriptor = input.byte() % 2 == 1;
    const std::string_view text = input.bytes(input.number() % (2 * kLongest));
    socket.send(text, with_descriptor);
    const auto datagram = run::receiveNotifyDatagram(socket.number());
    check(datagram && datagram->text == text.substr(0, kLongest) &&
              datagram->isCut == (text.size() > kLongest) &&
              datagram->sender == ::getpid(),
          "a datagram is received");
    check(lowestFreeDescriptor() == free_descriptor,
          "passed descriptors are closed");
    health.noteMessage(checkMessage(datagram->text), 1);
  }
  checkStateFile(state);
  return 0;
}
