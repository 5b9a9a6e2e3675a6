#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "process/execute.h"
#include "process/node_name.h"
#include "report.h"
#include "run_arguments.h"
#include "run_options.h"
#include "vornrun_version.h"

namespace vorn::run {
namespace {

/// Prints `text` on standard output. Returns the exit status.
int printText(const std::string& text) {
  const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
  return written == static_cast<ssize_t>(text.size()) ? 0 : kExitFailure;
}

int execute(const RunSettings& settings, const std::string& node) {
  const int error = executeProgram(settings.program);
  reportLine(node, settings.program.front(), std::strerror(error));
  return error == ENOENT ? kExitNotFound : kExitNotExecutable;
}

int run(const std::vector<std::string>& arguments) {
  const RunArguments parsed = parseRunArguments(arguments);
  const std::string node = nodeName(parsed.settings);
  for (const RunError& error : parsed.errors) {
    reportLine(node, error.option, error.reason);
  }
  if (!parsed.errors.empty()) return kExitFailure;
  if (parsed.request == RunArguments::Request::HELP)
    return printText(runHelp());
  if (parsed.request == RunArguments::Request::VERSION) {
    return printText(std::string("vornrun ") + kVersion + "\n");
  }
  return execute(parsed.settings, node);
}

}  // namespace
}  // namespace vorn::run

int main(int argc, char** argv) {
  // A program can be executed without even its own name.
  const int first = argc > 0 ? 1 : 0;
  return vorn::run::run(std::vector<std::string>(argv + first, argv + argc));
}
