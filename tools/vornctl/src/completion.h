#pragma once

#include <string>

namespace vorn::launch {

/// The script that completes vornctl's words in this shell, "bash", "zsh" or
/// "fish"; empty for another. From the files in completion/.
const char* completionScript(const std::string& shell);

}  // namespace vorn::launch
