// A launch file of any content through the checks of vornctl and every form of
// its output. The correct result is TooLarge, or output that is bounded and has
// no control characters.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "check/report.h"
#include "check/resolved_view.h"
#include "commands/check.h"
#include "commands/graph.h"
#include "commands/report_graph.h"
#include "launchfile/parser.h"
#include "support/output.h"

namespace vorn::fuzz {
namespace {

using launch::CheckedFile;
using launch::LaunchFile;
using launch::Output;

// For the longest inputs, 4 KiB.
constexpr size_t kLongestOutput = size_t{8} << 20U;

void checkPrinted(const std::function<void(Output&)>& print) {
  std::ostringstream text;
  Output out(text);
  print(out);
  checkOutput(text.str(), kLongestOutput);
}

void printDiagnostics(const CheckedFile& file) {
  const std::vector<CheckedFile> files = {file};
  checkPrinted([&](Output& out) { printAsText(out, file, true, false, -1); });
  checkPrinted([&](Output& out) { printAsJson(out, files); });
  checkPrinted([&](Output& out) { printAsSarif(out, files); });
  checkPrinted([&](Output& out) { printAsGithub(out, files); });
}

void printViews(const LaunchFile& file) {
  checkPrinted([&](Output& out) { printResolved(out, file); });
  checkPrinted([&](Output& out) { printResolvedAsJson(out, {file}); });
  checkPrinted([&](Output& out) { printTimeline(out, file); });
  checkPrinted([&](Output& out) { printStopTimeout(out, file); });
  checkPrinted([&](Output& out) { printDot(out, file); });
  checkPrinted([&](Output& out) { printMermaid(out, file); });
  checkPrinted([&](Output& out) { printRequiredGraph(out, file); });
}

void run(const std::string& text) {
  const launch::LauncherEnvironment environment{"/opt/bin", "/opt", "/opt"};
  const launch::SourceText document("launch\x1b.yaml", text);
  const LaunchFile file = parseLaunchFile(document, environment);
  launch::CheckOptions options;
  options.host = launch::CheckOptions::Host::NO;
  printDiagnostics(
      {document, file.loadErrors.empty(), diagnose(document, file, options)});
  if (file.loadErrors.empty()) printViews(file);
}

}  // namespace
}  // namespace vorn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  try {
    vorn::fuzz::run({reinterpret_cast<const char*>(data), size});
  } catch (const vorn::launch::TooLarge&) {
    // Expanded by aliases.
  }
  return 0;
}
