#pragma once

#include <cstddef>
#include <string>

#include "live/launcher_process.h"
#include "output/json.h"
#include "output/output_text.h"

namespace vorn::launch {

/// "launcher 42".
std::string launcherName(const LauncherProcess& launcher);

/// The member "launcher" of JSON documents.
Json launcherJson(const LauncherProcess& launcher);

/// `begin`, then ", launch file /tmp/launch.yaml, since 2026-11-22 10:00:00",
/// if known. Several lines if the terminal (0: none) is too narrow.
OutputText describeLauncher(const LauncherProcess& launcher,
                            const std::string& begin, size_t terminal_width);

}  // namespace vorn::launch
