#include "commands/doctor.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <ctime>
#include <map>
#include <optional>

#include "live/busy_launcher.h"
#include "live/health.h"
#include "live/launcher_health.h"
#include "live/log_health.h"
#include "live/log_source.h"
#include "live/node_health.h"
#include "live/node_history.h"
#include "live/node_usage.h"
#include "live/orphans.h"
#include "live/proc_file.h"
#include "live/socket_health.h"
#include "live/tmp_cleaning.h"
#include "output/json.h"
#include "output/output.h"
#include "output/table.h"

namespace vorn::launch {
namespace {

using std::chrono::milliseconds;

// Grows when a member changes its meaning or is removed, not when one is added.
constexpr int kDoctorSchema = 1;
constexpr milliseconds kAnswerLimit = std::chrono::seconds(5);
constexpr int64_t kDaySeconds = int64_t{24} * 60 * 60;

constexpr char kNoAnswer[] = "no launcher answers";

/// The installation, as one run of this command finds it.
class Installation {
 public:
  explicit Installation(const Context& context) : context_(context) {
    ask();
    const pid_t pid = findLauncherProcess();
    launchers_ = launchersNextTo(pid, processes_);
    views_error_ = kNoAnswer;
    // The process of another user could name any files as its own.
    if (pid == 0 || !isTrusted(pid)) return;
    const std::string& launch_file = context_.settings().launchFile;
    auto launcher = inspectLauncher(pid, launch_file, file_error_);
    launcher_ = launcher ? *launcher : identifyLauncher(pid, launch_file);
    activity_ = measureActivity(pid);
    views_error_ = askAboutNodes();
    log_error_ = addHistories();
    addStaleness(processes_, launcher_, views_);
  }

  /// The pid of the launcher; 0: there is none, or it is not visible.
  pid_t pid() const { return launcher_.pid; }

  Finding launchers() const {
    return launchersFinding(launchers_, launcher_.pid);
  }

  Finding socket() const {
    SocketFacts facts = examineSocket(socket_path_);
    facts.hasListener = reply_.outcome != Outcome::NO_LAUNCHER ||
                        ::access(socket_path_.c_str(), W_OK) != 0;
    facts.launcher = launcher_.pid;
    // One of several, none of which listens.
    if (facts.launcher == 0 && !launchers_.empty()) {
      facts.launcher = launchers_.front();
    }
    struct stat status {};
    if (::stat(procFile(facts.launcher, "").c_str(), &status) == 0) {
      facts.launcherUid = status.st_uid;
    }
    return socketFinding(facts);
  }

  Finding answer() const {
    return answerFinding(reply_.outcome, reply_.message, !launchers_.empty());
  }

  Finding activity() const {
    if (!activity_) return withoutLauncher();
    ActivityFacts facts = *activity_;
    facts.hasAnswered = hasAnswered();
    return activityFinding(facts);
  }

  Finding tools() const {
    if (launcher_.pid == 0) return withoutLauncher();
    const auto facts = examineTools(launcher_);
    return facts ? toolsFinding(*facts) : withoutPermission("environment");
  }

  Finding pids() const {
    if (launcher_.pid == 0) return withoutLauncher();
    const auto facts = examinePids(launcher_, processes_);
    return facts ? pidsFinding(*facts) : withoutPermission("children");
  }

  Finding log() const {
    if (launcher_.pid == 0) return withoutLauncher();
    return logFinding(examineLog(launcher_.pid, processes_));
  }

  Finding journal() const {
    if (launcher_.pid == 0) return withoutLauncher();
    const LogFacts facts = examineLog(launcher_.pid, processes_);
    if (facts.kind == LogFacts::Kind::NO_PERMISSION) return logFinding(facts);
    if (facts.kind != LogFacts::Kind::JOURNAL) {
      return okFinding("the log is not in the journal");
    }
    const int64_t since = std::time(nullptr) - kDaySeconds;
    return journalFinding(readJournalLimit(),
                          readSuppression(since * 1'000'000));
  }

  Finding nodes() const {
    if (!views_error_.empty()) return unknownFinding(views_error_);
    return nodesFinding(views_, log_error_);
  }

  Finding programs() const {
    if (!views_error_.empty()) return unknownFinding(views_error_);
    return programsFinding(views_);
  }

  Finding orphans() const {
    if (processes_.all().empty()) {
      return unknownFinding("the processes in /proc cannot be read");
    }
    return orphansFinding(findOrphans(processes_, launcher_.pid));
  }

  Finding tmpCleaning() const {
    if (launcher_.pid != 0 && launcher_.root != "") {
      return okFinding("the launcher has a root directory of its own");
    }
    return tmpCleaningFinding(readTmpfiles());
  }

  Finding launchFile() const {
    if (launcher_.pid == 0) return withoutLauncher();
    return launchFileFinding(launcher_, file_error_, ::geteuid() == 0);
  }

 private:
  bool hasAnswered() const {
    return reply_.outcome == Outcome::DONE ||
           reply_.outcome == Outcome::NOT_FOUND;
  }

  bool isTrusted(pid_t pid) const {
    struct stat status {};
    if (::stat(procFile(pid, "").c_str(), &status) != 0) return false;
    return context_.settings().trustAnyUser || status.st_uid == 0 ||
           status.st_uid == ::geteuid();
  }

  void ask() {
    const Settings& settings = context_.settings();
    const milliseconds limit = settings.connectLimit.value_or(
        settings.replyLimit.value_or(kAnswerLimit));
    ControlOptions options = context_.client(limit).options();
    options.connectLimit = limit;
    options.replyLimit = limit;
    options.totalLimit = limit;
    socket_path_ = options.socketPath;
    // The status itself is not needed, so the name may be that of no node.
    reply_ = context_.statusBefore(options, "");
    processes_ = ProcessTable::read();
  }

  /// The launcher that has answered or listens on the socket, or else the
  /// only one; 0 if it is not known.
  pid_t findLauncherProcess() const {
    if (reply_.launcherPid != 0) return reply_.launcherPid;
    const pid_t listener = findListener(socket_path_);
    if (listener != 0) return listener;
    const auto launchers = launchersNextTo(0, processes_);
    return launchers.size() == 1 ? launchers.front() : 0;
  }

  /// Reads the status of all nodes. Returns the reason if that is impossible.
  std::string askAboutNodes() {
    if (!hasAnswered()) return kNoAnswer;
    if (!file_error_.empty()) return "the names of the nodes are unknown";
    ControlClient client = context_.client(kAnswerLimit, "asking the launcher");
    for (const LaunchFile::Node& node : launcher_.file.nodes) {
      const std::string& name = node.name.value;
      const StatusReply reply = client.status(name);
      if (!reply.isDone() && reply.outcome != Outcome::NOT_FOUND) {
        return name + ": " + reply.message;
      }
      views_.push_back(viewOf(launcher_, name, reply, std::time(nullptr)));
    }
    return "";
  }

  /// Adds what the log says about the nodes; returns the reason if it cannot be
  /// read.
  std::string addHistories() {
    std::string error;
    NodeHistories histories;
    const int64_t now_us = std::time(nullptr) * 1'000'000;
    const auto log = findLog(launcher_, context_.settings().logFile, error);
    if (log && readRecent(launcher_, *log, now_us, views_, histories, error)) {
      addHistory(histories, now_us, views_);
    }
    return error;
  }

  static Finding withoutLauncher() {
    return unknownFinding("no launcher is running");
  }

  static Finding withoutPermission(const std::string& subject) {
    return unknownFinding("cannot examine the launcher's " + subject,
                          kRunAsRoot);
  }

  const Context& context_;
  std::string socket_path_;
  StatusReply reply_;  // to the first request
  ProcessTable processes_{{}};
  std::vector<pid_t> launchers_;
  LauncherProcess launcher_;  // pid 0: none, or it is not visible
  std::string file_error_;    // why its launch file cannot be read
  std::optional<ActivityFacts> activity_;
  std::vector<NodeView> views_;
  std::string views_error_;  // why the nodes are unknown
  std::string log_error_;    // why their histories are unknown
};

struct Examination {
  const char* name;
  Finding (Installation::*examine)() const;
};

constexpr Examination kExaminations[] = {
    {"launcher", &Installation::launchers},
    {"socket", &Installation::socket},
    {"answer", &Installation::answer},
    {"activity", &Installation::activity},
    {"launch-file", &Installation::launchFile},
    {"log", &Installation::log},
    {"journal", &Installation::journal},
    {"tools", &Installation::tools},
    {"pids", &Installation::pids},
    {"nodes", &Installation::nodes},
    {"programs", &Installation::programs},
    {"orphans", &Installation::orphans},
    {"tmp-cleaning", &Installation::tmpCleaning},
};

Colour colourOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::ERROR:
      return Colour::RED;
    case Verdict::WARNING:
      return Colour::YELLOW;
    case Verdict::UNKNOWN:
      return Colour::FAINT;
    case Verdict::PASSED:
      break;
  }
  return Colour::NONE;
}

bool isProblem(const NamedFinding& named) {
  return named.finding.verdict == Verdict::ERROR ||
         named.finding.verdict == Verdict::WARNING;
}

/// "1 error, 2 warnings, 1 unknown, 6 ok".
std::string summaryOf(const std::vector<NamedFinding>& findings) {
  std::map<Verdict, size_t> counts;
  for (const NamedFinding& each : findings) ++counts[each.finding.verdict];
  std::string text;
  for (const auto& [verdict, count] : counts) {
    const bool is_counted =
        verdict == Verdict::ERROR || verdict == Verdict::WARNING;
    text += (text.empty() ? "" : ", ") + std::to_string(count) + ' ' +
            wordFor(verdict) + (is_counted && count > 1 ? "s" : "");
  }
  return text;
}

void printFindings(const std::vector<NamedFinding>& findings,
                   const Settings& settings) {
  Table table;
  for (const NamedFinding& each : findings) {
    if (settings.isQuiet && !isProblem(each)) continue;
    const Finding& finding = each.finding;
    std::string text = finding.text;
    if (!finding.remedy.empty()) text += "; " + finding.remedy;
    table.rows.push_back(
        {{terminalText(wordFor(finding.verdict)), colourOf(finding.verdict)},
         {terminalText(each.name)},
         {terminalText(text)}});
  }
  Output out = standardOutput();
  printAligned(out, table, settings.hasColours);
  if (!settings.isQuiet) out << terminalText(summaryOf(findings)) << "\n";
}

void printFindingsAsJson(const std::vector<NamedFinding>& findings,
                         pid_t launcher) {
  Json checks = Json::array();
  for (const auto& [name, finding] : findings) {
    checks.push_back({{"check", name},
                      {"verdict", wordFor(finding.verdict)},
                      {"finding", finding.text},
                      {"remedy", finding.remedy}});
  }
  standardOutput() << jsonText({{"schema", kDoctorSchema},
                                {"launcherPid", orNull(launcher)},
                                {"checks", checks}});
}

}  // namespace

std::vector<NamedFinding> findingsOf(Context& context, pid_t& launcher) {
  const Installation installation(context);
  std::vector<NamedFinding> findings;
  for (const Examination& each : kExaminations) {
    findings.push_back({each.name, (installation.*each.examine)()});
  }
  context.clearActivity();
  launcher = installation.pid();
  return findings;
}

ExitStatus examineInstallation(Context& context, bool is_json) {
  pid_t launcher = 0;
  const std::vector<NamedFinding> findings = findingsOf(context, launcher);
  if (is_json) {
    printFindingsAsJson(findings, launcher);
  } else {
    printFindings(findings, context.settings());
  }
  return std::any_of(findings.begin(), findings.end(), isProblem) ? kFailed
                                                                  : kDone;
}

}  // namespace vorn::launch
