// Prints the results of the launcher's own parser for launch files, one JSON
// document per line: parse_launch_files FILE... A file that aborts the launcher
// has the text of the exception. A separate process reads each file, because
// settings, the environment and the installation root live as long as the
// process.

#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <iostream>
#include <string>

#include <nlohmann/json.hpp>

#include "config.h"
#include "node_manager.h"
#include "parser.h"

namespace {

using Json = nlohmann::ordered_json;

Json jsonOf(const vorn::launch::Environment& environment) {
  Json list = Json::array();
  for (const auto& [name, value] : environment) list.push_back({name, value});
  return list;
}

Json jsonOf(const vorn::launch::Node& node) {
  return {{"name", node.name},
          {"argv", node.argv},
          {"environment", jsonOf(node.environment)},
          {"disabled", node.disabled},
          {"oneshot", node.oneshot},
          {"autostart", node.autostart},
          {"sleepMs", node.sleep},
          {"required", node.required}};
}

void parse(const std::string& path) {
  Json result = {{"file", path}, {"exception", nullptr}};
  try {
    (void)vorn::launch::Parser().Parse(path);
  } catch (const std::exception& failure) {
    result["exception"] = failure.what();
  }
  result["configure"] = jsonOf(vorn::launch::Config::getInstance().environment);
  result["nodes"] = Json::array();
  for (const auto& node : vorn::launch::NodeManager::getInstance().nodes()) {
    result["nodes"].push_back(jsonOf(*node));
  }
  std::cout << result.dump(-1, ' ', false,
                           nlohmann::json::error_handler_t::replace)
            << std::endl;
}

/// Whether the file was parsed, with any result.
bool parseApart(const std::string& path) {
  const pid_t child = ::fork();
  if (child == 0) {
    parse(path);
    ::_exit(0);
  }
  int status = 0;
  return child > 0 && ::waitpid(child, &status, 0) == child && status == 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    for (int i = 1; i < argc; ++i) {
      if (parseApart(argv[i])) continue;
      std::cerr << "cannot parse " << argv[i] << '\n';
      return 1;
    }
  } catch (const std::exception& failure) {
    std::cerr << failure.what() << '\n';
    return 1;
  }
  return 0;
}
