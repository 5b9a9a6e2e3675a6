#pragma once

#include <string>

namespace vorn::launch {

/// Writes a file that only its owner can read: first under another name in the
/// same directory, so that the file is never there in part. Replaces a regular
/// file if `may_replace`, and nothing else. False with a sentence in `error` if
/// the file could not be written.
bool writeFile(const std::string& path, const std::string& text,
               bool may_replace, std::string& error);

}  // namespace vorn::launch
