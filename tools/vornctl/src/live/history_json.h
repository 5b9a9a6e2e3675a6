#pragma once

#include "live/log_history.h"
#include "output/json.h"

namespace vorn::launch {

/// An event for programs. Members that do not apply to it are omitted, those
/// whose values are not known are null.
Json jsonOf(const HistoryEvent& event);

}  // namespace vorn::launch
