#include "cli/usage_errors.h"

#include <vector>

#include "output/edit_distance.h"
#include "output/output.h"

namespace vorn::launch {

const CLI::Option* findOption(const CLI::App& app, const std::string& name) {
  if (const CLI::Option* const own = app.get_option_no_throw(name)) return own;
  for (const CLI::App* const command : app.get_subcommands({})) {
    if (const auto* const found = command->get_option_no_throw(name)) {
      return found;
    }
  }
  return nullptr;
}

const CLI::App* findCommand(const CLI::App& app, const std::string& name) {
  const auto found = app.get_subcommands(
      [&](const CLI::App* each) { return each->get_name() == name; });
  return found.empty() ? nullptr : found.front();
}

std::string describeError(const CLI::App& app, const CLI::ParseError& error) {
  // CLI11 reports a missing command before options that it does not know.
  const bool lacks_command =
      dynamic_cast<const CLI::RequiredError*>(&error) != nullptr &&
      app.get_subcommands().empty();
  if (!lacks_command) return error.what();
  const std::vector<std::string> rest = app.remaining();
  if (rest.empty()) return "no command given";
  for (const std::string& option : rest) {
    const std::string name = option.substr(0, option.find('='));
    if (findOption(app, name) != nullptr) continue;
    return "unknown option '" + option + "'";
  }
  return "no command given for '" + rest.front() + "'";
}

void printUsageError(const std::string& message) {
  standardError() << "vornctl: " << terminalText(message)
                  << "\nTry 'vornctl --help'.\n";
}

void printUnknownCommand(const CLI::App& app, const std::string& word) {
  std::vector<std::string> names;
  for (const CLI::App* const command : app.get_subcommands({})) {
    names.push_back(command->get_name());
  }
  const std::string nearest = nearestOf(names, word);
  printUsageError("unknown command '" + word + "'" +
                  (nearest.empty() ? "" : "; did you mean '" + nearest + "'?"));
}

}  // namespace vorn::launch
