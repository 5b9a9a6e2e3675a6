#include "monitor/notify_message.h"

namespace vorn::run {

NotifyMessage parseNotifyMessage(std::string_view datagram) {
  constexpr std::string_view kStatus = "STATUS=";
  NotifyMessage message;
  while (!datagram.empty()) {
    const size_t end = datagram.find('\n');
    const std::string_view line = datagram.substr(0, end);
    datagram.remove_prefix(end == std::string_view::npos ? datagram.size()
                                                         : end + 1);
    if (line == "READY=1") message.isReady = true;
    if (line == "STOPPING=1") message.isStopping = true;
    if (line == "WATCHDOG=1") message.isAlive = true;
    if (line == "WATCHDOG=trigger") message.requestsAbort = true;
    if (line.substr(0, kStatus.size()) == kStatus) {
      message.hasStatus = true;
      message.status = line.substr(kStatus.size());
    }
  }
  return message;
}

}  // namespace vorn::run
