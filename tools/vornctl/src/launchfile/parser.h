#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "launchfile/source_text.h"

// A launch file as the launcher reads it, with the place of everything. What
// ends the launcher is a LoadError here; the reading goes on behind it, so that
// all are found at once.

namespace vorn::launch {

/// What the reading of a launch file depends on besides the file.
struct LauncherSurroundings {
  std::string binPath;  // VORN_BIN_PATH when the launcher starts, or empty
  std::string root;     // VORN_ROOT then, or empty
  // The folder above the one that holds the launcher's executable, which
  // "install://" stands for without VORN_ROOT; no slash at its end.
  std::string executableRoot;
};

/// Those of a launcher that is started like this process, with this environment
/// and from the folder of our own executable.
LauncherSurroundings ownSurroundings();

/// An exception that ends the launcher.
struct LoadError {
  std::string check;      // its name in the table of findings
  Place place;            // where a person has to mend it
  std::string message;    // for people
  std::string exception;  // as the launcher writes it
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
  Place place = {};
};

/// A node as the launcher has it. One with a fault holds what could be read.
struct ParsedNode {
  Text name;
  std::vector<Text> keys;   // of its description, in file order; empty texts
                            // for those that are none
  Text path;                // as written
  bool hasPath = false;     // it could be read
  std::string executable;   // argv[0], with VORN_BIN_PATH
  std::vector<Text> argvs;  // the values of `argv` as written
  std::vector<Text> arguments;        // argv[1] and so on
  std::vector<Variable> environment;  // behind the built-in entry
  Setting<bool> disabled{false};
  Setting<bool> oneshot{false};
  Setting<bool> autostart{true};
  Setting<uint32_t> sleepMs{0};
  std::vector<Text> required;
};

struct ParsedLaunchFile {
  std::vector<Text> keys;  // of the top level, as ParsedNode::keys
  std::vector<Text> configureKeys;
  std::vector<Variable> environment;  // of `configure`
  std::vector<ParsedNode> nodes;      // in file order
  std::vector<ParsedNode> dropped;    // without a path: name and keys alone
  std::vector<Text> ignored;          // values of a wrong kind that mean
                                      // nothing: which, and where
  std::vector<LoadError> loadErrors;  // the first one is what ends the launcher
  Place secondDocument;               // line 0: there is none
  Text otherLanguage;   // the language of a file that is not a launch file, and
                        // where its first line is; else empty
  std::string binPath;  // VORN_BIN_PATH when the nodes are read
  bool hasBinPath() const { return !binPath.empty(); }
};

/// The launch file expands to more than its limits, by aliases or "install://".
class TooLarge : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Of keys, names, arguments and other values, those of an alias once for each
// of its uses; and of the bytes in them.
constexpr size_t kMostValues = 1'000'000;
constexpr size_t kMostValueBytes = size_t{64} << 20U;

/// What the launcher adds to its name for the variable __VORN_NODE_NAME__.
std::string nodeNameValue(const std::string& name);

/// The keys of a node's description.
const std::vector<std::string>& nodeKeys();

/// Whether a name in 'vornnode' is a key that belongs into a description.
bool isNodeKey(const std::string& name);

/// Reads a launch file as a launcher in these surroundings does. Throws
/// TooLarge, or std::bad_alloc.
ParsedLaunchFile readAsLauncher(const SourceText& document,
                                const LauncherSurroundings& surroundings);

/// The environment's name of a variable for setenv(): up to a NUL. Empty if
/// setenv() refuses it.
std::string exportedName(const std::string& name);

}  // namespace vorn::launch
