#pragma once

#include <string>

namespace vorn::path {

/// The installation root directory, without a trailing slash, so that the root
/// directory "/" is the empty text. It is the environment variable VORN_ROOT if
/// that is set and not empty, otherwise the parent of the directory that
/// contains the running executable. Determined at the first call and then
/// constant; the reference stays valid for the life of the process. Never
/// fails.
///
/// A VORN_ROOT that contains "install:" could be expanded without end; it is
/// refused with one WARN line, and the executable's root is used.
const std::string& root();

/// The result of root() if VORN_ROOT is `chosen`, nullptr for unset.
std::string rootFor(const char* chosen);

}  // namespace vorn::path
