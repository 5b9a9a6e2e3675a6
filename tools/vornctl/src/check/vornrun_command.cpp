#include "check/vornrun_command.h"

#include <algorithm>

#include "output/text.h"
#include "run_options.h"

namespace vorn::launch {
namespace {

/// Whether the argument is an option of vornrun whose value is the next one.
bool takesNext(const std::string& argument) {
  if (!startsWith(argument, "--")) return false;
  if (argument == "--config") return true;
  const run::RunOption* const option = run::findRunOption(argument.substr(2));
  return option != nullptr && option->placeholder != nullptr;
}

/// The number of arguments up to the end of vornrun's options.
size_t countOfOptions(const std::vector<std::string>& arguments) {
  size_t i = 0;
  while (i < arguments.size() && arguments[i].size() > 1 &&
         arguments[i][0] == '-' && arguments[i] != "--") {
    i += takesNext(arguments[i]) ? 2 : 1;
  }
  return std::min(i, arguments.size());
}

/// Removes --config with its file. False if the option is missing.
bool removeConfig(std::vector<std::string>& arguments) {
  const size_t count = countOfOptions(arguments);
  for (size_t i = 0; i < count;
       i += takesNext(arguments[i]) ? size_t{2} : size_t{1}) {
    const bool has_value = startsWith(arguments[i], "--config=");
    if (arguments[i] != "--config" && !has_value) continue;
    const size_t end = std::min(i + (has_value ? 1 : 2), arguments.size());
    arguments.erase(arguments.begin() + static_cast<ptrdiff_t>(i),
                    arguments.begin() + static_cast<ptrdiff_t>(end));
    return true;
  }
  return false;
}

}  // namespace

bool runsVornrun(const LaunchFile::Node& node) {
  const std::string& path = node.path.value;
  return path.substr(path.rfind('/') + 1) == "vornrun";
}

VornrunCommand parseVornrun(const LaunchFile::Node& node, bool reads_files) {
  VornrunCommand command;
  std::vector<std::string> arguments = valuesOf(node.arguments);
  if (!reads_files) {
    // Further ones are errors that the parser reports.
    command.isComplete = !removeConfig(arguments);
  }
  command.parsed = run::parseRunArguments(arguments);
  if (command.isComplete) return command;
  auto& errors = command.parsed.errors;
  errors.erase(std::remove_if(errors.begin(), errors.end(),
                              [](const auto& error) {
                                return error.option.empty();  // no program
                              }),
               errors.end());
  return command;
}

SourceLocation argumentWith(const LaunchFile::Node& node,
                            const std::string& text) {
  const auto found = std::find_if(
      node.arguments.begin(), node.arguments.end(), [&](const Text& argument) {
        return !text.empty() && argument.value.find(text) != std::string::npos;
      });
  return found == node.arguments.end() ? node.path.location : found->location;
}

LaunchFile::Node wrappedNode(const LaunchFile::Node& node) {
  if (!runsVornrun(node)) return node;
  const VornrunCommand command = parseVornrun(node, false);
  const std::vector<std::string>& program = command.parsed.settings.program;
  if (program.empty()) return node;
  LaunchFile::Node wrapped = node;
  // The program and its arguments are the last arguments of vornrun.
  const auto begin =
      node.arguments.end() - static_cast<ptrdiff_t>(program.size());
  wrapped.path = *begin;
  wrapped.arguments.assign(begin + 1, node.arguments.end());
  return wrapped;
}

}  // namespace vorn::launch
