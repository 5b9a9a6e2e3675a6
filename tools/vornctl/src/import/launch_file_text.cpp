#include "import/launch_file_text.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <sstream>

#include "output/text.h"

namespace vorn::launch {
namespace {

constexpr char kVornrun[] = "/usr/bin/vornrun";
constexpr char kConfigDirectory[] = "/etc/vornlaunch/";
constexpr char kOfNode[] = "  ";  // the indentation of a node

/// One line. terminalText() escapes invisible characters as "\x1b", which a
/// YAML text in double quotes decodes again.
OutputText yamlLine(const std::string& text) {
  return terminalText(text) + "\n";
}

bool isWordCharacter(char character) {
  return std::isalnum(static_cast<unsigned char>(character)) != 0 ||
         std::string_view("_/.-").find(character) != std::string_view::npos;
}

/// Whether YAML reads the text as itself without quotes.
bool isPlain(const std::string& text) {
  static const std::string allowed = "_/.,:=@%+ -";
  if (text.empty() || lowerCase(text) == "null") return false;
  if (!isWordCharacter(text.front()) || text == "-" || text[0] == ' ' ||
      startsWith(text, "- ") || startsWith(text, "---")) {
    return false;
  }
  if (text.back() == ' ' || text.back() == ':') return false;
  if (text.find(": ") != std::string::npos) return false;
  return std::all_of(text.begin(), text.end(), [](char character) {
    return std::isalnum(static_cast<unsigned char>(character)) != 0 ||
           allowed.find(character) != std::string::npos;
  });
}

/// The text in double quotes, for YAML and for vornrun's configuration file.
std::string inDoubleQuotes(const std::string& text) {
  std::string result = "\"";
  for (const char character : text) {
    if (character == '"' || character == '\\') result += '\\';
    result += character;
  }
  return result + '"';
}

/// The text in double quotes for YAML. Characters of several bytes that
/// terminalText() would escape byte by byte are escaped as a whole.
std::string yamlQuoted(const std::string& text) {
  const std::string quoted = inDoubleQuotes(text);
  std::string result;
  for (size_t i = 0; i < quoted.size();) {
    const auto lead = static_cast<unsigned char>(quoted[i]);
    const size_t length = lead < 0xc0   ? 1
                          : lead < 0xe0 ? 2
                          : lead < 0xf0 ? 3
                                        : 4;
    const std::string bytes = quoted.substr(i, length);
    i += length;
    if (length == 1 || terminalText(bytes).str() == bytes) {
      result += bytes;
      continue;
    }
    uint32_t code = lead & (0x7fU >> length);
    for (size_t k = 1; k < bytes.size(); ++k) {
      code = code << 6U | (static_cast<unsigned char>(bytes[k]) & 0x3fU);
    }
    char escaped[12];
    std::snprintf(escaped, sizeof(escaped), "\\U%08X", code);
    result += escaped;
  }
  return result;
}

std::string yamlText(const std::string& text) {
  return isPlain(text) ? text : yamlQuoted(text);
}

/// The name of a variable or node as a key, or in a list.
std::string yamlKey(const std::string& text) {
  const bool is_word = std::all_of(text.begin(), text.end(), isWordCharacter);
  return is_word ? yamlText(text) : yamlQuoted(text);
}

/// Whether the launcher passes this argument of an `argv` unchanged, and
/// without a warning of the checker.
bool isArgument(const std::string& text) {
  return !text.empty() &&
         std::none_of(text.begin(), text.end(), [](char character) {
           return static_cast<unsigned char>(character) <= ' ' ||
                  character == '"' || character == '\'';
         });
}

bool hasLineEnd(const std::vector<std::string>& texts) {
  return std::any_of(texts.begin(), texts.end(), [](const std::string& text) {
    return text.find('\n') != std::string::npos;
  });
}

/// The name of a file for a node.
std::string fileFor(const ImportedNode& node, const char* ending) {
  std::string name;
  for (const char character : node.name) {
    if (isWordCharacter(character) && character != '/') {
      name += character;
    } else {
      char escaped[4];
      std::snprintf(escaped, sizeof(escaped), "%%%02X",
                    static_cast<unsigned char>(character));
      name += escaped;
    }
  }
  return kConfigDirectory + name + ending;
}

/// A value in vornrun's configuration file.
std::string configValue(const std::string& text) {
  const bool is_bare = isArgument(text) && text.find('\\') == std::string::npos;
  return is_bare ? text : inDoubleQuotes(text);
}

/// The options of vornrun and the program as the lines of a configuration file.
std::vector<std::string> configLines(const ImportedNode& node) {
  std::vector<std::string> lines;
  for (const auto& [name, value] : node.options) {
    lines.push_back(name + " = " +
                    (value.empty() ? "yes" : configValue(value)));
  }
  lines.push_back("exec = " + configValue(node.program));
  for (const std::string& argument : node.arguments) {
    lines.push_back("arg = " + configValue(argument));
  }
  return lines;
}

/// The command as an argv of vornrun; nothing in it has a blank.
std::vector<std::string> vornrunArguments(const ImportedNode& node) {
  std::vector<std::string> arguments;
  for (const auto& [name, value] : node.options) {
    arguments.push_back("--" + name);
    if (!value.empty()) arguments.push_back(value);
  }
  arguments.emplace_back("--");
  arguments.push_back(node.program);
  arguments.insert(arguments.end(), node.arguments.begin(),
                   node.arguments.end());
  return arguments;
}

std::string joinedWords(const std::vector<std::string>& words,
                        const char* separator) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : separator) + word;
  }
  return text;
}

OutputText commentOf(const std::string& indentation, const std::string& text) {
  return yamlLine(indentation + "# " + text);
}

/// The comments about settings; those with the same reason are a list.
OutputText commentsOn(const std::vector<Omitted>& omitted,
                      const std::string& indentation) {
  OutputText text;
  for (size_t i = 0; i < omitted.size(); ++i) {
    const auto is_same = [&](const Omitted& other) {
      return other.reason == omitted[i].reason;
    };
    const auto here = omitted.begin() + static_cast<ptrdiff_t>(i);
    if (std::any_of(omitted.begin(), here, is_same)) continue;
    const auto count = std::count_if(here, omitted.end(), is_same);
    if (omitted[i].setting.empty()) {
      text += commentOf(indentation, omitted[i].reason);
    } else if (count == 1) {
      text +=
          commentOf(indentation, omitted[i].setting + ": " + omitted[i].reason);
    } else {
      text += commentOf(indentation, omitted[i].reason + ":");
      for (const Omitted& each : omitted) {
        if (is_same(each)) text += commentOf(indentation, "  " + each.setting);
      }
    }
  }
  return text;
}

OutputText fileComment(const std::string& file, const std::string& purpose,
                       const std::vector<std::string>& lines) {
  OutputText text = commentOf(kOfNode, "Create " + file + purpose + ":");
  for (const std::string& line : lines) {
    text += commentOf(kOfNode, "  " + line);
  }
  return text;
}

OutputText environmentText(const Assignments& environment,
                           const std::string& indentation) {
  if (environment.empty()) return {};
  OutputText text = yamlLine(indentation + "environment:");
  for (const auto& [name, value] : environment) {
    text +=
        yamlLine(indentation + "  " + yamlKey(name) + ": " + yamlText(value));
  }
  return text;
}

/// A command whose arguments have line ends, which only a script can have.
OutputText replaceByScript(ImportedNode& node) {
  std::string command = "exec " + shellArgument(node.program);
  for (const std::string& argument : node.arguments) {
    command += " '";
    for (const char character : argument) {
      command += character == '\'' ? "'\\''" : std::string(1, character);
    }
    command += "'";
  }
  std::vector<std::string> lines = {"#!/bin/sh"};
  std::istringstream text(command);
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  node.program = fileFor(node, ".sh");
  node.arguments.clear();
  return fileComment(node.program, " and make it executable", lines);
}

OutputText nodeText(ImportedNode node) {
  OutputText text = commentsOn(node.omitted, kOfNode);
  if (hasLineEnd(node.arguments)) text += replaceByScript(node);
  std::string program = node.program;
  std::vector<std::string> arguments = node.arguments;
  std::vector<std::string> all = vornrunArguments(node);
  if (!std::all_of(all.begin(), all.end(), isArgument)) {
    const std::string file = fileFor(node, ".conf");
    text += fileComment(file, ", since argv has no quotes", configLines(node));
    program = kVornrun;
    arguments = {"--config", file};
  } else if (!node.options.empty()) {
    program = kVornrun;
    arguments = std::move(all);
  }
  text += yamlLine("  " + yamlKey(node.name) + ":");
  text += yamlLine("    path: " + yamlText(program));
  if (!arguments.empty()) {
    text += yamlLine("    argv: " + yamlText(joinedWords(arguments, " ")));
  }
  text += environmentText(node.environment, "    ");
  if (!node.isStarted) text += yamlLine("    autostart: false");
  if (node.isOneshot) text += yamlLine("    oneshot: true");
  if (node.required.empty()) return text;
  std::vector<std::string> names;
  for (const std::string& name : node.required) names.push_back(yamlKey(name));
  return text + yamlLine("    required: [" + joinedWords(names, ", ") + "]");
}

}  // namespace

OutputText launchFileText(const Imported& imported,
                          const std::string& heading) {
  OutputText text = commentOf("", heading);
  text += commentsOn(imported.omitted, "");
  if (!imported.environment.empty()) {
    text += "configure:\n" + environmentText(imported.environment, "  ");
  }
  if (imported.nodes.empty()) return text + "vornnode: {}\n";
  text += "vornnode:\n";
  for (const ImportedNode& node : imported.nodes) text += nodeText(node);
  return text;
}

}  // namespace vorn::launch
