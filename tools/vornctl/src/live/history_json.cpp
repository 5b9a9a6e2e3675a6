#include "live/history_json.h"

#include "live/action_records.h"
#include "live/event_text.h"
#include "output/duration.h"

namespace vorn::launch {
namespace {

void addExit(Json& json, const HistoryEvent& exit) {
  json["pid"] = orNull(exit.pid);
  json["exitStatus"] = exit.isSignal() ? Json() : Json(exit.status);
  json["signal"] = exit.isSignal() ? Json(exit.status) : Json();
  json["signalName"] = exit.isSignal() ? Json(signalName(exit.status)) : Json();
  json["coreDumped"] = exit.isCoreDumped();
  json["forced"] = exit.isForced();
  json["runSeconds"] = exit.runUs < 0
                           ? Json()
                           : Json(static_cast<double>(exit.runUs) / kSecondUs);
}

}  // namespace

Json jsonOf(const HistoryEvent& event) {
  Json json = {
      {"time", event.timeUs == 0 ? Json() : Json(formatUtc(event.timeUs))},
      {"node", event.node.empty() ? Json() : Json(event.node)},
      {"event", wordFor(event.kind)},
      {"cause", wordFor(event.cause)},
      {"launcherPid", orNull(event.launcher)},
  };
  if (event.kind == HistoryEvent::Kind::EXITED) addExit(json, event);
  if (!event.detail.empty()) json["detail"] = event.detail;
  return json;
}

}  // namespace vorn::launch
