#include "output/edit_distance.h"

#include <algorithm>
#include <numeric>

namespace vorn::launch {
namespace {

/// The number of letters to insert, remove or change to turn `b` into `a`.
size_t editDistance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 0; i < a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i + 1;
    for (size_t j = 0; j < b.size(); ++j) {
      const size_t changed = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({changed, row[j] + 1, row[j + 1] + 1});
    }
  }
  return row.back();
}

}  // namespace

std::string nearestOf(const std::vector<std::string>& words,
                      const std::string& word) {
  // With up to a third of the letters wrong it is a typing error. Words of one
  // or two letters resemble too many others.
  size_t best = word.size() / 3 + 1;
  std::string nearest;
  for (const std::string& each : words) {
    const size_t longer = std::max(each.size(), word.size());
    if (longer - std::min(each.size(), word.size()) >= best) continue;
    const size_t distance = editDistance(word, each);
    if (distance < best) {
      best = distance;
      nearest = each;
    }
  }
  return nearest;
}

}  // namespace vorn::launch
