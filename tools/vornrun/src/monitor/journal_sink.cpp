#include "monitor/journal_sink.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "monitor/dropped_notice.h"

namespace vorn::run {
namespace {
constexpr int64_t kReconnectMs = 1000;
}  // namespace

std::string journalHeader(const std::string& identifier, int priority) {
  std::string name = identifier;
  for (char& byte : name)
    if (static_cast<unsigned char>(byte) < 0x20) byte = '?';
  // Identifier, unit (the journal finds it by itself), priority, priorities in
  // lines are parsed; not forwarded to syslog, kmsg and console.
  return name + "\n\n" + std::to_string(priority) + "\n1\n0\n0\n0\n";
}

JournalSink::JournalSink(Stream stream, std::string socket_path,
                         const std::string& identifier, int priority,
                         uint64_t& dropped)
    : stream_(stream),
      socket_path_(std::move(socket_path)),
      header_(journalHeader(identifier, priority)),
      dropped_(dropped) {
  connect(monotonicMs());
}

JournalSink::~JournalSink() {
  if (fd_ >= 0) (void)::close(fd_);
}

void JournalSink::connect(int64_t now_ms) {
  connect_at_ms_ = now_ms + kReconnectMs;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socket_path_.size() >= sizeof(address.sun_path)) return;
  std::memcpy(address.sun_path, socket_path_.data(), socket_path_.size());
  fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd_ < 0) return;
  const bool is_connected =
      ::connect(fd_, reinterpret_cast<const sockaddr*>(&address),
                sizeof(address)) == 0 &&
      ::send(fd_, header_.data(), header_.size(), MSG_NOSIGNAL) ==
          static_cast<ssize_t>(header_.size());
  if (!is_connected) disconnect(now_ms);
}

void JournalSink::disconnect(int64_t now_ms) {
  (void)::close(fd_);
  fd_ = -1;
  connect_at_ms_ = now_ms + kReconnectMs;
}

ssize_t JournalSink::sendSome(std::string_view text, int64_t now_ms) {
  if (fd_ < 0) return 0;
  ssize_t sent = -1;
  do {
    sent = ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  if (sent >= 0) return sent;
  if (errno != EAGAIN) disconnect(now_ms);
  return 0;
}

void JournalSink::flush(int64_t now_ms) {
  while (!queue_.content().empty()) {
    const ssize_t sent = sendSome(queue_.content(), now_ms);
    if (sent == 0) return;
    queue_.removeFront(static_cast<size_t>(sent));
  }
}

bool JournalSink::appendNotice() {
  if (unreported_ == 0) return true;
  // Only then, so that a slow reader sees one gap instead of many.
  if (!queue_.content().empty()) return false;
  // The text before the loss may end in the middle of a line.
  if (!queue_.append({"\n", droppedNotice(unreported_, "")})) return false;
  unreported_ = 0;
  return true;
}

void JournalSink::write(Stream stream, std::string_view text) {
  if (stream != stream_) return;
  const int64_t now = monotonicMs();
  flush(now);
  if (queue_.content().empty() && unreported_ == 0) {
    for (ssize_t sent = 1; sent > 0 && !text.empty();
         text.remove_prefix(static_cast<size_t>(sent)))
      sent = sendSome(text, now);
  }
  while (!text.empty()) {
    const std::string_view piece = text.substr(
        0, std::min(text.find('\n'), OutputQueue::kSize / 2 - 1) + 1);
    if (!appendNotice() || !queue_.append({piece})) {
      dropped_ += text.size();
      unreported_ += text.size();
      return;
    }
    text.remove_prefix(piece.size());
  }
}

void JournalSink::addPolls(PollSet& polls) const {
  // Without events, poll() only reports that the journal closed the connection.
  polls.add(fd_, queue_.content().empty() ? short{0} : short{POLLOUT});
}

int64_t JournalSink::deadline() const {
  return fd_ < 0 ? connect_at_ms_ : kNever;
}

void JournalSink::proceed(const PollSet& polls, int64_t now_ms) {
  if (fd_ < 0 && now_ms >= connect_at_ms_) {
    connect(now_ms);
    flush(now_ms);
  } else if (polls.hasEvent(fd_)) {
    // With an empty queue, the only possible event is a closed connection.
    if (queue_.content().empty()) disconnect(now_ms);
    flush(now_ms);
  }
  if (fd_ >= 0 && unreported_ > 0 && queue_.content().empty() && appendNotice())
    flush(now_ms);
}

void JournalSink::finish() {
  const int64_t end = monotonicMs() + kFinishMs;
  for (int64_t now = monotonicMs(); now < end; now = monotonicMs()) {
    if (fd_ < 0) connect(now);
    flush(now);
    if (queue_.content().empty() && appendNotice()) flush(now);
    if (fd_ < 0 || queue_.content().empty()) return;
    PollSet polls;
    polls.add(fd_, POLLOUT);
    polls.wait(static_cast<int>(end - now));
  }
}

}  // namespace vorn::run
