#pragma once

#include <string>

#include "monitor/child_process.h"
#include "monitor/log_sink.h"
#include "monitor/rotation.h"

namespace vorn::run {

struct LogDirectorySettings {
  std::string path;
  uint64_t fileSize = 0;   // bytes; a file is finished before it is larger
  uint64_t totalSize = 0;  // bytes of all files
  unsigned keptFiles = 0;  // besides the current one
  bool compresses = false;
};

/// Writes the output of the node unchanged to files of limited size. While the
/// file system is full, output is dropped; one line says how much as soon as
/// there is space again.
class LogDirectory : public LogSink {
 public:
  /// `dropped` must outlive the sink.
  LogDirectory(LogDirectorySettings settings, uint64_t& dropped);
  ~LogDirectory() override;

  void write(Stream stream, std::string_view text) override;
  void addPolls(PollSet& polls) const override;
  int64_t deadline() const override;
  void proceed(const PollSet& polls, int64_t now_ms) override;
  void finish() override;

 private:
  bool openDirectory();
  bool openCurrent();
  bool isUsable();
  bool rotate();
  void renameCurrent();
  void prune() const;
  void compressOldest();
  bool hasSpace() const;
  bool writeNotice();
  void append(std::string_view text);
  void drop(size_t size, int error);
  void closeCurrent();

  LogDirectorySettings settings_;
  uint64_t& dropped_;
  int directory_ = -1;
  int current_ = -1;
  uint64_t used_ = 0;         // bytes of the current file
  uint64_t unchecked_ = 0;    // bytes since the last look at the free space
  bool is_mid_line_ = false;  // the current file ends within a line
  Stream last_stream_ = Stream::OUTPUT;
  uint64_t next_number_ = 1;
  uint64_t unreported_ = 0;  // dropped bytes without a notice yet
  int error_ = 0;            // the reason, an errno
  int64_t retry_at_ms_ = 0;
  ChildProcess compressor_;
  std::string compressed_;  // the file of the compressor
};

}  // namespace vorn::run
