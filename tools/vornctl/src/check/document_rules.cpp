#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "check/foreign_keys.h"
#include "check/rules.h"
#include "output/edit_distance.h"

namespace vorn::launch {
namespace {

const std::vector<std::string> kRootKeys = {"configure", "vornnode"};
const std::vector<std::string> kConfigureKeys = {"environment"};
using Advice = const char* (*)(const std::string&);

/// The end of the message about an unknown key: the known key that it resembles
/// or `advice`, if there is any.
std::string hintFor(const std::string& key,
                    const std::vector<std::string>& known, Advice advice) {
  const std::string normalized = normalizedKey(key);
  const bool is_known =
      std::find(known.begin(), known.end(), normalized) != known.end();
  const char* const other =
      is_known || advice == nullptr ? nullptr : advice(normalized);
  if (other != nullptr) return std::string("; ") + other;
  const std::string near = is_known ? normalized : nearestOf(known, normalized);
  return near.empty() ? "" : "; did you mean '" + near + "'?";
}

/// Whether this is a key at the top level that users may add, as for anchors.
bool isPrivate(const std::string& key) { return key.rfind("x-", 0) == 0; }

void checkUnknown(const std::vector<Text>& keys, const std::string& owner,
                  const std::vector<std::string>& known, Advice advice,
                  Diagnostics& diagnostics) {
  for (const Text& key : keys) {
    if (std::find(known.begin(), known.end(), key.value) != known.end()) {
      continue;
    }
    if (key.value == "<<") {
      diagnostics.add("merge-key", key.location,
                      "'<<' is ignored like any unknown key; repeat the keys "
                      "that it would merge");
      continue;
    }
    diagnostics.add("unknown-key", key.location,
                    "unknown key '" + key.value + "' " + owner + " is ignored" +
                        hintFor(key.value, known, advice));
  }
}

/// The effect of a key that appears in a node again.
std::string ofRepeatedKey(const std::string& key) {
  if (key == "path") return "the first one is used, this one is ignored";
  if (key == "argv") return "its arguments are added to the previous ones";
  if (key == "environment")
    return "its variables are added to the previous ones";
  return "this one replaces the previous one";
}

void checkRepeated(const std::vector<Text>& keys, const std::string& owner,
                   const std::vector<std::string>& known,
                   Diagnostics& diagnostics) {
  std::map<std::string, SourceLocation> first;
  for (const Text& key : keys) {
    const auto [before, is_new] = first.emplace(key.value, key.location);
    bool is_known = false;
    for (const std::string& each : known) is_known |= each == key.value;
    if (is_new || !is_known) continue;
    diagnostics.add(
        "repeated-key", key.location,
        "repeated '" + key.value + "' " + owner + ": " +
            ofRepeatedKey(key.value),
        {{before->second, "the first '" + key.value + "' is here"}});
  }
}

void checkSections(const LaunchFile& file, Diagnostics& diagnostics) {
  std::map<std::string, SourceLocation> first;
  std::vector<Text> others;
  for (const Text& key : file.keys) {
    if (!isPrivate(key.value)) others.push_back(key);
    const auto [before, is_new] = first.emplace(key.value, key.location);
    if (is_new || (key.value != "vornnode" && key.value != "configure")) {
      continue;
    }
    diagnostics.add(
        "repeated-section", key.location,
        "a second '" + key.value +
            "' is ignored with its content; move the content to the first one",
        {{before->second, "the first one is here"}});
  }
  checkUnknown(others, "at the top level", kRootKeys, adviceForRootKey,
               diagnostics);
  checkUnknown(file.configureKeys, "in 'configure'", kConfigureKeys, nullptr,
               diagnostics);
  SourceLocation environment;
  for (const Text& key : file.configureKeys) {
    if (key.value != "environment") continue;
    if (environment.line == 0) {
      environment = key.location;
      continue;
    }
    diagnostics.add(
        "repeated-key", key.location,
        "repeated 'environment' in 'configure': the first one is used, "
        "this one is ignored",
        {{environment, "the first 'environment' is here"}});
  }
}

void checkKeys(const LaunchFile::Node& node, Diagnostics& diagnostics) {
  const std::string owner = "in node '" + node.name.value + "'";
  checkUnknown(node.keys, owner, nodeKeys(), adviceForNodeKey, diagnostics);
  checkRepeated(node.keys, owner, nodeKeys(), diagnostics);
}

}  // namespace

void checkDocument(const LaunchFile& file, Diagnostics& diagnostics) {
  if (const Text& language = file.otherLanguage; !language.value.empty()) {
    diagnostics.add("other-language", language.location,
                    "this looks like " + language.value +
                        "; a launch file is YAML with nodes in 'vornnode'");
    return;
  }
  for (const LoadError& loadError : file.loadErrors) {
    diagnostics.add(loadError.check, loadError.location, loadError.message);
  }
  if (!file.loadErrors.empty() && file.loadErrors[0].check == "syntax") return;
  if (file.secondDocument.line != 0) {
    diagnostics.add("second-document", file.secondDocument,
                    "text after the first document is not read; a launch file "
                    "is one document");
  }
  for (const Text& value : file.ignored) {
    diagnostics.add(
        "ignored-value", value.location,
        "this is not a mapping; " + value.value + " is treated as empty");
  }
  checkSections(file, diagnostics);
  for (const LaunchFile::Node& node : file.nodes) checkKeys(node, diagnostics);
  for (const LaunchFile::Node& node : file.dropped) {
    checkKeys(node, diagnostics);
  }
  if (file.nodes.empty() && file.loadErrors.empty()) {
    diagnostics.add(
        "no-nodes", {1, 1},
        "this file has no nodes: the launcher runs, but starts nothing");
  }
}

}  // namespace vorn::launch
