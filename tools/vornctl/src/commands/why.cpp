#include "commands/why.h"

#include <signal.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <ctime>
#include <sstream>

#include "context/targets.h"
#include "live/event_text.h"
#include "live/last_lines.h"
#include "live/log_source.h"
#include "live/node_usage.h"
#include "live/node_verdict.h"
#include "live/orphans.h"
#include "live/out_of_memory.h"
#include "live/proc_file.h"
#include "output/duration.h"
#include "output/output.h"
#include "output/table.h"

namespace vorn::launch {
namespace {

constexpr std::chrono::minutes kWhyReplyLimit{5};
constexpr size_t kLastLines = 5;

bool isFull(const struct statvfs& system) {
  return system.f_blocks != 0 &&
         (system.f_bavail == 0 ||
          (system.f_files != 0 && system.f_favail == 0));
}

/// The directories on full file systems that the launcher or the node needs.
std::vector<std::string> findFull(const LauncherProcess& launcher,
                                  const std::optional<LogLocation>& log) {
  std::vector<std::string> full;
  struct statvfs system {};
  if (log && log->file && ::fstatvfs(log->file->number(), &system) == 0 &&
      isFull(system)) {
    full.push_back("the log " + log->name);
  }
  if (launcher.pid == 0) return full;
  const std::string directory = procFile(launcher.pid, "cwd");
  if (::statvfs((directory + '/').c_str(), &system) == 0 && isFull(system)) {
    full.push_back("the working directory " +
                   readProcLink(directory).value_or(""));
  }
  if (::statvfs((procFile(launcher.pid, "root") + "/tmp/").c_str(), &system) ==
          0 &&
      isFull(system)) {
    full.emplace_back("/tmp");
  }
  return full;
}

void addFromLog(const LauncherProcess& launcher,
                const std::optional<LogLocation>& log, NodeFacts& facts) {
  if (!log) return;
  std::vector<NodeView> views = {facts.view};
  NodeHistories histories;
  if (!readRecent(launcher, *log, facts.nowUs, views, histories,
                  facts.logError)) {
    return;
  }
  addHistory(histories, facts.nowUs, views);
  facts.view = views.front();
  if (const auto* const found = histories.find(nameInLog(facts.view.name))) {
    facts.history = *found;
  }
}

void addLastExit(const LauncherProcess& launcher,
                 const std::optional<LogLocation>& log, NodeFacts& facts) {
  if (!log || !facts.history || !facts.history->exit) return;
  const HistoryEvent& exit = *facts.history->exit;
  LastLines last = readLastLines(*log, exit, kLastLines);
  facts.lastLines = std::move(last.lines);
  facts.areLinesItsOwn = last.areItsOwn;
  if (!exit.isSignal() || exit.status != SIGKILL) return;
  facts.isMemoryKill = namesMemoryKill(readKernelLog().value_or(""), exit.pid);
  facts.memoryKills = memoryKillsInGroupOf(launcher.pid).value_or(0);
}

void addAction(NodeFacts& facts) {
  const auto records = readActionRecords(kActionFile, 0);
  const auto last = std::find_if(
      records.rbegin(), records.rend(), [&](const ActionRecord& record) {
        return std::find(record.nodes.begin(), record.nodes.end(),
                         facts.view.name) != record.nodes.end();
      });
  if (last != records.rend()) facts.action = *last;
}

void addProcesses(const LauncherProcess& launcher, NodeFacts& facts) {
  const ProcessTable table = ProcessTable::read();
  std::vector<NodeView> views = {facts.view};
  addStaleness(table, launcher, views);
  facts.view.isStale = views.front().isStale;
  const Orphans orphans = findOrphans(table, launcher.pid);
  for (const Orphan& orphan : orphans.processes) {
    if (orphan.node == facts.view.name) {
      facts.orphans.push_back(orphan.process.pid);
    }
  }
}

void addFromFile(const LauncherProcess& launcher, NodeFacts& facts) {
  const LaunchFile::Node* const node = launcher.file.find(facts.view.name);
  if (node == nullptr) return;
  facts.isDisabledInFile = node->disabled.value;
  facts.isOneshot = node->oneshot.value;
}

void printExplanation(Output& out, const NodeFacts& facts,
                      const NodeVerdict& verdict, bool has_colours) {
  const OutputText summary =
      terminalText(facts.view.name + ' ' + verdict.summary);
  out << (has_colours && !verdict.isAsWanted ? coloured(summary, Colour::RED)
                                             : summary)
      << "\n";
  Table table;
  for (const auto& [label, text] : verdict.details) {
    table.rows.push_back(
        {{terminalText("  " + label + ':')}, {terminalText(text)}});
  }
  for (const std::string& remedy : verdict.remedies) {
    table.rows.push_back({{"  To do:"}, {terminalText(remedy)}});
  }
  printAligned(out, table, has_colours);
  if (facts.lastLines.empty()) return;
  out << (facts.areLinesItsOwn
              ? OutputText("  Last lines of that run:\n")
              : OutputText("  Last lines before that exit, of all nodes:\n"));
  for (const std::string& line : facts.lastLines) {
    out << "    " << terminalText(line) << "\n";
  }
}

}  // namespace

void collectFacts(const Settings& settings, const LauncherProcess& launcher,
                  NodeFacts& facts) {
  facts.coreHandler =
      readProcFile("/proc/sys/kernel/core_pattern").value_or("");
  while (!facts.coreHandler.empty() && facts.coreHandler.back() == '\n') {
    facts.coreHandler.pop_back();
  }
  addFromFile(launcher, facts);
  const auto log = findLog(launcher, settings.logFile, facts.logError);
  addFromLog(launcher, log, facts);
  addLastExit(launcher, log, facts);
  addAction(facts);
  addProcesses(launcher, facts);
  facts.fullFileSystems = findFull(launcher, log);
}

ExitStatus explainNode(Context& context, const WhyOptions& options) {
  NodeFacts facts;
  facts.nowUs = std::time(nullptr) * kSecondUs;
  facts.view.name = options.node;
  const Targets targets = findTargets(context, {options.node});
  facts.hasLauncher = targets.status != kNoLauncher;
  if (facts.hasLauncher) {
    if (targets.status != kDone) return targets.status;
    const StatusReply reply =
        context.client(kWhyReplyLimit, "asking the launcher")
            .status(options.node);
    if (!reply.isDone()) {
      context.printRequestError(options.node, reply, targets.launcher.file);
      return exitStatusOf(reply.outcome);
    }
    facts.view =
        viewOf(targets.launcher, options.node, reply, std::time(nullptr));
  }
  context.clearActivity();
  collectFacts(context.settings(), targets.launcher, facts);
  const NodeVerdict verdict = judge(facts);
  if (!context.settings().isQuiet) {
    Output out = standardOutput();
    printExplanation(out, facts, verdict, context.settings().hasColours);
  }
  return verdict.isAsWanted ? kDone : kFailed;
}

std::string explanationOf(const Settings& settings,
                          const LauncherProcess& launcher,
                          const NodeView& node) {
  NodeFacts facts;
  facts.nowUs = std::time(nullptr) * kSecondUs;
  facts.view = node;
  facts.hasLauncher = true;
  collectFacts(settings, launcher, facts);
  std::ostringstream text;
  Output out(text);
  printExplanation(out, facts, judge(facts), false);
  return text.str();
}

}  // namespace vorn::launch
