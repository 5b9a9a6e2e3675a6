#pragma once

#include <cstdint>
#include <string>

namespace vorn::run {

/// The file STATEDIR/NODE.json of one run of a node.
class StateFile {
 public:
  /// `inode` identifies the file that was written, 0: none; it must outlive
  /// this object.
  StateFile(std::string directory, const std::string& node, uint64_t& inode);

  /// Replaces the file, and creates the directory if necessary. Returns an
  /// empty text, or the reason of a failure, after which the previous file
  /// remains.
  std::string write(const std::string& text);

  /// Removes the file, unless the next run of the node has replaced it.
  void remove();

 private:
  std::string directory_;
  std::string path_;
  uint64_t& inode_;
};

}  // namespace vorn::run
