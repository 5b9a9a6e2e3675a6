#pragma once

#include <string>
#include <vector>

#include "commands/apply.h"
#include "commands/check.h"
#include "commands/diff.h"
#include "commands/graph.h"
#include "commands/health.h"
#include "commands/history.h"
#include "commands/import.h"
#include "commands/logs.h"
#include "commands/metrics.h"
#include "commands/orphans.h"
#include "commands/ps.h"
#include "commands/report.h"
#include "commands/start_stop.h"
#include "commands/status.h"
#include "commands/wait.h"
#include "commands/why.h"
#include "context/context.h"

namespace vorn::launch {

enum class ColourMode { AUTO, ALWAYS, NEVER };

/// The content of a command line.
struct Arguments {
  Settings settings;
  ColourMode colour = ColourMode::AUTO;
  std::vector<std::string> nodes;
  ActOptions act;
  StatusOptions status;
  HistoryOptions history;
  WhyOptions why;
  WaitOptions wait;
  PsOptions ps;
  OrphansOptions orphans;
  CheckOptions check;
  bool isCheckList = false;
  GraphOptions graph;
  DiffOptions diff;
  ImportOptions import;
  LogsOptions logs;
  ReportOptions report;
  MetricsOptions metrics;
  HealthOptions health;
  ApplyOptions apply;
  bool isJson = false;
  bool isNulSeparated = false;
  std::string shell;
  std::string topic;  // of help
};

}  // namespace vorn::launch
