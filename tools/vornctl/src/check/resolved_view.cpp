#include "check/resolved_view.h"

#include <cstdio>
#include <set>

#include "launchfile/required_graph.h"
#include "output/json.h"
#include "output/table.h"
#include "vorn/launch_rules.h"

namespace vorn::launch {
namespace {

// Grows when a member changes its meaning or is removed, not when one is added.
constexpr int kResolvedSchema = 1;

/// A variable of a node's environment and its source.
struct EnvironmentEntry {
  std::string name;
  std::string value;
  std::string from;         // configure, launcher or node
  SourceLocation location;  // of the name; line 0 for the launcher's
  bool isOverwritten = false;
};

/// The variables that are added to the launcher's environment for a node, in
/// order.
std::vector<EnvironmentEntry> environmentOf(const LaunchFile& file,
                                            const LaunchFile::Node& node) {
  std::vector<EnvironmentEntry> entries;
  for (const Variable& variable : file.environment) {
    entries.push_back({variable.name.value, variable.value.value, "configure",
                       variable.name.location});
  }
  entries.push_back(
      {kNodeNameVariable, nodeNameValue(node.name.value), "launcher", {}});
  for (const Variable& variable : node.environment) {
    entries.push_back({variable.name.value, variable.value.value, "node",
                       variable.name.location});
  }
  std::set<std::string> later;
  for (auto each = entries.rbegin(); each != entries.rend(); ++each) {
    each->isOverwritten = !later.insert(exportedName(each->name)).second;
  }
  return entries;
}

OutputText lineOf(const SourceLocation& location) {
  return location.line == 0 ? "" : "line " + OutputText(location.line);
}

/// The source of argv[0].
OutputText sourceOfPath(const LaunchFile& file, const LaunchFile::Node& node) {
  const bool is_joined = node.executable != node.path.value;
  OutputText source = "path, " + lineOf(node.path.location);
  if (!is_joined) return source;
  source += ", below VORN_BIN_PATH";
  for (auto variable = file.environment.rbegin();
       variable != file.environment.rend(); ++variable) {
    if (exportedName(variable->name.value) == "VORN_BIN_PATH") {
      return source + ", " + lineOf(variable->name.location);
    }
  }
  return source + " of the environment";
}

OutputText flagsOf(const LaunchFile::Node& node) {
  OutputText flags;
  const auto add = [&](const OutputText& text, const SourceLocation& location) {
    if (location.line == 0) return;
    if (!flags.empty()) flags += ", ";
    flags += text + " (" + lineOf(location) + ")";
  };
  const auto add_bool = [&](const OutputText& key, const Setting<bool>& value) {
    add(key + terminalText(value.value ? " true" : " false"), value.location);
  };
  add_bool("disabled", node.disabled);
  add_bool("oneshot", node.oneshot);
  add_bool("autostart", node.autostart);
  add("sleep " + OutputText(node.sleepMs.value), node.sleepMs.location);
  return flags;
}

Json jsonOf(const Text& text) {
  return {{"value", text.value},
          {"line", text.location.line},
          {"column", text.location.column}};
}

template <typename T>
Json jsonOf(const Setting<T>& setting) {
  Json json = {{"value", setting.value}};
  json["line"] = orNull(setting.location.line);
  return json;
}

Json jsonOf(const LaunchFile& file, const LaunchFile::Node& node) {
  Json json = {{"name", node.name.value}, {"line", node.name.location.line}};
  json["argv"] = Json::array({{{"value", node.executable},
                               {"line", node.path.location.line},
                               {"column", node.path.location.column}}});
  for (const Text& text : node.arguments) json["argv"].push_back(jsonOf(text));
  json["environment"] = Json::array();
  for (const EnvironmentEntry& each : environmentOf(file, node)) {
    json["environment"].push_back({{"name", each.name},
                                   {"value", each.value},
                                   {"from", each.from},
                                   {"line", orNull(each.location.line)},
                                   {"overwritten", each.isOverwritten}});
  }
  json["disabled"] = jsonOf(node.disabled);
  json["oneshot"] = jsonOf(node.oneshot);
  json["autostart"] = jsonOf(node.autostart);
  json["sleepMs"] = jsonOf(node.sleepMs);
  json["effectiveSleepMs"] = effectiveSleepMs(node.sleepMs.value);
  json["required"] = Json::array();
  for (const Text& name : node.required) {
    json["required"].push_back(jsonOf(name));
  }
  return json;
}

OutputText secondsCell(uint64_t milliseconds) {
  char text[32];
  (void)std::snprintf(text, sizeof(text), "%llu.%03llu s",
                      static_cast<unsigned long long>(milliseconds / 1000),
                      static_cast<unsigned long long>(milliseconds % 1000));
  return terminalText(text);
}

}  // namespace

void printResolved(Output& out, const LaunchFile& file) {
  for (const LaunchFile::Node& node : file.nodes) {
    out << terminalText(node.name.value) << "  # " << lineOf(node.name.location)
        << "\n";
    Table table;
    table.rows.push_back({{"  argv"},
                          {terminalText(node.executable)},
                          {sourceOfPath(file, node), Colour::FAINT}});
    for (const Text& argument : node.arguments) {
      table.rows.push_back({{""},
                            {terminalText(argument.value)},
                            {"argv, " + lineOf(argument.location)}});
    }
    OutputText title = "  environment";
    for (const EnvironmentEntry& each : environmentOf(file, node)) {
      OutputText source = terminalText(each.from);
      if (each.location.line != 0) source += ", " + lineOf(each.location);
      if (each.isOverwritten) source += ", overwritten below";
      if (exportedName(each.name).empty()) source += ", cannot be set";
      table.rows.push_back(
          {{title}, {terminalText(each.name + '=' + each.value)}, {source}});
      title = "";
    }
    title = "  required";
    for (const Text& name : node.required) {
      table.rows.push_back(
          {{title}, {terminalText(name.value)}, {lineOf(name.location)}});
      title = "";
    }
    if (const OutputText flags = flagsOf(node); !flags.empty()) {
      table.rows.push_back({{"  flags"}, {flags}});
    }
    printAligned(out, table, false);
  }
}

void printResolvedAsJson(Output& out, const std::vector<LaunchFile>& files) {
  Json list = Json::array();
  for (const LaunchFile& file : files) {
    const bool loads = file.loadErrors.empty();
    Json json = {{"file", file.name}, {"loads", loads}};
    json["exception"] = loads ? Json() : Json(file.loadErrors[0].exception);
    json["configure"] = Json::array();
    for (const Variable& variable : file.environment) {
      json["configure"].push_back({{"name", variable.name.value},
                                   {"value", variable.value.value},
                                   {"line", variable.name.location.line}});
    }
    json["nodes"] = Json::array();
    for (const LaunchFile::Node& node : file.nodes) {
      json["nodes"].push_back(jsonOf(file, node));
    }
    json["dropped"] = Json::array();
    for (const LaunchFile::Node& node : file.dropped) {
      json["dropped"].push_back(
          {{"name", node.name.value}, {"line", node.name.location.line}});
    }
    list.push_back(std::move(json));
  }
  const Json document = {{"schema", kResolvedSchema},
                         {"files", std::move(list)}};
  out << jsonText(document);
}

void printTimeline(Output& out, const LaunchFile& file) {
  Table table;
  table.header = {"START", "NODE", "SLEEP", ""};
  uint64_t now = 0;
  for (const LaunchFile::Node& node : file.nodes) {
    const uint32_t sleep = effectiveSleepMs(node.sleepMs.value);
    const bool is_left_alone = node.disabled.value || !node.autostart.value;
    if (!is_left_alone) now += sleep;
    table.rows.push_back(
        {{is_left_alone ? "-" : secondsCell(now)},
         {terminalText(node.name.value)},
         {sleep == 0 ? "-" : secondsCell(sleep)},
         {terminalText(node.disabled.value     ? "disabled"
                       : !node.autostart.value ? "not started automatically"
                                               : "")}});
  }
  printAligned(out, table, false);
}

void printStopTimeout(Output& out, const LaunchFile& file) {
  const auto duration = RequiredGraph(file).stopOfAll();
  if (!duration) {
    out << "never\n";
    return;
  }
  out << std::chrono::ceil<std::chrono::seconds>(*duration).count() << "\n";
}

}  // namespace vorn::launch
