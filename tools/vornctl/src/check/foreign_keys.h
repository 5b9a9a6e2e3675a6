#pragma once

#include <string>

namespace vorn::launch {

/// The key in lower case and without '-' and '_': "WorkingDirectory",
/// "working_directory" and "working-directory" are the same key.
std::string normalizedKey(const std::string& key);

/// The replacement in a node's description for the purpose that this
/// normalized key; null for a key of no other supervisor. Static.
const char* adviceForNodeKey(const std::string& key);

/// The same for a key at the top level of the file.
const char* adviceForRootKey(const std::string& key);

}  // namespace vorn::launch
