#include "live/log_follow.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>

#include "live/log_part.h"
#include "live/proc_file.h"

namespace vorn::launch {
namespace {

/// Follows one file, which is replaced after a rotation.
class FollowedFile {
 public:
  FollowedFile(const LogLocation& location, LogPosition& position,
               const LogReader& reader)
      : location_(location),
        position_(position),
        part_{location.name, location.file, false},
        filter_(0, reader) {
    beginAt(position.offset);
  }

  bool isStopped() const { return is_stopped_; }

  /// Reads to the end of the file, or of its successor.
  bool readOn(std::string& error) {
    // A file shorter than the part that was read was truncated.
    if (fileSize(number()) < offset_) restart(part_.file);
    if (!readToEnd(error)) return false;
    const std::shared_ptr<const Descriptor> next = successor();
    if (!next) return true;
    // The writer may have added lines before the rotation.
    if (!readToEnd(error)) return false;
    restart(next);
    return readToEnd(error);
  }

  /// Waits for a change; false if `cancel_fd` is readable.
  bool wait(int cancel_fd) {
    const Descriptor notifier(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    const std::string link = "/proc/self/fd/" + std::to_string(number());
    (void)::inotify_add_watch(notifier.number(), link.c_str(), IN_MODIFY);
    pollfd watched[] = {{notifier.number(), POLLIN, 0}, {cancel_fd, POLLIN, 0}};
    // For rotations, and for file systems without notification.
    constexpr int kLimitMs = 500;
    const bool has_changed = fileSize(number()) != offset_;
    (void)::poll(watched, 2, has_changed ? 0 : kLimitMs);
    return watched[1].revents == 0;
  }

 private:
  int number() const { return part_.file->number(); }

  void beginAt(int64_t offset) {
    begin_ = offset;
    offset_ = offset;
    splitter_.emplace([this](std::string_view line) {
      is_stopped_ = !filter_(line);
      return !is_stopped_;
    });
  }

  void restart(const std::shared_ptr<const Descriptor>& file) {
    if (!is_stopped_) (void)splitter_->finish();
    part_.file = file;
    beginAt(0);
  }

  bool readToEnd(std::string& error) {
    std::string block(kLogBlockSize, '\0');
    while (!is_stopped_) {
      const ssize_t got =
          ::pread(number(), block.data(), block.size(), offset_);
      if (got < 0) {
        error = "cannot read " + part_.name + ": " + std::strerror(errno);
        return false;
      }
      if (got == 0) break;
      offset_ += got;
      (void)splitter_->add({block.data(), static_cast<size_t>(got)});
      position_.offset = begin_ + splitter_->lineBegin();
    }
    return true;
  }

  /// The file that has replaced the current one at its path; null if none has.
  std::shared_ptr<const Descriptor> successor() const {
    struct stat own {};
    struct stat other {};
    if (::fstat(number(), &own) != 0) return nullptr;
    const auto is_own = [&own, &other] {
      return own.st_dev == other.st_dev && own.st_ino == other.st_ino;
    };
    if (location_.launcher != 0) {
      // A launcher keeps writing to a renamed file.
      const std::string link = procFile(location_.launcher, "fd/2");
      const bool is_written = ::stat(link.c_str(), &other) == 0 && is_own();
      if (is_written || !location_.root.empty()) return nullptr;
    }
    auto file = std::make_shared<const Descriptor>(
        ::open(location_.path.c_str(), kLogOpenFlags));
    if (file->number() < 0 || ::fstat(file->number(), &other) != 0 ||
        !S_ISREG(other.st_mode) || is_own()) {
      return nullptr;
    }
    return file;
  }

  const LogLocation& location_;
  LogPosition& position_;
  LogPart part_;
  RecordFilter filter_;
  std::optional<LineSplitter> splitter_;
  int64_t begin_ = 0;   // the offset at which the splitter began
  int64_t offset_ = 0;  // of the next byte
  bool is_stopped_ = false;
};

}  // namespace

bool followLogFile(const LogLocation& location, LogPosition& position,
                   int cancel_fd, const LogReader& reader, std::string& error) {
  FollowedFile file(location, position, reader);
  do {
    if (!file.readOn(error)) return false;
  } while (!file.isStopped() && file.wait(cancel_fd));
  return true;
}

}  // namespace vorn::launch
