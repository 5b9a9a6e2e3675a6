#pragma once

#include <string>
#include <vector>

namespace vorn::launch {

/// The word in the list that is nearest to `word`, if it is near enough for a
/// typing error; otherwise empty. The first of several that are equally near.
std::string nearestOf(const std::vector<std::string>& words,
                      const std::string& word);

}  // namespace vorn::launch
