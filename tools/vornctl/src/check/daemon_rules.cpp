#include <algorithm>
#include <string>
#include <string_view>

#include "check/rules.h"
#include "check/vornrun_command.h"

namespace vorn::launch {
namespace {

/// A server that moves to the background by itself.
struct Server {
  std::string_view program;
  std::string_view background;  // options for this, with a space before and
                                // after each; empty: it is the default
  std::string_view foreground;  // option letters that keep it in the foreground
};

// Without servers that a configuration file can keep in the foreground, and
// without the options that name such a file.
constexpr Server kServers[] = {
    {"mosquitto", " -d --daemon ", ""},
    {"memcached", " -d --daemon ", ""},
    {"haproxy", " -D ", ""},
    {"hostapd", " -B ", ""},
    {"wpa_supplicant", " -B ", ""},
    {"avahi-daemon", " -D --daemonize ", ""},
    {"dbus-daemon", " --fork ", ""},
    {"nginx", "", "cgpsqtTvVh"},
    {"lighttpd", "", "DitpvVh1"},
    {"sshd", "", "DditTVG"},
    {"cron", "", "f"},
    {"rsyslogd", "", "nNv"},
    {"chronyd", "", "dnQqvhpU"},
    {"gpsd", "", "NhVl"},
};

std::string_view nameOf(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

bool isNo(const std::string& word) {
  return word == "no" || word == "false" || word == "off" || word == "0";
}

/// The option with which any program moves to the background; null if there is
/// none.
const Text* daemonizeOption(const std::vector<Text>& arguments) {
  for (size_t i = 0; i < arguments.size(); ++i) {
    const std::string& word = arguments[i].value;
    if (word == "--daemonize=yes" || word == "--daemonize=true") {
      return &arguments[i];
    }
    const bool is_denied =
        i + 1 < arguments.size() && isNo(arguments[i + 1].value);
    if (word == "--daemonize" && !is_denied) return &arguments[i];
  }
  return nullptr;
}

/// The option with which this server moves to the background; null if there is
/// none.
const Text* backgroundOption(const Server& server,
                             const std::vector<Text>& arguments) {
  const auto found =
      std::find_if(arguments.begin(), arguments.end(), [&](const Text& each) {
        return server.background.find(' ' + each.value + ' ') !=
               std::string_view::npos;
      });
  return found == arguments.end() ? nullptr : &*found;
}

/// Whether an option may keep this server in the foreground. Letters can be
/// combined, and the effect of a long option is not known.
bool hasForegroundOption(const Server& server,
                         const std::vector<Text>& arguments) {
  return std::any_of(arguments.begin(), arguments.end(), [&](const Text& each) {
    const std::string& word = each.value;
    return word.rfind("--", 0) == 0 ||
           (word[0] == '-' &&
            word.find_first_of(server.foreground) != std::string::npos);
  });
}

void checkDaemon(const LaunchFile::Node& node, Diagnostics& diagnostics) {
  const std::string end =
      " moves to the background; the launcher treats this as an exit and "
      "restarts node '" +
      node.name.value + "' every 5 s; run the program in the foreground";
  if (const Text* const option = daemonizeOption(node.arguments)) {
    diagnostics.add("daemonizes", option->location,
                    "with '--daemonize' the program" + end);
    return;
  }
  const std::string_view name = nameOf(node.path.value);
  for (const Server& server : kServers) {
    if (server.program != name) continue;
    if (server.background.empty()) {
      if (hasForegroundOption(server, node.arguments)) return;
      diagnostics.add(
          "daemonizes", node.path.location,
          "without other options, '" + std::string(name) + "'" + end);
    } else if (const Text* const option =
                   backgroundOption(server, node.arguments)) {
      diagnostics.add(
          "daemonizes", option->location,
          "with '" + option->value + "', '" + std::string(name) + "'" + end);
    }
  }
}

}  // namespace

void checkDaemons(const LaunchFile& file, Diagnostics& diagnostics) {
  for (const LaunchFile::Node& node : file.nodes) {
    // A oneshot is not restarted after its exit, so it can start a daemon.
    if (!node.oneshot.value) checkDaemon(wrappedNode(node), diagnostics);
  }
}

}  // namespace vorn::launch
