// Files and command lines of any content as the settings of vornrun. The
// correct result: a valid text, written again in the quoted form of its
// grammar, has the same meaning.
//
// Input: a byte that selects the kind, then the text; the words of a command
// line end with NUL.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "account.h"
#include "environment_file.h"
#include "process/control_group.h"
#include "process/environment.h"
#include "run_arguments.h"
#include "start/network.h"
#include "start/start_history.h"
#include "support/check.h"
#include "support/input.h"

namespace vorn::fuzz {
namespace {

/// `text` in double quotes, with a backslash before each of `special`.
std::string quoted(const std::string& text, std::string_view special) {
  std::string result = "\"";
  for (const char c : text) {
    if (special.find(c) != std::string_view::npos) result += '\\';
    result += c;
  }
  return result + '"';
}

void checkConfig(std::string_view text) {
  run::RunSettings settings;
  if (!run::parseRunConfig(text, "f", settings).empty()) return;
  if (settings.program.empty()) return;
  std::string again = "exec = " + quoted(settings.program[0], "\"\\") + "\n";
  for (size_t i = 1; i < settings.program.size(); ++i) {
    again += "arg = " + quoted(settings.program[i], "\"\\") + "\n";
  }
  run::RunSettings repeated;
  check(run::parseRunConfig(again, "f", repeated).empty() &&
            repeated.program == settings.program,
        "a program in quotes is the same program");
}

void checkEnvironmentFile(std::string_view text) {
  const run::EnvironmentFile file = run::parseEnvironmentFile(text);
  if (!file.error.empty()) return;
  std::string again;
  for (const auto& [name, value] : file.variables) {
    check(run::isVariableName(name), "a name is valid");
    again += name + "=" + quoted(value, "\"\\`$") + "\n";
  }
  check(run::parseEnvironmentFile(again).variables == file.variables,
        "variables in quotes are the same variables");
}

void checkExpansion(const std::string& text) {
  run::Environment environment;
  environment.set("A", text.substr(0, text.find('\0')));
  std::string doubled;
  for (const char c : text) doubled += c == '$' ? "$$" : std::string(1, c);
  std::string missing;
  check(run::expandVariables(doubled, environment, missing) == text,
        "two dollars are one");
  (void)run::expandVariables(text, environment, missing);
}

void checkCommandLine(Input& input) {
  std::vector<std::string> words;
  while (!input.empty()) {
    words.push_back(input.text());
    // No other files are read.
    if (words.back().substr(0, 8) == "--config") words.pop_back();
  }
  const run::RunArguments parsed = run::parseRunArguments(words);
  check(parsed.request != run::RunArguments::Request::EXECUTE ||
            !parsed.errors.empty() || !parsed.settings.program.empty(),
        "a valid command line has a program");
}

void readOtherFiles(const std::string& text) {
  std::string error;
  (void)run::findAccount("robot", "", text, text, error);
  (void)run::findAccount("1", "1", text, text, error);
  (void)run::findAddresses("robot", "1", text);
  (void)run::controlGroupMount(text);
  (void)run::controlGroupPath(text);
  const auto history = run::StartHistory::parse(text, "b");
  check(run::StartHistory::parse(history.text("b"), "b").text("b") ==
            history.text("b"),
        "a history is read as it was written");
}

}  // namespace
}  // namespace vorn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vorn::fuzz;
  Input input(data, size);
  constexpr uint8_t kKinds = 5;
  const uint8_t kind = input.byte() % kKinds;
  if (kind == 0) {
    checkCommandLine(input);
    return 0;
  }
  const std::string text(input.bytes(size));
  if (kind == 1) checkConfig(text);
  if (kind == 2) checkEnvironmentFile(text);
  if (kind == 3) checkExpansion(text);
  if (kind == 4) readOtherFiles(text);
  return 0;
}
