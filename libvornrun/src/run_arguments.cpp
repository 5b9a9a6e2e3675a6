#include "run_arguments.h"

#include <cstddef>
#include <optional>
#include <utility>

#include "file_text.h"
#include "run_options.h"

namespace vorn::run {
namespace {

constexpr char kConfigBlanks[] = " \t\r";

std::string withoutBlanks(std::string_view text) {
  const size_t begin = text.find_first_not_of(kConfigBlanks);
  if (begin == std::string_view::npos) return "";
  const size_t end = text.find_last_not_of(kConfigBlanks);
  return std::string(text.substr(begin, end - begin + 1));
}

/// The value between double quotes; nothing if they are not one closed pair.
std::optional<std::string> unquoted(const std::string& value) {
  std::string result;
  for (size_t i = 1; i < value.size(); ++i) {
    if (value[i] == '"') {
      return i + 1 == value.size() ? std::optional(result) : std::nullopt;
    }
    if (value[i] == '\\' && i + 1 < value.size()) ++i;
    result += value[i];
  }
  return std::nullopt;
}

/// Stores one setting; returns the reason if that is impossible.
std::string setFromConfig(RunSettings& settings, const std::string& name,
                          const std::string& value,
                          std::optional<std::string>& program,
                          std::vector<std::string>& arguments) {
  if (name == "exec") {
    if (program) return "given twice";
    if (value.empty()) return "the path of the program is missing";
    program = value;
    return "";
  }
  if (name == "arg") {
    arguments.push_back(value);
    return "";
  }
  const RunOption* const option = findRunOption(name);
  if (option == nullptr) return "unknown option";
  if (option->placeholder != nullptr) return option->set(settings, value);
  if (value != "yes" && value != "no") {
    return "'" + value + "' is not yes or no";
  }
  return value == "yes" ? option->set(settings, "") : "";
}

/// Reads one command line from its start.
class CommandLine {
 public:
  explicit CommandLine(const std::vector<std::string>& arguments)
      : arguments_(arguments) {}

  RunArguments parse() {
    if (readOptions(true)) {
      if (!result_.configFile.empty()) readConfigFile();
      (void)readOptions(false);
    }
    if (result_.request == RunArguments::Request::EXECUTE &&
        result_.errors.empty() && result_.settings.program.empty()) {
      fail("", "the program is missing");
    }
    return std::move(result_);
  }

 private:
  void fail(const std::string& option, std::string reason) {
    result_.errors.push_back({option, std::move(reason)});
  }

  /// Reads all options and the program. The first pass only looks for --config
  /// and errors in the form, since the file precedes the command line. Returns
  /// false at the end of a run without settings: an error, --help.
  bool readOptions(bool is_first_pass) {
    position_ = 0;
    while (position_ < arguments_.size()) {
      const std::string& argument = arguments_[position_];
      if (argument == "--") {
        ++position_;
        break;
      }
      if (argument.size() < 2 || argument[0] != '-') break;
      ++position_;
      if (!readOption(argument, is_first_pass)) return false;
    }
    if (!is_first_pass && position_ < arguments_.size()) {
      result_.settings.program.assign(
          arguments_.begin() + static_cast<ptrdiff_t>(position_),
          arguments_.end());
    }
    return true;
  }

  bool readOption(const std::string& argument, bool is_first_pass) {
    const size_t equals = argument.find('=');
    const std::string given = argument.substr(0, equals);
    if (given == "-h" || given == "--help" || given == "--version") {
      result_.request = given == "--version" ? RunArguments::Request::VERSION
                                             : RunArguments::Request::HELP;
      return false;
    }
    const bool is_config = given == "--config";
    const RunOption* const option =
        given.substr(0, 2) == "--" ? findRunOption(given.substr(2)) : nullptr;
    if (!is_config && option == nullptr) {
      fail(given, "unknown option; vornrun --help lists the options");
      return false;
    }
    const bool needs_value = is_config || option->placeholder != nullptr;
    std::string value;
    if (equals != std::string::npos) {
      value = argument.substr(equals + 1);
    } else if (needs_value && position_ < arguments_.size()) {
      value = arguments_[position_++];
    } else if (needs_value) {
      fail(given, "the value is missing");
      return false;
    }
    if (!needs_value && equals != std::string::npos) {
      fail(given, "the option has no value");
      return false;
    }
    if (is_config && is_first_pass) result_.configFile = value;
    if (is_config || is_first_pass) return true;
    const std::string reason = option->set(result_.settings, value);
    if (!reason.empty()) fail(given, reason);
    return true;
  }

  void readConfigFile() {
    const FileText file = readFileText(result_.configFile);
    if (!file.error.empty()) {
      return fail("--config",
                  "cannot read " + result_.configFile + ": " + file.error);
    }
    result_.errors =
        parseRunConfig(file.text, result_.configFile, result_.settings);
  }

  const std::vector<std::string>& arguments_;
  size_t position_ = 0;
  RunArguments result_;
};

}  // namespace

std::vector<RunError> parseRunConfig(std::string_view text,
                                     const std::string& file,
                                     RunSettings& settings) {
  std::vector<RunError> errors;
  std::optional<std::string> program;
  std::vector<std::string> arguments;
  size_t number = 0;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    const std::string line = withoutBlanks(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    ++number;
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    const std::string place = file + ":" + std::to_string(number);
    const size_t equals = line.find('=');
    if (equals == std::string::npos || line.find('\0') != std::string::npos) {
      errors.push_back({place, "the line is not 'option = value'"});
      continue;
    }
    const std::string name = withoutBlanks(line.substr(0, equals));
    std::optional<std::string> value = withoutBlanks(line.substr(equals + 1));
    if (value->substr(0, 1) == "\"") value = unquoted(*value);
    const std::string reason =
        value ? setFromConfig(settings, name, *value, program, arguments)
              : "the double quotes are not one closed pair";
    if (reason.empty()) continue;
    errors.push_back({std::string(place).append(": ").append(name), reason});
  }
  if (!program && !arguments.empty()) {
    errors.push_back({file, "'arg' without 'exec'"});
  }
  if (program) {
    settings.program = std::move(arguments);
    settings.program.insert(settings.program.begin(), *program);
  }
  return errors;
}

RunArguments parseRunArguments(const std::vector<std::string>& arguments) {
  return CommandLine(arguments).parse();
}

}  // namespace vorn::run
