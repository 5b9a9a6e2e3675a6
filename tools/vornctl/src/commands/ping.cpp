#include "commands/ping.h"

#include <chrono>
#include <cstdio>

#include "live/launcher_description.h"
#include "output/output.h"

namespace vorn::launch {

ExitStatus ping(Context& context) {
  const auto begin = std::chrono::steady_clock::now();
  if (const ExitStatus status = context.findLauncher(); status != kDone) {
    return status;
  }
  const std::chrono::duration<double, std::milli> elapsed =
      std::chrono::steady_clock::now() - begin;
  if (context.settings().isQuiet) return kDone;
  char text[64];
  (void)std::snprintf(text, sizeof(text), " answers in %.1f ms",
                      elapsed.count());
  const LauncherProcess launcher = context.launcherWithoutFile();
  standardOutput() << describeLauncher(launcher, launcherName(launcher) + text,
                                       0)
                   << "\n";
  context.warnAboutOrphans();
  return kDone;
}

}  // namespace vorn::launch
