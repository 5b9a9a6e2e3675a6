#include "parser.h"

#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "config.h"
#include "node_manager.h"
#include "vorn/launch_rules.h"
#include "vornlib/install_root.h"
#include "vornlib/path.h"
#include "vornlib/time.h"
#include "vornlib/trace.h"

namespace vorn::launch {
namespace {

/// The text of a scalar. yaml-cpp's own conversion would read a null, such as a
/// missing value, as the word "null"; here it is an error like a list.
std::string asString(const YAML::Node& value) {
  if (value.IsNull()) {
    throw YAML::TypedBadConversion<std::string>(value.Mark());
  }
  return value.as<std::string>();
}

/// The texts of a sequence of scalars; a null among them is an error.
std::vector<std::string> asStrings(const YAML::Node& value) {
  if (!value.IsSequence()) {
    throw YAML::TypedBadConversion<std::vector<std::string>>(value.Mark());
  }
  std::vector<std::string> strings;
  for (const auto& element : value) strings.push_back(asString(element));
  return strings;
}

/// The parts of `text` between spaces, without quoting; other white space is
/// kept.
std::vector<std::string> splitAtSpaces(std::string text) {
  std::vector<std::string> pieces;
  char* rest = nullptr;
  for (char* piece = ::strtok_r(text.data(), " ", &rest); piece != nullptr;
       piece = ::strtok_r(nullptr, " ", &rest)) {
    pieces.emplace_back(piece);
  }
  return pieces;
}

/// `path`, appended to VORN_BIN_PATH if it is relative and the variable is not
/// empty, without normalisation, and without the expansion of variables'
/// values.
std::string resolvePath(const std::string& path) {
  const char* const directory = ::getenv("VORN_BIN_PATH");
  const bool is_absolute = !path.empty() && path.front() == '/';
  if (is_absolute || directory == nullptr || *directory == '\0') return path;
  return std::string(directory) + '/' + path;
}

void readArgv(const std::unique_ptr<Node>& node, const YAML::Node& value) {
  for (std::string& piece : splitAtSpaces(asString(value))) {
    node->argv.push_back(std::move(piece));
  }
}

void readDisabled(const std::unique_ptr<Node>& node, const YAML::Node& value) {
  node->disabled = value.as<bool>();
}

void readOneshot(const std::unique_ptr<Node>& node, const YAML::Node& value) {
  node->oneshot = value.as<bool>();
}

void readSleep(const std::unique_ptr<Node>& node, const YAML::Node& value) {
  node->sleep = value.as<unsigned int>();
}

void readEnvironment(const std::unique_ptr<Node>& node,
                     const YAML::Node& value) {
  for (const auto& entry : value) {
    std::string variable = asString(entry.first);
    node->environment.emplace_back(std::move(variable),
                                   expandInstallRoot(asString(entry.second)));
  }
}

void readAutostart(const std::unique_ptr<Node>& node, const YAML::Node& value) {
  node->autostart = value.as<bool>();
}

void readRequired(const std::unique_ptr<Node>& node, const YAML::Node& value) {
  node->required = asStrings(value);
}

}  // namespace

std::string expandInstallRoot(std::string value) {
  return path::expandInstallPrefix(std::move(value), path::root);
}

bool Parser::Parse(const std::string& path) {
  // KEEP: no other exception is caught, here or in main: an invalid launch file
  // aborts the launcher before any node runs. Intended.
  // Test: test_launch_file.py,
  // test_an_invalid_document_aborts_the_launcher_before_any_node_is_read
  YAML::Node root;
  try {
    root = YAML::LoadFile(path);
  } catch (const YAML::BadFile& failure) {
    VTRACE(kError, kPlain, "Exception: %s", failure.what());
    return false;
  }
  // First the settings, in any position: they affect how nodes are read.
  if (const YAML::Node configure = root["configure"]) parseConfigs(configure);
  if (const YAML::Node nodes = root["vornnode"]) parseNodes(nodes);
  return true;
}

void Parser::parseConfigs(const YAML::Node& configure) {
  const YAML::Node environment = configure["environment"];
  if (environment) parseSetenv(environment);
}

void Parser::parseSetenv(const YAML::Node& environment) {
  Config& config = Config::getInstance();
  for (const auto& entry : environment) {
    const std::string variable = asString(entry.first);
    const std::string value = expandInstallRoot(asString(entry.second));
    config.environment.emplace_back(variable, value);
    // KEEP: a name that setenv refuses remains in the list; the child's setenv
    // refuses it, too. Intended.
    // Test: LaunchFileTest.ANameThatCannotBeExportedStaysInTheListAndTheLog
    (void)::setenv(variable.c_str(), value.c_str(), 1);
    VTRACE(kInfo, kPlain, "setenv %s: %s", variable.c_str(), value.c_str());
  }
}

void Parser::parseNodes(const YAML::Node& nodes) {
  // A new key of a node is a new row here. `path` is not in the table:
  // parseNode() reads it before all others.
  const KeyHandlers handlers = {
      {"argv", readArgv},
      {"disabled", readDisabled},
      {"oneshot", readOneshot},
      {"sleep", readSleep},
      {"environment", readEnvironment},
      {"autostart", readAutostart},
      {"required", readRequired},
  };
  for (const auto& entry : nodes) {
    parseNode(asString(entry.first), entry.second, handlers);
  }
}

void Parser::parseNode(const std::string& name, const YAML::Node& description,
                       const KeyHandlers& handlers) {
  auto node = std::make_unique<Node>(name);
  node->environment.emplace_back(kNodeNameVariable, name + kNodeNameSuffix);
  const YAML::Node path = description["path"];
  if (!path) {
    VTRACE(kWarn, kPlain, "No node's path!");
    return;
  }
  node->argv.push_back(resolvePath(asString(path)));
  // A repeated key is applied each time: lists grow, the last flag applies.
  for (const auto& entry : description) {
    const auto handler = handlers.find(asString(entry.first));
    if (handler != handlers.end()) handler->second(node, entry.second);
  }
  NodeManager::getInstance().addNode(name, std::move(node));
}

}  // namespace vorn::launch
