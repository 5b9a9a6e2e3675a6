#pragma once

#include <yaml-cpp/yaml.h>

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "node.h"
#include "vornlib/time.h"

namespace vorn::launch {

/// Returns `value` with every "install://" replaced by the installation root
/// and one slash: under the root /opt/x, "install://lib" is "/opt/x/lib".
std::string expandInstallRoot(std::string value);

/// Turns a launch file into nodes in the NodeManager and global settings in
/// Config. Holds nothing between calls; a second Parse() would register every
/// node again.
///
/// An invalid launch file throws yaml-cpp's exceptions (derived from
/// YAML::Exception), a directory the standard library's. The launcher does not
/// catch them and aborts before it starts a node. The nodes before the error
/// remain in the registry.
///
/// Where a mapping is expected, a null, a scalar or an empty sequence is read
/// as an empty mapping, but a scalar for the root, `configure` or a node throws
/// YAML::BadSubscript; a non-empty sequence for `vornnode` or an `environment`
/// throws YAML::InvalidNode. A value of the wrong type throws
/// YAML::BadConversion.
class Parser {
 public:
  /// The effect of each known key on a node.
  using KeyHandlers =
      std::map<std::string, std::function<void(const std::unique_ptr<Node>&,
                                               const YAML::Node&)>>;

  /// Reads the launch file at `path`. False, after one ERROR line, only if it
  /// cannot be opened; also true if it contains no nodes.
  bool Parse(const std::string& path);

  /// Reads the value of the top-level key `configure`.
  void parseConfigs(const YAML::Node& configure);

  /// Exports the variables of `configure`'s `environment` immediately into the
  /// launcher's own environment, and appends them to Config's.
  void parseSetenv(const YAML::Node& environment);

  /// Registers every node of the top-level key `vornnode`, in file order.
  void parseNodes(const YAML::Node& nodes);

  /// Registers the node `name` with its `description`. A node without `path` is
  /// dropped with a WARN line.
  void parseNode(const std::string& name, const YAML::Node& description,
                 const KeyHandlers& handlers);
};

}  // namespace vorn::launch
