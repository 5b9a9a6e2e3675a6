#pragma once

#include <sys/types.h>

#include <string>

namespace vorn::launch {

/// A file that only its owner can read.
constexpr mode_t kPrivateFile = 0600;
/// A file that every user can read.
constexpr mode_t kPublicFile = 0644;

/// Writes a file with this mode: first under another name in the same
/// directory, so that an incomplete file is never visible. With `may_replace`,
/// replaces a regular file, but no file of another type. False with a sentence
/// in `error` if the file could not be written.
bool writeFile(const std::string& path, const std::string& text,
               bool may_replace, std::string& error,
               mode_t mode = kPrivateFile);

/// Writes the names in the directory of `path` to the disk, so that a new name
/// survives a power cut. False with a sentence in `error` if that fails.
bool syncDirectoryOf(const std::string& path, std::string& error);

}  // namespace vorn::launch
