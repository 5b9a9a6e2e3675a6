#pragma once

#include <string>

// The messages of vornrun: one line on standard error each.

namespace vorn::run {

/// The exit statuses of vornrun's own failures, as those of env(1).
constexpr int kExitFailure = 125;
constexpr int kExitNotExecutable = 126;
constexpr int kExitNotFound = 127;

/// Writes "vornrun: NODE: SUBJECT: text" in one line by one write(2). Control
/// characters are escaped. `subject` is an option or the program; empty: none.
/// Never fails: a line that standard error does not accept is lost.
void reportLine(const std::string& node, const std::string& subject,
                const std::string& text);

/// Makes reportLine() write to a copy of the present standard error, which exec
/// closes, so that standard error can be replaced.
void keepReportStream();

}  // namespace vorn::run
