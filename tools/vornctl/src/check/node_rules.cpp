#include <cstdio>
#include <cstring>
#include <map>
#include <string>

#include "check/rules.h"
#include "check/vornrun_command.h"
#include "launchfile/required_graph.h"

namespace vorn::launch {
namespace {

constexpr size_t kLongestName = 127;  // the limit of a request
constexpr uint32_t kLongestSleepMs =
    4'294'967;  // in microseconds, it fits into 32 bits
constexpr uint32_t kLongSleepMs = 10'000;
constexpr uint32_t kShortSleepMs = 100;

std::string named(const LaunchFile::Node& node) {
  return "node '" + node.name.value + "'";
}

/// The position of the first dash that follows a blank; npos if there is none.
size_t dashAfterBlank(const std::string& text) {
  for (size_t dash = text.find('-', 1); dash != std::string::npos;
       dash = text.find('-', dash + 1)) {
    if (std::strchr(" \t\n", text[dash - 1]) != nullptr) return dash;
  }
  return std::string::npos;
}

void checkName(const LaunchFile::Node& node, Diagnostics& diagnostics) {
  const std::string& name = node.name.value;
  if (name.size() > kLongestName) {
    diagnostics.add("name-too-long", node.name.location,
                    "the name of this node has " + std::to_string(name.size()) +
                        " bytes; with more than 127 it cannot be controlled");
  }
  if (name.rfind('-', 0) == 0) {
    diagnostics.add("name-like-option", node.name.location,
                    "the name '" + name +
                        "' starts with a dash; 'vornctl stop' parses it as an "
                        "option");
  } else if (const size_t dash = dashAfterBlank(name);
             dash != std::string::npos) {
    diagnostics.add("name-like-option", node.name.location,
                    "the name '" + name +
                        "' has a dash after a blank; where the name is split, "
                        "as by xargs, 'vornctl stop' parses '" +
                        name.substr(dash) + "' as an option");
  }
  if (name.find('\0') != std::string::npos) {
    diagnostics.add("nul-in-name", node.name.location,
                    named(node) +
                        " has a NUL in its name and cannot be "
                        "controlled");
  }
}

void checkDuplicates(const LaunchFile& file, Diagnostics& diagnostics) {
  std::map<std::string, SourceLocation> first;
  for (const LaunchFile::Node& node : file.nodes) {
    const auto [before, is_new] =
        first.emplace(node.name.value, node.name.location);
    if (is_new) continue;
    diagnostics.add("duplicate-node", node.name.location,
                    "a second " + named(node) +
                        ": both run, but only the first can be controlled and "
                        "required",
                    {{before->second, "the first one is here"}});
  }
}

void checkSleep(const LaunchFile::Node& node, Diagnostics& diagnostics) {
  const uint32_t sleep = node.sleepMs.value;
  const uint32_t effective = effectiveSleepMs(sleep);
  const std::string written = std::to_string(sleep) + " ms";
  if (sleep > kLongestSleepMs) {
    diagnostics.add("sleep-wraps", node.sleepMs.location,
                    "a sleep of " + written + " wraps around and is " +
                        std::to_string(effective) +
                        " ms; 4294967 ms is the longest");
  }
  if (sleep > 0 && sleep < kShortSleepMs) {
    diagnostics.add("short-sleep", node.sleepMs.location,
                    "the sleep of " + named(node) + " is " + written +
                        "; for seconds, write " + std::to_string(sleep * 1000));
  }
  if (effective > kLongSleepMs) {
    diagnostics.add(
        "long-sleep", node.sleepMs.location,
        "before each start of " + named(node) + " the launcher sleeps for " +
            std::to_string(effective / 1000) +
            " s: it starts nothing else, notices no exit and answers "
            "no command");
  }
}

/// Whether a shell would replace a part of the text by a variable.
bool hasShellVariable(const std::string& text) {
  for (size_t i = text.find('$'); i != std::string::npos;
       i = text.find('$', i + 1)) {
    const char next = i + 1 < text.size() ? text[i + 1] : ' ';
    const bool is_letter = (next >= 'a' && next <= 'z') ||
                           (next >= 'A' && next <= 'Z') || next == '_';
    if (is_letter || next == '{') return true;
  }
  return false;
}

/// Whether the text after the first blank of a path is an argument, and not a
/// part of a file name with a blank in it.
bool hasArgument(const std::string& path) {
  const size_t blank = path.find_first_of(" \t");
  const size_t next = path.find_first_not_of(" \t", blank);
  if (blank == std::string::npos || next == std::string::npos) return false;
  return path[next] == '-' || path[next] == '/' ||
         path.find_first_not_of("0123456789", next) == std::string::npos;
}

/// The first shell syntax in an argument; empty if there is none.
std::string shellPartOfArgument(const std::string& argument) {
  for (const char* const sign : {"&&", "||", "$(", "`"}) {
    if (argument.find(sign) != std::string::npos) return sign;
  }
  for (const char* const sign : {"|", ">", ">>", "<", "&", ";", "2>&1"}) {
    if (argument == sign) return sign;
  }
  if (argument[0] == '~' && (argument.size() == 1 || argument[1] == '/')) {
    return "~";
  }
  if (argument[0] == '>') return ">";
  if (hasShellVariable(argument)) return "$";
  const size_t glob = argument.find_first_of("*?");
  // A URL can contain a question mark.
  const bool is_glob =
      glob != std::string::npos && argument.find("://") == std::string::npos;
  return is_glob ? argument.substr(glob, 1) : "";
}

/// `is_expanded` says that vornrun expands variables.
void checkArgument(const LaunchFile::Node& node, const Text& argument,
                   bool is_expanded, Diagnostics& diagnostics) {
  const std::string subject =
      "argument '" + argument.value + "' of " + named(node);
  const char first = argument.value.front();
  const char last = argument.value.back();
  if (first == '"' || first == '\'' || last == '"' || last == '\'') {
    diagnostics.add("quote-in-argv", argument.location,
                    subject +
                        " keeps its quotes; arguments are split at every "
                        "space, and quotes are not removed");
  }
  if (const std::string part = shellPartOfArgument(argument.value);
      !part.empty() && !(is_expanded && part == "$")) {
    diagnostics.add(
        "shell-in-argv", argument.location,
        subject + " is passed as written; no shell expands its '" + part + "'");
  }
  if (argument.value.find_first_of("\t\n\r") != std::string::npos) {
    diagnostics.add("space-in-argument", argument.location,
                    subject +
                        " contains a tab or a line break; only spaces separate "
                        "arguments");
  }
}

void checkNul(const Text& text, const std::string& what,
              Diagnostics& diagnostics) {
  if (text.value.find('\0') == std::string::npos) return;
  diagnostics.add("nul-in-text", text.location,
                  what + " ends at its first NUL");
}

void checkTexts(const LaunchFile::Node& node, Diagnostics& diagnostics) {
  checkNul(node.path, "the path of " + named(node), diagnostics);
  for (const Text& argv : node.argvs) {
    checkNul(argv, "the argv of " + named(node), diagnostics);
  }
}

void checkPath(const LaunchFile& file, const LaunchFile::Node& node,
               Diagnostics& diagnostics) {
  if (!node.hasPath) return;
  const std::string subject =
      "path '" + node.path.value + "' of " + named(node);
  if (hasArgument(node.path.value)) {
    diagnostics.add("shell-in-path", node.path.location,
                    subject + " contains a blank; write arguments in 'argv'");
  }
  const bool is_home = node.path.value.rfind("~/", 0) == 0;
  if (is_home || hasShellVariable(node.path.value)) {
    diagnostics.add("shell-in-path", node.path.location,
                    subject + " is used as written; no shell expands its '" +
                        (is_home ? "~'" : "$'"));
    return;
  }
  if (!file.binPath.empty()) return;
  if (node.path.value.rfind('/', 0) == 0) return;
  // variable_rules.cpp has a better message for this.
  if (node.path.value.rfind("install:", 0) == 0) return;
  diagnostics.add("relative-path", node.path.location,
                  subject +
                      " is relative to the launcher's working directory; set "
                      "VORN_BIN_PATH in 'configure' or write an absolute path");
}

void checkFlags(const LaunchFile::Node& node, Diagnostics& diagnostics) {
  if (!node.disabled.value || node.autostart.value) return;
  diagnostics.add(
      "disabled-autostart", node.autostart.location,
      named(node) +
          " is disabled and not started automatically: once enabled, "
          "its first start is refused and only the second works",
      {{node.disabled.location, "it is disabled here"}});
}

}  // namespace

void checkNodes(const LaunchFile& file, Diagnostics& diagnostics) {
  checkDuplicates(file, diagnostics);
  for (const LaunchFile::Node& node : file.dropped) {
    diagnostics.add("node-dropped", node.name.location,
                    isNodeKey(node.name.value)
                        ? "'" + node.name.value +
                              "' is read as the name of a node without 'path'; "
                              "indent it below the name of its node"
                        : named(node) + " has no 'path' and is left out");
  }
  for (const LaunchFile::Node& node : file.nodes) {
    checkName(node, diagnostics);
    checkPath(file, node, diagnostics);
    const bool is_expanded =
        runsVornrun(node) &&
        parseVornrun(node, false).parsed.settings.expandsVariables;
    for (const Text& argument : node.arguments) {
      checkArgument(node, argument, is_expanded, diagnostics);
    }
    checkTexts(node, diagnostics);
    checkSleep(node, diagnostics);
    checkFlags(node, diagnostics);
  }
}

}  // namespace vorn::launch
