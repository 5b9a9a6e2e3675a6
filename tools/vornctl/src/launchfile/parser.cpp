#include "launchfile/parser.h"

#include <yaml-cpp/yaml.h>

#include <map>
#include <optional>

#include "launchfile/other_language.h"
#include "launchfile/yaml_text.h"
#include "output/text.h"
#include "vornlib/install_root.h"

namespace vorn::launch {
namespace {

/// Reads one document. It makes the launcher's calls of yaml-cpp in the same
/// order, so that the same calls fail.
class Reader {
 public:
  Reader(const SourceText& document, const LauncherEnvironment& environment)
      : document_(document), launcher_environment_(environment) {
    variables_[kBinPathVariable] = environment.binPath;
    variables_[kRootVariable] = environment.root;
    file_.name = document.name();
  }

  LaunchFile read() {
    YAML::Node root;
    try {
      root = YAML::Load(document_.text());
    } catch (const YAML::Exception& failure) {
      file_.loadErrors.push_back(syntaxError(document_, failure));
      file_.otherLanguage = otherLanguageOf(document_.text());
      return std::move(file_);
    }
    const bool is_list = root.IsSequence();  // the subscript makes it a map
    file_.secondDocument = findSecondDocument(root, document_.text());
    try {
      if (const YAML::Node configure = root["configure"]) {
        readConfigure(configure);
      }
      file_.binPath = variables_[kBinPathVariable];
      if (const YAML::Node nodes = root["vornnode"]) readNodes(nodes);
    } catch (const YAML::BadSubscript& failure) {
      addError(
          "scalar-for-mapping", locationOf(root.Mark()),
          "the file is " + kindOf(root) + ", not a mapping with 'vornnode'",
          failure);
    }
    if (is_list) ignore("the file", locationOf(root.Mark()));
    if (!is_list) file_.keys = keysOf(root);
    if (file_.keys.empty()) {
      file_.otherLanguage = otherLanguageOf(document_.text());
    }
    return std::move(file_);
  }

 private:
  /// A value, its location and its name in messages.
  struct Value {
    const YAML::Node& yaml;
    SourceLocation location;
    std::string name;
  };

  /// Counts a value of this size towards the limits.
  void count(size_t size) {
    bytes_ += size;
    if (++values_ <= kMostValues && bytes_ <= kMostValueBytes) return;
    throw TooLarge("with its aliases expanded, it has more than " +
                   std::to_string(kMostValues) + " values or " +
                   std::to_string(kMostValueBytes >> 20U) + " MiB of text");
  }

  Text counted(Text text) {
    count(text.value.size());
    return text;
  }

  void addError(const std::string& check, const SourceLocation& location,
                const std::string& message, const YAML::Exception& exception) {
    file_.loadErrors.push_back({check, location, message, exception.what()});
  }

  /// Adds the error of a value of the wrong kind: `problem` follows the value;
  /// `remedy` is the text to write if the value is missing.
  void addValueError(const Value& value, const std::string& check,
                     const std::string& problem, const std::string& remedy,
                     const YAML::Exception& exception) {
    if (value.yaml.IsNull()) {
      addError("null-value", value.location,
               "null value for " + value.name + "; write " + remedy, exception);
    } else {
      addError(check, value.location,
               value.name + " is " + kindOf(value.yaml) + problem, exception);
    }
  }

  void ignore(const std::string& what, const SourceLocation& location) {
    file_.ignored.push_back({what, location});
  }

  /// The keys of a mapping; none of anything else.
  std::vector<Text> keysOf(const YAML::Node& mapping) {
    std::vector<Text> keys;
    if (!mapping.IsMap()) return keys;
    for (const auto& entry : mapping) {
      const YAML::Node& key = entry.first;
      keys.push_back(counted(
          {key.IsScalar() ? key.Scalar() : "", locationOf(key.Mark())}));
    }
    return keys;
  }

  /// The text as the launcher reads it; nothing after an error.
  std::optional<std::string> readText(const Value& value) {
    if (value.yaml.IsScalar()) {
      count(value.yaml.Scalar().size());
      return value.yaml.Scalar();
    }
    addValueError(value, "not-a-text", ", but takes one value",
                  "\"\" for an empty value",
                  YAML::TypedBadConversion<std::string>(value.yaml.Mark()));
    return std::nullopt;
  }

  /// The key as the launcher reads it; nothing after an error.
  std::optional<Text> readKey(const YAML::Node& key, const std::string& what) {
    const SourceLocation location = locationOf(key.Mark());
    if (key.IsScalar()) return Text{key.Scalar(), location};
    const YAML::TypedBadConversion<std::string> exception(key.Mark());
    addError("not-a-key", location,
             what + " is " + (key.IsNull() ? "missing" : kindOf(key)),
             exception);
    return std::nullopt;
  }

  /// Calls `function` for each entry of a mapping as the launcher does: it
  /// treats a single value as an empty mapping, and fails at the first element
  /// of a list.
  template <typename Function>
  void forEachEntry(const YAML::Node& mapping, const SourceLocation& location,
                    const std::string& what, Function function) {
    if (mapping.IsScalar() || (mapping.IsSequence() && mapping.size() == 0)) {
      ignore(what, location);
      return;
    }
    for (const auto& entry : mapping) {
      try {
        (void)entry.first.IsNull();
      } catch (const YAML::InvalidNode& exception) {
        addError("list-for-mapping", location,
                 what + " is a list; write 'name: ...' without a dash",
                 exception);
        return;
      }
      function(entry.first, entry.second);
    }
  }

  void readConfigure(const YAML::Node& configure) {
    const SourceLocation location = locationOf(configure.Mark());
    const bool is_list = configure.IsSequence();
    try {
      const YAML::Node environment = configure["environment"];
      if (environment) readGlobalEnvironment(environment);
    } catch (const YAML::BadSubscript& exception) {
      addError("scalar-for-mapping", location,
               "'configure' is " + kindOf(configure) + ", not a mapping",
               exception);
    }
    if (is_list) ignore("'configure'", location);
    if (!is_list) file_.configureKeys = keysOf(configure);
  }

  void readGlobalEnvironment(const YAML::Node& environment) {
    forEachEntry(environment, locationOf(environment.Mark()), "'environment'",
                 [this](const YAML::Node& key, const YAML::Node& value) {
                   auto variable = readVariable(key, value);
                   if (!variable) return;
                   const std::string name = exportedName(variable->name.value);
                   if (!name.empty()) {
                     variables_[name] = untilNul(variable->value.value);
                   }
                   file_.environment.push_back(std::move(*variable));
                 });
  }

  std::optional<Variable> readVariable(const YAML::Node& key,
                                       const YAML::Node& value) {
    auto name = readKey(key, "the name of a variable");
    const std::string what =
        name ? "variable '" + name->value + "'" : "a variable";
    const SourceLocation location = locationOfValue(document_, key, value);
    const auto text = readText({value, location, what});
    if (!name || !text) return std::nullopt;
    count(name->value.size());
    return Variable{std::move(*name), {expand(*text), location}, *text};
  }

  std::string expand(const std::string& value) {
    return path::expandInstallPrefix(value, [this]() -> const std::string& {
      count(installRoot().size());
      return installRoot();
    });
  }

  /// Determined at the first use of the prefix, and then constant.
  const std::string& installRoot() {
    if (!install_root_) {
      auto root = path::rootFromVariable(variables_[kRootVariable]);
      if (!root)
        root = path::rootFromExecutable(launcher_environment_.executableRoot);
      install_root_ = root.value_or("");
    }
    return *install_root_;
  }

  void readNodes(const YAML::Node& nodes) {
    forEachEntry(nodes, locationOf(nodes.Mark()), "'vornnode'",
                 [this](const YAML::Node& key, const YAML::Node& value) {
                   auto name = readKey(key, "the name of a node");
                   if (!name) name = Text{"", locationOf(key.Mark())};
                   readNode(std::move(*name), key, value);
                 });
  }

  void readNode(Text name, const YAML::Node& key,
                const YAML::Node& description) {
    LaunchFile::Node node;
    node.name = counted(std::move(name));
    node.keys = keysOf(description);
    try {
      const YAML::Node path = description["path"];
      if (!path) {
        file_.dropped.push_back(std::move(node));
        return;
      }
      readPath(node, description, path);
    } catch (const YAML::BadSubscript& exception) {
      const std::string& owner = node.name.value;
      addError(
          "scalar-for-mapping", locationOfValue(document_, key, description),
          isNodeKey(owner) ? "'" + owner +
                                 "' is read as the name of a node; indent it "
                                 "below the name of its node"
                           : "node '" + owner + "' is " + kindOf(description) +
                                 ", not a mapping with 'path'",
          exception);
      return;
    }
    for (const auto& entry : description) {
      const auto key_text =
          readKey(entry.first, "a key of node '" + node.name.value + "'");
      if (!key_text) continue;
      const auto reader = kReaders.find(key_text->value);
      if (reader == kReaders.end()) continue;
      const SourceLocation location =
          locationOfValue(document_, entry.first, entry.second);
      const std::string value_name = "'" + key_text->value + "'";
      (this->*reader->second)(node, {entry.second, location, value_name});
    }
    file_.nodes.add(std::move(node));
  }

  void readPath(LaunchFile::Node& node, const YAML::Node& description,
                const YAML::Node& path) {
    SourceLocation location = locationOf(path.Mark());
    for (const auto& entry : description) {
      if (!entry.first.IsScalar() || entry.first.Scalar() != "path") continue;
      location = locationOfValue(document_, entry.first, entry.second);
      break;
    }
    const auto text = readText({path, location, "'path'"});
    node.path = {text.value_or(""), location};
    node.hasPath = text.has_value();
    const bool is_absolute = text && text->rfind('/', 0) == 0;
    const bool is_joined = !is_absolute && !file_.binPath.empty();
    node.executable = (is_joined ? file_.binPath + '/' : "") + node.path.value;
  }

  void readArgv(LaunchFile::Node& node, const Value& value) {
    const auto text = readText(value);
    if (!text) return;
    node.argvs.push_back({*text, value.location});
    for (std::string& argument : split(untilNul(*text), ' ')) {
      node.arguments.push_back(counted({std::move(argument), value.location}));
    }
  }

  template <Setting<bool> LaunchFile::Node::*kFlag>
  void readFlag(LaunchFile::Node& node, const Value& value) {
    try {
      node.*kFlag = {value.yaml.as<bool>(), value.location};
    } catch (const YAML::BadConversion& exception) {
      addValueError(value, "not-a-bool", ", not a bool; write true or false",
                    "true or false", exception);
    }
  }

  void readSleep(LaunchFile::Node& node, const Value& value) {
    try {
      node.sleepMs = {value.yaml.as<unsigned int>(), value.location};
    } catch (const YAML::BadConversion& exception) {
      addValueError(value, "not-a-number",
                    ", not a whole number of milliseconds from 0 to 4294967295",
                    "a number of milliseconds", exception);
    }
  }

  void readEnvironment(LaunchFile::Node& node, const Value& value) {
    forEachEntry(value.yaml, value.location, value.name,
                 [&](const YAML::Node& name, const YAML::Node& text) {
                   if (auto variable = readVariable(name, text)) {
                     node.environment.push_back(std::move(*variable));
                   }
                 });
  }

  void readRequired(LaunchFile::Node& node, const Value& value) {
    node.required.clear();
    if (!value.yaml.IsSequence()) {
      addValueError(value, "not-a-list", ", not a list; write [NAME]",
                    "[] for an empty list",
                    YAML::TypedBadConversion<std::vector<std::string>>(
                        value.yaml.Mark()));
      return;
    }
    for (const auto& element : value.yaml) {
      const SourceLocation location = locationOf(element.Mark());
      const auto text =
          readText({element, location, "an element of 'required'"});
      if (text) node.required.push_back({*text, location});
    }
  }

  using KeyReader = void (Reader::*)(LaunchFile::Node&, const Value&);
  static const std::map<std::string, KeyReader> kReaders;

  const SourceText& document_;
  const LauncherEnvironment& launcher_environment_;
  LaunchFile file_;
  std::map<std::string, std::string> variables_;  // of the launcher
  std::optional<std::string> install_root_;
  size_t values_ = 0;
  size_t bytes_ = 0;
};

const std::map<std::string, Reader::KeyReader> Reader::kReaders = {
    {"argv", &Reader::readArgv},
    {"disabled", &Reader::readFlag<&LaunchFile::Node::disabled>},
    {"oneshot", &Reader::readFlag<&LaunchFile::Node::oneshot>},
    {"sleep", &Reader::readSleep},
    {"environment", &Reader::readEnvironment},
    {"autostart", &Reader::readFlag<&LaunchFile::Node::autostart>},
    {"required", &Reader::readRequired},
};

}  // namespace

LaunchFile parseLaunchFile(const SourceText& document,
                           const LauncherEnvironment& environment) {
  return Reader(document, environment).read();
}

std::optional<LaunchFile> loadLaunchFile(const SourceText& document,
                                         const LauncherEnvironment& environment,
                                         std::string& error) {
  LaunchFile file;
  try {
    file = parseLaunchFile(document, environment);
  } catch (const TooLarge& failure) {
    error = "cannot read the launch file " + document.name() + ": " +
            failure.what();
    return std::nullopt;
  }
  if (!file.loadErrors.empty()) {
    error = "the launch file " + document.name() +
            " is invalid: " + file.loadErrors.front().exception;
    return std::nullopt;
  }
  file.nodes.removeRepeated();
  return file;
}

}  // namespace vorn::launch
