#include "commands/report.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <deque>
#include <new>
#include <sstream>
#include <utility>

#include "commands/check.h"
#include "commands/report_history.h"
#include "commands/report_masking.h"
#include "commands/report_page.h"
#include "commands/why.h"
#include "launchfile/hidden_values.h"
#include "launchfile/parser.h"
#include "live/action_records.h"
#include "live/busy_launcher.h"
#include "live/host_facts.h"
#include "live/log_source.h"
#include "live/node_history.h"
#include "live/node_usage.h"
#include "live/proc_file.h"
#include "live/process_table.h"
#include "system/atomic_file.h"
#include "vornctl_version.h"

namespace vorn::launch {
namespace {

constexpr int64_t kReportUsPerSecond = 1'000'000;
constexpr std::chrono::seconds kDefaultTime = std::chrono::hours(12);
// A launcher that does not answer is a likely reason for a report.
constexpr std::chrono::seconds kReportAnswerLimit{10};
constexpr size_t kMostVerdicts = 20;  // each of them reads the log
constexpr size_t kLogLines = 400;
constexpr size_t kLongestLine = 2000;  // bytes

int64_t reportTimeUs() {
  timespec time{};
  (void)::clock_gettime(CLOCK_REALTIME, &time);
  return int64_t{time.tv_sec} * kReportUsPerSecond + time.tv_nsec / 1000;
}

/// Collects the content of a report.
class ReportGatherer {
 public:
  ReportGatherer(Context& context, const ReportOptions& options)
      : context_(context), options_(options) {
    page_.host = hostName();
    page_.timeUs = reportTimeUs();
    page_.hasEnvironment = options.hasEnvironment;
    begin_us_ = options.sinceUs == 0
                    ? page_.timeUs - kDefaultTime.count() * kReportUsPerSecond
                    : options.sinceUs;
  }

  ReportPage gather() {
    findLauncherProcess();
    readFile();
    askForNodes();
    ReportHistory history(begin_us_, names());
    readHistory(history);
    history.finish(page_.timeUs, page_);
    addVerdicts();
    pid_t launcher = 0;
    page_.findings = findingsOf(context_, launcher);
    addFacts();
    return std::move(page_);
  }

 private:
  ControlOptions requestOptions() const {
    ControlOptions options =
        context_.client(kReportAnswerLimit, "asking the launcher").options();
    if (context_.settings().connectLimit) {
      options.connectLimit = *context_.settings().connectLimit;
    }
    return options;
  }

  void findLauncherProcess() {
    const ControlOptions options = requestOptions();
    socket_path_ = options.socketPath;
    // The status itself is not needed, so the name may be that of no node.
    const StatusReply reply = context_.statusBefore(options, "");
    answers_ = reply.isDone() || reply.outcome == Outcome::NOT_FOUND;
    pid_t pid = reply.launcherPid;
    if (!answers_) {
      page_.notices.push_back(reply.message);
      if (pid == 0) pid = findListener(socket_path_);
    }
    has_launcher_ = answers_ || pid != 0;
    launcher_ = identifyLauncher(pid, context_.settings().launchFile);
  }

  void readFile() {
    if (!has_launcher_ && context_.settings().launchFile.empty()) {
      page_.notices.emplace_back(
          "the launch file is not known; name it with --launch-file");
      if (!options_.hasEnvironment) masking_ = ReportMasking(LaunchFile{});
      return;
    }
    std::string error;
    const auto document =
        readLaunchFile(launcher_, context_.settings().launchFile, error);
    if (!document) {
      page_.notices.push_back(error);
      if (!options_.hasEnvironment) masking_ = ReportMasking(LaunchFile{});
      return;
    }
    launcher_.file =
        parseLaunchFile(*document, launcherEnvironment(launcher_.pid));
    page_.launchFile = &launcher_.file;
    if (!options_.hasEnvironment) masking_ = ReportMasking(launcher_.file);
    addFileText(*document);
    launcher_.file.nodes.removeRepeated();
    if (launcher_.hasChanged) {
      page_.notices.emplace_back(
          "the launch file was changed after the launcher started; its nodes "
          "may differ from those that run");
    }
  }

  void addFileText(const SourceText& document) {
    page_.fileLines = options_.hasEnvironment ? linesOf(document.text())
                                              : linesWithoutValues(document);
    const size_t count = std::min(page_.fileLines.size(), kMostFileLines);
    for (size_t i = 0; i < count; ++i) {
      page_.fileLines[i] = shortened(masking_.masked(page_.fileLines[i]));
    }
    CheckOptions check;
    // The programs of a launcher with another root directory are not ours.
    check.host = launcher_.root.value_or("").empty() ? CheckOptions::Host::YES
                                                     : CheckOptions::Host::NO;
    page_.diagnostics = diagnose(document, launcher_.file, check).all();
    for (Diagnostic& diagnostic : page_.diagnostics) {
      diagnostic.message = masking_.masked(diagnostic.message);
      for (Note& note : diagnostic.notes) {
        note.message = masking_.masked(note.message);
      }
    }
  }

  static std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
  }

  static std::string shortened(std::string line) {
    if (line.size() <= kLongestLine) return line;
    const size_t omitted = line.size() - kLongestLine;
    line.resize(kLongestLine);
    return line + "… (" + std::to_string(omitted) + " more bytes)";
  }

  std::vector<std::string> names() const {
    std::vector<std::string> names;
    for (const LaunchFile::Node& node : launcher_.file.nodes) {
      names.push_back(node.name.value);
    }
    return names;
  }

  void askForNodes() {
    if (!answers_) return;
    ControlClient client(requestOptions());
    for (const std::string& name : names()) {
      const StatusReply reply = client.status(name);
      if (!reply.isDone() && reply.outcome != Outcome::NOT_FOUND) {
        if (reply.outcome == Outcome::INVALID_NAME) continue;
        page_.notices.push_back(name + ": " + reply.message);
        break;
      }
      page_.nodes.push_back(viewOf(launcher_, name, reply, std::time(nullptr)));
      NodeView& view = page_.nodes.back();
      view.executable = masking_.masked(view.executable);
    }
    context_.clearActivity();
    if (page_.nodes.empty()) return;
    const ProcessTable table = ProcessTable::read();
    addUsage(table, launcher_, page_.nodes);
    addStaleness(table, launcher_, page_.nodes);
  }

  void readHistory(ReportHistory& history) {
    for (const ActionRecord& action :
         readActionRecords(kActionFile, begin_us_)) {
      history.add(action, masking_);
    }
    std::string error;
    const auto location =
        findLog(launcher_, context_.settings().logFile, error);
    if (!location) {
      page_.notices.push_back(error);
      return;
    }
    page_.logName = location->name;
    if (location->file) log_space_ = freeSpaceAt(location->file->number());
    readLogOf(*location, history);
    if (location->kind == LogLocation::Kind::STANDARD_INPUT) return;
    NodeHistories histories;
    if (readRecent(launcher_, *location, page_.timeUs, page_.nodes, histories,
                   error)) {
      addHistory(histories, page_.timeUs, page_.nodes);
    }
  }

  void readLogOf(const LogLocation& location, ReportHistory& history) {
    std::deque<std::string> lines;
    const auto add = [&](const LogRecord& record) {
      lines.emplace_back(record.text);
      masking_.learnFromLog(record.text);
      if (lines.size() > kLogLines) lines.pop_front();
      return !context_.isCancelled();
    };
    std::string error;
    if (!readEvents(
            launcher_, location, begin_us_,
            [&](const HistoryEvent& event) { history.add(event); }, add,
            error)) {
      page_.notices.push_back(error);
    }
    for (const std::string& line : lines) {
      page_.logLines.push_back(shortened(masking_.maskedLogLine(line)));
    }
  }

  void addVerdicts() {
    for (const NodeView& view : page_.nodes) {
      if (!isFailing(view)) continue;
      if (page_.verdicts.size() == kMostVerdicts) {
        ++page_.omittedVerdicts;
        continue;
      }
      NodeFacts facts;
      facts.nowUs = page_.timeUs;
      facts.view = view;
      collectFacts(context_.settings(), launcher_, facts);
      page_.verdicts.push_back(verdictOf(facts));
    }
  }

  /// The verdict of a node, without secrets.
  ReportVerdict verdictOf(const NodeFacts& facts) const {
    ReportVerdict explained{
        facts.view.name, judge(facts), {}, facts.areLinesItsOwn};
    NodeVerdict& verdict = explained.verdict;
    verdict.summary = masking_.masked(verdict.summary);
    for (auto& [label, text] : verdict.details) text = masking_.masked(text);
    for (std::string& remedy : verdict.remedies) {
      remedy = masking_.masked(remedy);
    }
    for (const std::string& line : facts.lastLines) {
      explained.lastLines.push_back(shortened(masking_.masked(line)));
    }
    return explained;
  }

  void addFacts() {
    page_.facts = {{"Host", page_.host}};
    for (HostFact& fact : hostFacts()) page_.facts.push_back(std::move(fact));
    const auto add = [this](const char* name, const std::string& value) {
      page_.facts.push_back({name, value.empty() ? "unknown" : value});
    };
    if (launcher_.pid != 0) {
      add("Launcher", "process " + std::to_string(launcher_.pid) + ", since " +
                          utcText(launcher_.startSeconds * kReportUsPerSecond));
      add("Program of the launcher",
          readProcLink(procFile(launcher_.pid, "exe")).value_or(""));
    }
    add("Control socket", socket_path_ + ": " + describeMode(socket_path_));
    add("Launch file", launcher_.launchFile);
    add("Log", page_.logName);
    if (!log_space_.empty()) add("Disk of the log", log_space_);
    add("vornctl",
        VORNCTL_VERSION ", run by user " + std::to_string(::geteuid()));
  }

  Context& context_;
  const ReportOptions& options_;
  ReportPage page_;
  ReportMasking masking_;
  LauncherProcess launcher_;
  std::string socket_path_;
  std::string log_space_;
  bool answers_ = false;
  bool has_launcher_ = false;
  int64_t begin_us_ = 0;
};

/// "vornlaunch-report-HOST-20261122T073000Z.html".
std::string defaultName(const ReportPage& page) {
  std::string host = page.host;
  for (char& letter : host) {
    if (std::isalnum(static_cast<unsigned char>(letter)) == 0 &&
        letter != '.' && letter != '-') {
      letter = '_';
    }
  }
  std::string time;
  for (const char letter : utcText(page.timeUs)) {
    if (letter == ' ') time += 'T';
    if (letter != ' ' && letter != '-' && letter != ':') time += letter;
  }
  return "vornlaunch-report-" + host + '-' + time + ".html";
}

ExitStatus printPage(const Context& context, const std::string& text) {
  std::string_view rest = text;
  while (!rest.empty()) {
    const ssize_t count = ::write(STDOUT_FILENO, rest.data(), rest.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) {
      context.printError(std::string("cannot write the report: ") +
                         std::strerror(errno));
      return kFailed;
    }
    rest.remove_prefix(static_cast<size_t>(count));
  }
  return kDone;
}

}  // namespace

ExitStatus writeReport(Context& context, const ReportOptions& options) {
  const bool is_printed = options.output == "-";
  if (is_printed && ::isatty(STDOUT_FILENO) == 1) {
    context.printError(
        "refusing to write a report to a terminal; redirect the output or use "
        "-o FILE");
    return kUsage;
  }
  ReportGatherer gatherer(context, options);
  const ReportPage page = gatherer.gather();
  if (context.isCancelled()) {
    context.printError("interrupted; no report was written");
    return kFailed;
  }
  std::ostringstream stream;
  Output html(stream);
  printReportPage(html, page);
  if (!stream) throw std::bad_alloc();  // the stream does not report it
  if (is_printed) return printPage(context, stream.str());
  const bool is_named = !options.output.empty();
  const std::string path = is_named ? options.output : defaultName(page);
  std::string error;
  if (!writeFile(path, stream.str(), is_named, error)) {
    context.printError(error);
    return kFailed;
  }
  if (!context.settings().isQuiet) {
    standardOutput() << terminalText(path) << "\n";
  }
  return kDone;
}

}  // namespace vorn::launch
