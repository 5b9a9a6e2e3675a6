#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "launchfile/source_text.h"

// The content of a launch file as the launcher uses it, with the location of
// each part and every error that terminates the launcher.

namespace vorn::launch {

/// An exception that terminates the launcher.
struct LoadError {
  std::string check;        // its name in the table of diagnostics
  SourceLocation location;  // where the user has to fix it
  std::string message;      // for users
  std::string exception;    // as the launcher writes it
};

/// A variable of an `environment`.
struct Variable {
  Text name;
  Text value;           // "install://" expanded
  std::string written;  // the value before that
};

/// A bool or a number of a node; line 0 if the file does not set it.
template <typename T>
struct Setting {
  T value;
  SourceLocation location = {};
};

struct LaunchFile {
  /// A node as the launcher would hold it. After a load error only the parts
  /// that could be read are set.
  struct Node {
    Text name;
    std::vector<Text> keys;  // of its description, in file order; an empty text
                             // for a key that is not a scalar
    Text path;               // as written
    bool hasPath = false;    // it could be read
    std::string executable;  // argv[0], with VORN_BIN_PATH; may be relative to
                             // the launcher's working directory
    std::vector<Text> argvs;            // the values of `argv` as written
    std::vector<Text> arguments;        // argv[1] and so on
    std::vector<Variable> environment;  // after the built-in entry
    Setting<bool> disabled{false};
    Setting<bool> oneshot{false};
    Setting<bool> autostart{true};
    Setting<uint32_t> sleepMs{0};  // before each start
    std::vector<Text> required;
  };

  /// Nodes in file order. A lookup by name takes constant time.
  class Nodes {
   public:
    void add(Node node);
    size_t size() const { return nodes_.size(); }
    bool empty() const { return nodes_.empty(); }
    const Node& operator[](size_t index) const { return nodes_[index]; }
    std::vector<Node>::const_iterator begin() const { return nodes_.begin(); }
    std::vector<Node>::const_iterator end() const { return nodes_.end(); }

    /// The index of the first node of this name; nothing if no node has it.
    std::optional<size_t> indexOf(const std::string& node_name) const;

    /// Removes the nodes that no request can control, since another node of
    /// their name is before them.
    void removeRepeated();

   private:
    std::vector<Node> nodes_;
    std::unordered_map<std::string, size_t> index_;  // of each name
  };

  std::string name;        // of the source text
  std::vector<Text> keys;  // of the top level, as Node::keys
  std::vector<Text> configureKeys;
  std::vector<Variable> environment;  // of `configure`
  Nodes nodes;
  std::vector<Node> dropped;          // without a path: only name and keys
  std::vector<Text> ignored;          // values of a wrong kind that have no
                                      // effect: their description and location
  std::vector<LoadError> loadErrors;  // the first one terminates the launcher
  SourceLocation secondDocument;      // line 0: none
  Text otherLanguage;   // the language of a file that is not a launch file, and
                        // the location of its first line; otherwise empty
  std::string binPath;  // VORN_BIN_PATH when the nodes are read

  /// The node that a request with this name controls, the first of that name;
  /// null if no node has it. Borrowed.
  const Node* find(const std::string& node_name) const;
};

/// The value of __VORN_NODE_NAME__ for the node `name`.
std::string nodeNameValue(const std::string& name);

/// The keys of a node's description.
const std::vector<std::string>& nodeKeys();

/// Whether a name in 'vornnode' is a key of a node's description.
bool isNodeKey(const std::string& name);

/// The name that setenv() uses for a variable: up to its first NUL. Empty if
/// setenv() refuses it.
std::string exportedName(const std::string& name);

}  // namespace vorn::launch
