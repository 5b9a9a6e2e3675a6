#pragma once

#include <string>

#include "monitor/log_sink.h"
#include "monitor/output_queue.h"

namespace vorn::run {

/// Sends one stream to the journal of systemd, over a connection of its own as
/// systemd-cat(1) does. Connects again after a restart of the journal; what
/// does not fit into the queue until then is dropped.
class JournalSink : public LogSink {
 public:
  /// `socket_path` is the journal's stream socket. Lines have the identifier
  /// and the syslog priority, unless they start with one of their own ("<4>").
  JournalSink(Stream stream, std::string socket_path,
              const std::string& identifier, int priority, uint64_t& dropped);
  ~JournalSink() override;

  void write(Stream stream, std::string_view text) override;
  void addPolls(PollSet& polls) const override;
  int64_t deadline() const override;
  void proceed(const PollSet& polls, int64_t now_ms) override;
  void finish() override;
  uint64_t heldBytes() const override { return queue_.content().size(); }

 private:
  void connect(int64_t now_ms);
  void disconnect(int64_t now_ms);
  ssize_t sendSome(std::string_view text, int64_t now_ms);
  bool appendNotice();
  void flush(int64_t now_ms);

  Stream stream_;
  std::string socket_path_;
  std::string header_;
  uint64_t& dropped_;
  OutputQueue queue_;
  uint64_t unreported_ = 0;
  int fd_ = -1;
  int64_t connect_at_ms_ = 0;
};

/// The header of a connection to the journal's stream socket.
std::string journalHeader(const std::string& identifier, int priority);

}  // namespace vorn::run
