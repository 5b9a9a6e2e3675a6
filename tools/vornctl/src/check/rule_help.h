#pragma once

#include <string>

namespace vorn::launch {

/// The section of docs/checks.md about this check, in Markdown without links.
/// Empty if the check is unknown.
std::string helpFor(const std::string& check);

}  // namespace vorn::launch
