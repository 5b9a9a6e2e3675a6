#include "monitor/node_state.h"

#include <cstring>

namespace vorn::run {
namespace {

constexpr char kHexDigits[] = "0123456789ABCDEF";

/// The bytes of the valid UTF-8 character at the front of `text`; 0 if there is
/// none.
size_t utf8CharacterSize(std::string_view text) {
  const auto first = static_cast<unsigned char>(text[0]);
  if (first < 0x80) return 1;
  size_t size = 0;
  if (first >= 0xC2 && first <= 0xDF) size = 2;
  if (first >= 0xE0 && first <= 0xEF) size = 3;
  if (first >= 0xF0 && first <= 0xF4) size = 4;
  if (size == 0 || text.size() < size) return 0;
  for (size_t i = 1; i < size; ++i)
    if ((static_cast<unsigned char>(text[i]) & 0xC0U) != 0x80) return 0;
  // Overlong forms, surrogates and numbers above U+10FFFF.
  const auto second = static_cast<unsigned char>(text[1]);
  if (first == 0xE0 && second < 0xA0) return 0;
  if (first == 0xED && second > 0x9F) return 0;
  if (first == 0xF0 && second < 0x90) return 0;
  if (first == 0xF4 && second > 0x8F) return 0;
  return size;
}

bool isControlCharacter(std::string_view character) {
  const auto first = static_cast<unsigned char>(character[0]);
  if (first < 0x20 || first == 0x7F) return true;
  return first == 0xC2 && static_cast<unsigned char>(character[1]) < 0xA0;
}

/// A JSON string; names of nodes may contain any byte.
std::string jsonText(std::string_view text) {
  std::string result = "\"";
  while (!text.empty()) {
    size_t size = utf8CharacterSize(text);
    if (size == 0) {
      result += "?";
      size = 1;
    } else if (static_cast<unsigned char>(text[0]) < 0x20) {
      result += "\\u00";
      result += kHexDigits[static_cast<unsigned char>(text[0]) >> 4U];
      result += kHexDigits[static_cast<unsigned char>(text[0]) & 15U];
    } else {
      if (text[0] == '"' || text[0] == '\\') result += '\\';
      result += text.substr(0, size);
    }
    text.remove_prefix(size);
  }
  return result + '"';
}

std::string jsonBool(bool value) { return value ? "true" : "false"; }

std::string watchdogJson(const NodeState& state) {
  if (state.watchdogPeriodMs == 0) return "null";
  return "{\"periodMs\":" + std::to_string(state.watchdogPeriodMs) +
         ",\"lastMs\":" + std::to_string(state.watchdogLastMs) + "}";
}

std::string probeJson(const NodeState& state) {
  if (!state.hasProbeResult) return "null";
  return "{\"ok\":" + jsonBool(state.isProbeOk) +
         ",\"message\":" + jsonText(state.probeMessage) +
         ",\"time\":" + std::to_string(state.probeTime) + "}";
}

}  // namespace

const char* nameOf(Phase phase) {
  switch (phase) {
    case Phase::WAITING:
      return "waiting";
    case Phase::DELAYED:
      return "delayed";
    case Phase::STARTING:
      return "starting";
    case Phase::READY:
      return "ready";
    case Phase::RUNNING:
      return "running";
    case Phase::UNHEALTHY:
      return "unhealthy";
    case Phase::GAVE_UP:
      return "gave up";
  }
  return "starting";
}

std::string stateText(const NodeState& state, const NodeIdentity& node) {
  const std::string ready =
      state.expectsReadiness ? jsonBool(state.isReady) : "null";
  const std::string delayed_until =
      state.delayedUntil == 0 ? "null" : std::to_string(state.delayedUntil);
  return "{\"schema\":1,\"node\":" + jsonText(node.name) +
         ",\"pid\":" + std::to_string(node.pid) +
         ",\"startTime\":" + std::to_string(node.startTime) + ",\"phase\":\"" +
         nameOf(state.phase) + "\",\"status\":" + jsonText(state.status) +
         ",\"phaseSince\":" + std::to_string(state.phaseSince) +
         ",\"ready\":" + ready +
         ",\"restarts\":" + std::to_string(state.restarts) +
         ",\"delayedUntil\":" + delayed_until +
         ",\"droppedBytes\":" + std::to_string(state.droppedBytes) +
         ",\"ignoredMessages\":" + std::to_string(state.ignoredMessages) +
         ",\"watchdog\":" + watchdogJson(state) +
         ",\"lastProbe\":" + probeJson(state) + "}\n";
}

void copyPrintable(std::string_view text, char* to, size_t size) {
  size_t used = 0;
  while (!text.empty()) {
    const size_t length = utf8CharacterSize(text);
    const bool is_printable =
        length > 0 && !isControlCharacter(text.substr(0, length));
    const size_t needed = is_printable ? length : 1;
    if (used + needed >= size) break;
    if (is_printable) {
      std::memcpy(to + used, text.data(), length);
    } else {
      to[used] = '?';
    }
    used += needed;
    text.remove_prefix(length == 0 ? 1 : length);
  }
  to[used] = '\0';
}

}  // namespace vorn::run
