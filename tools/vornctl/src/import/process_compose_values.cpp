#include "import/process_compose_values.h"

#include "output/text.h"

namespace vorn::launch {

void ComposeValues::fail(const YAML::Node& node,
                         const std::string& reason) const {
  throw ImportError(file_, node.Mark().line + 1, reason);
}

std::string ComposeValues::textOf(const YAML::Node& value,
                                  const std::string& key) const {
  if (value.IsScalar()) return value.Scalar();
  fail(value, key + " is not a text");
}

double ComposeValues::numberOf(const YAML::Node& value,
                               const std::string& key) const {
  double number = 0;
  if (value.IsScalar() && YAML::convert<double>::decode(value, number) &&
      number >= 0 && number <= 1e6) {
    return number;
  }
  fail(value, key + " is not a number");
}

bool ComposeValues::boolOf(const YAML::Node& value,
                           const std::string& key) const {
  bool result = false;
  if (value.IsScalar() && YAML::convert<bool>::decode(value, result)) {
    return result;
  }
  fail(value, key + " is not true or false");
}

YAML::Node ComposeValues::mapping(const YAML::Node& map,
                                  const char* key) const {
  const YAML::Node value = map[key];
  if (value && !value.IsMap() && !value.IsNull()) {
    fail(value, std::string(key) + " is not a mapping");
  }
  return value && value.IsMap() ? value : YAML::Node(YAML::NodeType::Map);
}

Assignments ComposeValues::readEnvironment(
    const YAML::Node& list, std::vector<Omitted>& omitted) const {
  Assignments variables;
  const auto add = [&](const std::string& name, const std::string& value) {
    if (value.find('$') == std::string::npos) {
      variables.emplace_back(name, value);
    } else {
      omitted.push_back({"environment " + name + "=" + value,
                         "write the value; nothing expands variables in it"});
    }
  };
  for (const auto& each : list) {
    if (list.IsMap()) {
      add(textOf(each.first, "a name"), textOf(each.second, "a variable"));
      continue;
    }
    const std::string text = textOf(each, "a variable");
    const size_t equals = text.find('=');
    if (equals == std::string::npos || equals == 0) {
      fail(each, "'" + text + "' is not NAME=VALUE");
    }
    add(text.substr(0, equals), text.substr(equals + 1));
  }
  return variables;
}

std::optional<ComposeProbe> ComposeValues::readProbe(
    const YAML::Node& probe) const {
  if (const YAML::Node exec = mapping(probe, "exec"); exec["command"]) {
    const std::string condition = "exec:" + textOf(exec["command"], "command");
    return ComposeProbe{condition, condition};
  }
  const YAML::Node http = mapping(probe, "http_get");
  if (!http["port"]) return std::nullopt;
  const auto value = [&](const char* key, const char* other) {
    return http[key] ? textOf(http[key], key) : std::string(other);
  };
  const std::string address =
      value("host", "127.0.0.1") + ":" + value("port", "");
  std::string path = value("path", "/");
  if (!startsWith(path, "/")) path.insert(0, "/");
  return ComposeProbe{value("scheme", "http") + "://" + address + path,
                      "tcp:" + address};
}

}  // namespace vorn::launch
