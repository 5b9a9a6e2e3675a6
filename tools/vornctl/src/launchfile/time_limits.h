#pragma once

#include <chrono>
#include <string>

#include "launchfile/launch_file.h"
#include "vorn/control_protocol.h"

namespace vorn::launch {

/// The longest time that the launcher may be busy with this command on this
/// node by what the launch file says: 10 s for each stop, of the node and,
/// along every path, of those it requires, with their restarts and delays. At
/// most a day; a cycle is followed once.
std::chrono::milliseconds longestDuration(const LaunchFile& file,
                                          ControlRequest::Cmd cmd,
                                          const std::string& name);

/// How long to wait for the reply if nothing else was asked for: twice the
/// longest time, and half a minute for what the launcher is busy with when the
/// request arrives.
std::chrono::milliseconds defaultReplyLimit(const LaunchFile& file,
                                            ControlRequest::Cmd cmd,
                                            const std::string& name);

}  // namespace vorn::launch
