#pragma once

#include <string>
#include <string_view>

namespace vorn::path {

/// What stands for the installation root in a launch file. All but its last
/// slash is replaced by root().
constexpr std::string_view kInstallPrefix = "install://";

/// The installation root directory, without a trailing slash, so that the root
/// directory "/" is the empty text. It is the environment variable VORN_ROOT if
/// that is set and not empty, else the parent of the directory that holds the
/// running executable. Settled at the first call and the same from then on; the
/// reference stays valid for the life of the process. Never fails.
///
/// A VORN_ROOT that itself contains "install:" could complete the prefix again
/// and again and so be expanded without end; it is refused with one WARN line,
/// and the executable's root is used.
const std::string& root();

/// What root() settles on when VORN_ROOT is `chosen`, nullptr for unset.
std::string rootFor(const char* chosen);

}  // namespace vorn::path
