#pragma once

#include <optional>

#include <nlohmann/json.hpp>

namespace vorn::launch {

using Json = nlohmann::ordered_json;

/// The number, or null for 0, which means that it is not known.
template <typename Number>
Json orNull(Number number) {
  return number == 0 ? Json() : Json(number);
}

/// The value, or null if there is none.
template <typename Value>
Json orNull(const std::optional<Value>& value) {
  return value ? Json(*value) : Json();
}

}  // namespace vorn::launch
