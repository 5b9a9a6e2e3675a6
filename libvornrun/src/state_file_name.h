#pragma once

#include <string>

namespace vorn::run {

/// `name` as a file name: every byte outside of [A-Za-z0-9._-], and a dot at
/// the start, as %XX, so that no name leaves its directory.
std::string fileNameOf(const std::string& name);

}  // namespace vorn::run
