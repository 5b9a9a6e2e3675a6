#pragma once

#include <string>

#include "output/output_text.h"

namespace vorn::launch {

/// The script that completes vornctl's words in this shell, "bash", "zsh" or
/// "fish"; empty for another. From the files in completion/.
OutputText completionScript(const std::string& shell);

}  // namespace vorn::launch
