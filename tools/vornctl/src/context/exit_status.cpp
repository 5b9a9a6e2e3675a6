#include "context/exit_status.h"

#include <algorithm>
#include <map>
#include <string_view>

namespace vorn::launch {
namespace {

// The commands that send requests to a launcher, and those with node arguments.
constexpr char kOfLauncher[] =
    " status start stop restart enable disable wait monitor top why history ps "
    "logs ping names metrics diff ";
constexpr char kOfNodes[] =
    " status start stop restart enable disable wait monitor top why "
    "history ps logs ";

/// One meaning of an exit status.
struct Meaning {
  ExitStatus status;
  const char* text;
  std::string_view commands;  // a space before and after each; empty: all
};

constexpr Meaning kMeanings[] = {
    {kDone, "success, or the condition is true", ""},
    {kFailed, "an operation failed, or the output could not be written", ""},
    {kFailed, "a problem was found", " check "},
    {kFailed, "a node has failed", " status wait why "},
    {kFailed, "processes of earlier launchers or runs exist", " orphans "},
    {kFailed, "a difference was found", " diff "},
    {kFailed, "the new file was not applied, the old one is in place",
     " apply "},
    {kFailed, "an error or a warning was found", " doctor "},
    {kFailed, "a node is not healthy, or no launcher answers", " health "},
    {kUsage, "wrong usage, or the nodes or a file cannot be read", ""},
    {kNotRunning, "a named node is not running", " status "},
    {kNotRunning, "a named node has no process", " ps "},
    {kNotRunning, "the state did not last", " wait "},
    {kNoSuchNode, "no such node, or no node matches a pattern", kOfNodes},
    {kNoLauncher, "no launcher is running, or no permission", kOfLauncher},
    {kTimedOut, "given up before the request was sent: it has no effect",
     " status start stop restart enable disable monitor top why history ps "
     "logs ping names metrics diff "},
    {kTimedOut, "timed out or interrupted", " wait "},
    {kUnknown, "no reply: a request may still take effect", kOfLauncher},
    {kProtocolError, "the reply is invalid", kOfLauncher},
    {kUntrusted,
     "the launcher, or a symbolic link to its socket, belongs to another user",
     kOfLauncher},
    {kTryLater, "another apply runs, or the hook refuses; try again later",
     " apply "},
};

bool isFor(const Meaning& meaning, const std::string& command) {
  return command.empty() || meaning.commands.empty() ||
         meaning.commands.find(' ' + command + ' ') != std::string_view::npos;
}

/// The only command with this meaning; empty if there are others.
std::string_view onlyCommand(std::string_view commands) {
  if (std::count(commands.begin(), commands.end(), ' ') != 2) return {};
  return commands.substr(1, commands.size() - 2);
}

}  // namespace

std::string exitStatusHelp(const std::string& command) {
  std::map<ExitStatus, std::string> texts;
  for (const Meaning& meaning : kMeanings) {
    if (!isFor(meaning, command)) continue;
    std::string& text = texts[meaning.status];
    if (!text.empty()) text += "; ";
    const std::string_view only = onlyCommand(meaning.commands);
    if (command.empty() && !only.empty()) text.append(only) += ": ";
    text += meaning.text;
  }
  std::string help = "Exit status:";
  for (const auto& [status, text] : texts) {
    help += "\n  " + std::to_string(status) + "  " + text;
  }
  return help;
}

}  // namespace vorn::launch
