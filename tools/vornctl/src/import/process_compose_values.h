#pragma once

#include <yaml-cpp/yaml.h>

#include <optional>
#include <string>
#include <vector>

#include "import/imported.h"
#include "launchfile/source_text.h"

namespace vorn::launch {

/// A command as a condition of vornrun, and the TCP port of an HTTP one.
struct ComposeProbe {
  std::string condition;
  std::string port;  // "tcp:HOST:PORT"; otherwise as `condition`
};

/// Reads the values of a configuration of process-compose. The functions throw
/// ImportError if a value is not correct.
class ComposeValues {
 public:
  /// Keeps a reference to the file, for the errors.
  explicit ComposeValues(const SourceText& file) : file_(file) {}

  /// Throws an error in the line of `node`.
  [[noreturn]] void fail(const YAML::Node& node,
                         const std::string& reason) const;

  // `key` is the name of the value in an error.
  std::string textOf(const YAML::Node& value, const std::string& key) const;
  double numberOf(const YAML::Node& value, const std::string& key) const;
  bool boolOf(const YAML::Node& value, const std::string& key) const;

  /// The mapping of a key; empty if it is missing.
  YAML::Node mapping(const YAML::Node& map, const char* key) const;

  /// Variables with '$' in their values become omitted settings.
  Assignments readEnvironment(const YAML::Node& list,
                              std::vector<Omitted>& omitted) const;

  /// Nothing for a probe of another kind.
  std::optional<ComposeProbe> readProbe(const YAML::Node& probe) const;

 private:
  const SourceText& file_;
};

}  // namespace vorn::launch
