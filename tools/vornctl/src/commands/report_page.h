#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "check/diagnostic.h"
#include "commands/doctor.h"
#include "commands/report_timeline.h"
#include "launchfile/launch_file.h"
#include "live/host_facts.h"
#include "live/node_status.h"
#include "live/node_verdict.h"
#include "output/output.h"

// The page of a report. Its texts are raw: printing escapes them, but hides no
// secrets.

namespace vorn::launch {

/// The explanation of the state of a node that needs attention.
struct ReportVerdict {
  std::string node;
  NodeVerdict verdict;
  std::vector<std::string> lastLines;  // before the last exit
  bool areLinesItsOwn = false;         // otherwise of any node
};

struct ReportEvent {
  int64_t timeUs = 0;
  std::string node;
  std::string text;
  bool isFailure = false;
};

/// The content of a report.
struct ReportPage {
  std::string host;
  int64_t timeUs = 0;
  std::vector<std::string> notices;  // parts that are missing, and why
  std::vector<HostFact> facts;
  std::vector<NamedFinding> findings;
  std::vector<NodeView> nodes;
  std::vector<ReportVerdict> verdicts;
  size_t omittedVerdicts = 0;
  Timeline timeline;
  std::vector<ReportEvent> events;  // the oldest first
  size_t omittedEvents = 0;
  const LaunchFile* launchFile = nullptr;  // borrowed; null: it is not known
  std::vector<std::string> fileLines;
  std::vector<Diagnostic> diagnostics;  // sorted by location
  std::string logName;
  std::vector<std::string> logLines;
  bool hasEnvironment = false;  // no values are hidden
};

/// The most lines of a launch file that are shown.
constexpr size_t kMostFileLines = 5000;

/// Writes the page as an HTML document.
void printReportPage(Output& out, const ReportPage& page);

}  // namespace vorn::launch
