#include "monitor/log_directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <utility>

#include "monitor/dropped_notice.h"

namespace vorn::run {
namespace {

constexpr char kCurrent[] = "current";
constexpr mode_t kDirectoryMode = 0750;
constexpr mode_t kFileMode = 0640;
constexpr int64_t kRetryMs = 1000;
constexpr uint64_t kSpaceCheckBytes = uint64_t{1} << 20;

/// Creates the directory and its parents; existing ones are no error.
void createDirectories(const std::string& path) {
  for (size_t end = path.find('/', 1); end != std::string::npos;
       end = path.find('/', end + 1))
    (void)::mkdir(path.substr(0, end).c_str(), 0755);
  (void)::mkdir(path.c_str(), kDirectoryMode);
}

/// Calls `visit` with the name and the parsed name of each finished file.
template <typename Visit>
void forEachRotatedFile(int directory, Visit visit) {
  const int fd = ::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* stream = fd < 0 ? nullptr : ::fdopendir(fd);
  if (stream == nullptr) {
    if (fd >= 0) (void)::close(fd);
    return;
  }
  while (const dirent* entry = ::readdir(stream)) {
    const auto file = parseRotatedName(entry->d_name);
    if (file) visit(entry->d_name, *file);
  }
  (void)::closedir(stream);
}

uint64_t sizeOf(int directory, const char* name) {
  struct stat status {};
  if (::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return 0;
  return static_cast<uint64_t>(status.st_size);
}

/// All finished files together.
struct Inventory {
  std::string oldest;
  uint64_t oldestNumber = UINT64_MAX;
  uint64_t lastNumber = 0;
  unsigned count = 0;
  uint64_t size = 0;
};

Inventory inventoryOf(int directory) {
  Inventory all;
  forEachRotatedFile(directory, [&](const char* name, RotatedFile file) {
    ++all.count;
    all.size += sizeOf(directory, name);
    all.lastNumber = std::max(all.lastNumber, file.number);
    if (file.number < all.oldestNumber) {
      all.oldestNumber = file.number;
      all.oldest = name;
    }
  });
  return all;
}

}  // namespace

LogDirectory::LogDirectory(LogDirectorySettings settings, uint64_t& dropped)
    : settings_(std::move(settings)), dropped_(dropped) {
  settings_.fileSize = std::min(settings_.fileSize, settings_.totalSize);
  (void)isUsable();
}

LogDirectory::~LogDirectory() {
  closeCurrent();
  if (directory_ >= 0) (void)::close(directory_);
}

void LogDirectory::closeCurrent() {
  if (current_ >= 0) (void)::close(current_);
  current_ = -1;
  is_mid_line_ = false;
}

bool LogDirectory::openDirectory() {
  if (directory_ >= 0) return true;
  createDirectories(settings_.path);
  directory_ =
      ::open(settings_.path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (directory_ < 0) return false;
  next_number_ = inventoryOf(directory_).lastNumber + 1;
  prune();
  return true;
}

bool LogDirectory::openCurrent() {
  // The user of the node may own the directory and must not be able to make the
  // monitor write elsewhere by a link.
  const int fd = ::openat(
      directory_, kCurrent,
      O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
      kFileMode);
  if (fd < 0) return false;
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) ||
      status.st_nlink != 1) {
    (void)::close(fd);
    errno = EPERM;
    return false;
  }
  current_ = fd;
  used_ = static_cast<uint64_t>(status.st_size);
  char last = '\n';
  is_mid_line_ = used_ > 0 && ::pread(fd, &last, 1, status.st_size - 1) == 1 &&
                 last != '\n';
  return true;
}

bool LogDirectory::isUsable() {
  if (current_ >= 0) return true;
  if (openDirectory() && openCurrent()) return true;
  error_ = errno;
  return false;
}

void LogDirectory::write(Stream stream, std::string_view text) {
  if (unreported_ > 0 &&
      (monotonicMs() < retry_at_ms_ || !isUsable() || !writeNotice())) {
    drop(text.size(), error_);
    return;
  }
  if (is_mid_line_ && stream != last_stream_) append("\n");
  last_stream_ = stream;
  while (!text.empty()) {
    if (unreported_ > 0 || !isUsable()) {
      drop(text.size(), error_);
      return;
    }
    const uint64_t room =
        settings_.fileSize > used_ ? settings_.fileSize - used_ : 0;
    const size_t size =
        bytesBeforeRotation(text, room, !is_mid_line_ && used_ > 0);
    if (size == 0 && !rotate()) {
      drop(text.size(), errno);
      return;
    }
    append(text.substr(0, size));
    text.remove_prefix(size);
  }
}

void LogDirectory::append(std::string_view text) {
  unchecked_ += text.size();
  if (unchecked_ >= kSpaceCheckBytes) {
    unchecked_ = 0;
    if (!hasSpace()) return drop(text.size(), ENOSPC);
  }
  while (!text.empty()) {
    const ssize_t written = ::write(current_, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return drop(text.size(), written < 0 ? errno : EIO);
    used_ += static_cast<uint64_t>(written);
    is_mid_line_ = text[static_cast<size_t>(written) - 1] != '\n';
    text.remove_prefix(static_cast<size_t>(written));
  }
}

void LogDirectory::drop(size_t size, int error) {
  if (unreported_ == 0) retry_at_ms_ = monotonicMs() + kRetryMs;
  unreported_ += size;
  dropped_ += size;
  error_ = error;
}

bool LogDirectory::hasSpace() const {
  struct statvfs space {};
  // Space that is reserved for root is not for logs.
  return ::fstatvfs(directory_, &space) != 0 || space.f_blocks == 0 ||
         space.f_bavail > 0;
}

bool LogDirectory::writeNotice() {
  const std::string notice = (is_mid_line_ ? "\n" : "") +
                             droppedNotice(unreported_, std::strerror(error_));
  retry_at_ms_ = monotonicMs() + kRetryMs;
  if (!hasSpace()) return false;
  const ssize_t written = ::write(current_, notice.data(), notice.size());
  if (written != static_cast<ssize_t>(notice.size())) {
    if (written > 0 && ::ftruncate(current_, static_cast<off_t>(used_)) != 0)
      used_ += static_cast<uint64_t>(written);
    return false;
  }
  used_ += notice.size();
  is_mid_line_ = false;
  unreported_ = 0;
  return true;
}

bool LogDirectory::rotate() {
  renameCurrent();
  const int error = errno;
  struct stat status {};
  if (::fstatat(directory_, kCurrent, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
      static_cast<uint64_t>(status.st_size) >= settings_.fileSize) {
    errno = error;
    return false;
  }
  closeCurrent();
  prune();
  compressOldest();
  return isUsable();
}

/// Leaves the file of another monitor, which the next run of the node has
/// started, where it is.
void LogDirectory::renameCurrent() {
  struct stat own {};
  struct stat named {};
  if (::fstat(current_, &own) != 0 ||
      ::fstatat(directory_, kCurrent, &named, AT_SYMLINK_NOFOLLOW) != 0 ||
      own.st_ino != named.st_ino)
    return;
  const int64_t now = unixSeconds();
  for (;;) {
    const std::string name = rotatedName(next_number_++, now);
    if (::renameat2(directory_, kCurrent, directory_, name.c_str(),
                    RENAME_NOREPLACE) == 0 ||
        errno == ENOENT)
      return;
    if (errno == EEXIST) continue;
    // A file system without RENAME_NOREPLACE.
    if (errno == EINVAL)
      (void)::renameat(directory_, kCurrent, directory_, name.c_str());
    return;
  }
}

void LogDirectory::prune() const {
  for (Inventory all = inventoryOf(directory_); all.count > 0;
       all = inventoryOf(directory_)) {
    const bool is_too_much =
        all.count > settings_.keptFiles ||
        all.size + settings_.fileSize > settings_.totalSize;
    if (!is_too_much || ::unlinkat(directory_, all.oldest.c_str(), 0) != 0)
      return;
  }
}

void LogDirectory::compressOldest() {
  if (!settings_.compresses || compressor_.isRunning()) return;
  uint64_t number = UINT64_MAX;
  compressed_.clear();
  forEachRotatedFile(directory_, [&](const char* name, RotatedFile file) {
    if (file.isCompressed || file.number >= number) return;
    number = file.number;
    compressed_ = name;
  });
  if (compressed_.empty()) return;
  ChildProcess::Options options;
  options.directory = settings_.path;
  options.isBackground = true;
  options.deathSignal = SIGTERM;  // gzip then removes the incomplete file
  (void)compressor_.start({"gzip", "-f", "--", compressed_}, options);
}

void LogDirectory::addPolls(PollSet& polls) const {
  polls.add(compressor_.descriptor(), POLLIN);
}

int64_t LogDirectory::deadline() const {
  return unreported_ > 0 ? retry_at_ms_ : kNever;
}

void LogDirectory::proceed(const PollSet& polls, int64_t now_ms) {
  if (polls.hasEvent(compressor_.descriptor()) && compressor_.isFinished()) {
    // Without gzip, or on a full disk, files stay as they are until the next
    // rotation. A file may have been removed to make room.
    if (compressor_.waitStatus() == 0 ||
        ::faccessat(directory_, compressed_.c_str(), F_OK, 0) != 0)
      compressOldest();
  }
  if (unreported_ > 0 && now_ms >= retry_at_ms_ && isUsable())
    (void)writeNotice();
  if (retry_at_ms_ <= now_ms) retry_at_ms_ = now_ms + kRetryMs;
}

void LogDirectory::finish() {
  if (unreported_ > 0 && isUsable()) (void)writeNotice();
  if (!compressor_.isRunning()) return;
  PollSet polls;
  polls.add(compressor_.descriptor(), POLLIN);
  polls.wait(kFinishMs);
  compressor_.kill();
  polls.wait(kFinishMs);
  (void)compressor_.isFinished();
}

}  // namespace vorn::run
