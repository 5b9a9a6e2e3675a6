#pragma once

#include <chrono>

// The launcher's rules that its clients have to know.

namespace vorn::launch {

/// The variable in the environment of a node and its children. Its value is the
/// name of the node and kNodeNameSuffix.
inline constexpr char kNodeNameVariable[] = "__VORN_NODE_NAME__";
inline constexpr char kNodeNameSuffix[] = "(vornlaunch)";

/// From the last start of a node that exited by itself to its restart.
inline constexpr std::chrono::seconds kRestartInterval{5};

/// A stop checks this many times, with a pause after each check, whether the
/// process has exited; then it sends SIGKILL. The pause is also that between
/// the stop and the start of a restart.
inline constexpr int kStopPasses = 50;
inline constexpr std::chrono::milliseconds kStopPause{200};

/// The longest stop of one node, apart from the duration of the checks.
inline constexpr std::chrono::milliseconds kLongestStop =
    kStopPasses * kStopPause;

}  // namespace vorn::launch
