#include "monitor/state_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "process/state_directory.h"
#include "state_file_name.h"

namespace vorn::run {

StateFile::StateFile(std::string directory, const std::string& node,
                     uint64_t& inode)
    : directory_(std::move(directory)),
      path_(directory_ + "/" + fileNameOf(node) + ".json"),
      inode_(inode) {}

std::string StateFile::write(const std::string& text) {
  std::string reason = createStateDirectory(directory_);
  if (reason.empty()) reason = writeStateFile(path_, text);
  struct stat status {};
  if (reason.empty() && ::lstat(path_.c_str(), &status) == 0)
    inode_ = status.st_ino;
  return reason;
}

void StateFile::remove() {
  struct stat status {};
  if (inode_ != 0 && ::lstat(path_.c_str(), &status) == 0 &&
      status.st_ino == inode_)
    (void)::unlink(path_.c_str());
}

}  // namespace vorn::run
