#include "commands/report_page.h"

#include <algorithm>
#include <map>

#include "commands/report_assets.h"
#include "commands/report_elements.h"
#include "commands/report_graph.h"
#include "live/node_cells.h"
#include "vornctl_version.h"

namespace vorn::launch {
namespace {

constexpr int64_t kPageUsPerSecond = 1'000'000;

void printHead(Output& out, const ReportPage& page) {
  out << "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta "
         "charset=\"utf-8\">\n<meta http-equiv=\"Content-Security-Policy\" "
         "content=\""
      << reportPolicy()
      << "\">\n<meta name=\"viewport\" content=\"width=device-width, "
         "initial-scale=1\">\n<meta name=\"referrer\" "
         "content=\"no-referrer\">\n<meta name=\"generator\" "
         "content=\"vornctl " VORNCTL_VERSION "\">\n<title>vornlaunch report: "
      << htmlText(page.host) << ", " << htmlText(utcText(page.timeUs))
      << "</title>\n<style>" << reportStyle() << "</style>\n</head>\n";
}

void printCounts(Output& out, const ReportPage& page) {
  if (page.nodes.empty()) return;
  std::map<Condition, size_t> counts;
  for (const NodeView& view : page.nodes) ++counts[view.condition];
  out << "<ul class=\"counts\" aria-label=\"Number of nodes by state\">\n";
  for (const auto& [condition, count] : counts) {
    out << "<li>" << count << " " << htmlText(wordFor(condition)) << "</li>\n";
  }
  out << "</ul>\n";
}

void printHeader(Output& out, const ReportPage& page) {
  out << "<body>\n<a class=\"skip\" href=\"#main\">Skip to the "
         "content</a>\n<header>\n<h1>vornlaunch report: "
      << isolatedName(page.host) << "</h1>\n<p class=\"lead\">Written "
      << htmlText(utcText(page.timeUs))
      << " by vornctl " VORNCTL_VERSION ". All times are in UTC.</p>\n";
  printCounts(out, page);
  if (!page.notices.empty()) {
    out << "<div class=\"notices\" role=\"note\">\n<p>This report is "
           "incomplete:</p>\n<ul>\n";
    for (const std::string& notice : page.notices) {
      out << "<li>" << htmlText(notice) << "</li>\n";
    }
    out << "</ul>\n</div>\n";
  }
  out << "</header>\n<nav aria-label=\"Sections\"><ul>\n"
         "<li><a href=\"#problems\">Problems</a></li>\n"
         "<li><a href=\"#nodes\">Nodes</a></li>\n"
         "<li><a href=\"#timeline\">Timeline</a></li>\n"
         "<li><a href=\"#required\">Required nodes</a></li>\n"
         "<li><a href=\"#file\">Launch file</a></li>\n"
         "<li><a href=\"#log\">Log</a></li>\n"
         "<li><a href=\"#installation\">Installation</a></li>\n"
         "<li><a href=\"#host\">Host</a></li>\n"
         "</ul></nav>\n<main id=\"main\">\n";
}

OutputText nodeCell(const NodeView& view, const std::string& column) {
  const Cell cell = cellFor(view, column);
  OutputText text = htmlText(cell.text.str());
  if (column == "started") {
    text = htmlText(view.startSeconds == 0
                        ? "never"
                        : utcText(view.startSeconds * kPageUsPerSecond));
  }
  if (column == "state") {
    text = "<span aria-hidden=\"true\">" + symbolFor(view.condition) +
           "</span> " + text;
  }
  // A date and a state are easier to read on one line.
  const bool is_line = column == "started" || column == "state";
  return "<td class=\"" + classFor(cell.colour) +
         (is_line ? OutputText(" nowrap") : OutputText()) + "\"><bdi>" + text +
         "</bdi></td>";
}

void printNodes(Output& out, const ReportPage& page) {
  beginSection(out, "nodes", "Nodes");
  if (page.nodes.empty()) {
    out << "<p>The states of the nodes are not known.</p>\n</section>\n";
    return;
  }
  beginScroll(out, "Table of the nodes");
  out << "<table>\n<caption>The nodes in the order of the launch file. "
         "Restarts "
         "are those of the last hour.</caption>\n<thead><tr>";
  for (const Column& column : statusColumns()) {
    std::string title = column.name;
    std::replace(title.begin(), title.end(), '_', ' ');
    out << "<th scope=\"col\">" << htmlText(title) << "</th>";
  }
  out << "</tr></thead>\n<tbody>\n";
  for (const NodeView& view : page.nodes) {
    out << "<tr><th scope=\"row\">" << isolatedName(view.name) << "</th>";
    for (const Column& column : statusColumns()) {
      if (column.name != "node") out << nodeCell(view, column.name);
    }
    out << "</tr>\n";
  }
  out << "</tbody></table></div>\n</section>\n";
}

void printVerdict(Output& out, const ReportVerdict& explained) {
  const NodeVerdict& verdict = explained.verdict;
  out << "<article class=\"verdict\">\n<h3>" << isolatedName(explained.node)
      << " " << htmlText(verdict.summary) << "</h3>\n<dl>\n";
  for (const auto& [label, text] : verdict.details) {
    out << "<dt>" << htmlText(label) << "</dt><dd>" << htmlText(text)
        << "</dd>\n";
  }
  for (const std::string& remedy : verdict.remedies) {
    out << "<dt>To do</dt><dd>" << htmlText(remedy) << "</dd>\n";
  }
  out << "</dl>\n";
  if (!explained.lastLines.empty()) {
    out << "<p>"
        << htmlText(explained.areLinesItsOwn
                        ? "Last lines of that run:"
                        : "Last lines before that exit, of all nodes:")
        << "</p>\n";
    beginScroll(out,
                "Last lines before the exit of " + htmlText(explained.node));
    out << "<pre>";
    for (const std::string& line : explained.lastLines) {
      out << htmlText(line) << "\n";
    }
    out << "</pre></div>\n";
  }
  out << "</article>\n";
}

void printVerdicts(Output& out, const ReportPage& page) {
  beginSection(out, "problems", "Problems");
  if (page.nodes.empty()) {
    out << "<p>The states of the nodes are not known.</p>\n";
  } else if (page.verdicts.empty()) {
    out << "<p>No node needs attention.</p>\n";
  }
  for (const ReportVerdict& verdict : page.verdicts) printVerdict(out, verdict);
  if (page.omittedVerdicts != 0) {
    out << "<p>" << page.omittedVerdicts
        << " more nodes need attention; the table shows their states.</p>\n";
  }
  out << "</section>\n";
}

void printLegend(Output& out) {
  out << "<ul class=\"legend\">\n"
         "<li><svg viewBox=\"0 0 16 16\" aria-hidden=\"true\"><rect "
         "class=\"run\" y=\"4\" width=\"16\" height=\"8\"/></svg>run</li>\n"
         "<li><svg viewBox=\"-8 -8 16 16\" aria-hidden=\"true\"><circle "
         "class=\"exit\" r=\"4\"/></svg>exit</li>\n"
         "<li><svg viewBox=\"-8 -8 16 16\" aria-hidden=\"true\"><path "
         "class=\"failure\" d=\"M-5-5 5 5M5-5-5 5\"/></svg>failure: exit by "
         "itself with a signal or another status than 0, or failed "
         "start</li>\n"
         "<li><svg viewBox=\"-8 -8 16 16\" aria-hidden=\"true\"><path "
         "class=\"action\" d=\"M-5-4H5L0 5Z\"/></svg>command of an "
         "operator</li>\n</ul>\n";
}

void printControls(Output& out) {
  out << "<div class=\"controls\" id=\"timeline-controls\" role=\"group\" "
         "aria-label=\"Part of the timeline\" hidden>\n";
  const std::pair<const char*, const char*> buttons[] = {{"in", "Zoom in"},
                                                         {"out", "Zoom out"},
                                                         {"back", "Earlier"},
                                                         {"on", "Later"},
                                                         {"all", "Whole time"}};
  for (const auto& [value, label] : buttons) {
    out << "<button type=\"button\" value=\"" << htmlText(value) << "\">"
        << htmlText(label) << "</button>\n";
  }
  out << "<output id=\"timeline-range\"></output>\n</div>\n";
}

void printEvents(Output& out, const ReportPage& page) {
  if (page.events.empty()) return;
  out << "<details>\n<summary>" << page.events.size()
      << " events as a table</summary>\n";
  beginScroll(out, "Table of the events", "tall");
  out << "<table>\n<caption>Events, the oldest first";
  if (page.omittedEvents != 0) {
    out << "; " << page.omittedEvents << " older ones are omitted";
  }
  out << "</caption>\n<thead><tr><th scope=\"col\">Time</th><th "
         "scope=\"col\">Node</th><th scope=\"col\">Event</th></tr></thead>\n"
         "<tbody>\n";
  for (const ReportEvent& event : page.events) {
    out << "<tr><td class=\"nowrap\">" << htmlText(utcText(event.timeUs))
        << "</td><td>" << isolatedName(event.node) << "</td><td"
        << (event.isFailure ? OutputText(" class=\"bad\"") : OutputText())
        << ">" << htmlText(event.text) << "</td></tr>\n";
  }
  out << "</tbody></table></div>\n</details>\n";
}

void printTimelineSection(Output& out, const ReportPage& page) {
  beginSection(out, "timeline", "Timeline");
  const Timeline& timeline = page.timeline;
  if (timeline.rows.empty()) {
    out << "<p>There are no events.</p>\n</section>\n";
    return;
  }
  out << "<p>From " << htmlText(utcText(timeline.beginUs)) << " to "
      << htmlText(utcText(timeline.endUs))
      << ". Point at a bar or a mark for its details.</p>\n";
  printLegend(out);
  printControls(out);
  beginScroll(out, "Drawing of the timeline");
  printTimelineSvg(out, timeline);
  out << "</div>\n";
  printEvents(out, page);
  out << "</section>\n";
}

void printDiagnostic(Output& out, const Diagnostic& diagnostic) {
  const Severity severity = diagnostic.check->severity;
  out << "<p class=\"diagnostic " << classFor(severity) << "\"><strong>"
      << htmlText(wordFor(severity))
      << "</strong>: " << htmlText(diagnostic.message) << " ["
      << htmlText(diagnostic.check->name) << "]</p>\n";
  for (const Note& note : diagnostic.notes) {
    out << "<p class=\"diagnostic muted\">line " << note.location.line << ": "
        << htmlText(note.message) << "</p>\n";
  }
}

void printFileLines(Output& out, const ReportPage& page) {
  const size_t shown = std::min(page.fileLines.size(), kMostFileLines);
  beginScroll(out, "Text of the launch file", "tall");
  out << "<ol class=\"code\">\n";
  auto next = page.diagnostics.begin();
  for (size_t i = 0; i < shown; ++i) {
    const auto line = static_cast<int>(i) + 1;
    const bool is_marked =
        next != page.diagnostics.end() && next->location.line <= line;
    out << "<li" << (is_marked ? OutputText(" class=\"marked\"") : OutputText())
        << "><code>" << htmlText(page.fileLines[i]) << "</code>\n";
    for (; next != page.diagnostics.end() && next->location.line <= line;
         ++next) {
      printDiagnostic(out, *next);
    }
    out << "</li>\n";
  }
  out << "</ol></div>\n";
  for (; next != page.diagnostics.end(); ++next) printDiagnostic(out, *next);
  if (shown < page.fileLines.size()) {
    out << "<p>" << page.fileLines.size() - shown
        << " more lines are not shown.</p>\n";
  }
}

void printLaunchFile(Output& out, const ReportPage& page) {
  beginSection(out, "required", "Required nodes");
  if (page.launchFile == nullptr) {
    out << "<p>The launch file is not known.</p>\n";
  } else {
    printRequiredGraph(out, *page.launchFile);
  }
  out << "</section>\n";
  beginSection(out, "file", "Launch file");
  if (page.launchFile == nullptr) {
    out << "<p>The launch file is not known.</p>\n</section>\n";
    return;
  }
  out << "<p>" << isolatedName(page.launchFile->name) << ": "
      << page.diagnostics.size()
      << " diagnostics of <code>vornctl check</code>, below the lines that "
         "they are about.";
  if (!page.hasEnvironment) out << " Values of variables are hidden.";
  out << "</p>\n";
  printFileLines(out, page);
  out << "</section>\n";
}

void printLog(Output& out, const ReportPage& page) {
  beginSection(out, "log", "Log");
  if (page.logLines.empty()) {
    out << "<p>There are no log lines.</p>\n</section>\n";
    return;
  }
  out << "<p>The last " << page.logLines.size() << " lines of "
      << isolatedName(page.logName) << ":</p>\n";
  beginScroll(out, "End of the log", "tall");
  out << "<pre>";
  for (const std::string& line : page.logLines) out << htmlText(line) << "\n";
  out << "</pre></div>\n</section>\n";
}

void printInstallation(Output& out, const ReportPage& page) {
  beginSection(out, "installation", "Installation");
  beginScroll(out, "Table of the findings");
  out << "<table>\n<caption>The findings of <code>vornctl "
         "doctor</code></caption>\n<thead><tr><th "
         "scope=\"col\">Examination</th><th scope=\"col\">Verdict</th><th "
         "scope=\"col\">Finding</th></tr></thead>\n<tbody>\n";
  for (const auto& [name, finding] : page.findings) {
    out << "<tr><th scope=\"row\">" << htmlText(name) << "</th><td class=\""
        << classFor(finding.verdict) << "\">"
        << htmlText(wordFor(finding.verdict)) << "</td><td>"
        << htmlText(finding.text);
    if (!finding.remedy.empty()) out << "; " << htmlText(finding.remedy);
    out << "</td></tr>\n";
  }
  out << "</tbody></table></div>\n</section>\n";
}

void printHost(Output& out, const ReportPage& page) {
  beginSection(out, "host", "Host and launcher");
  out << "<div class=\"scroll\">\n<table class=\"facts\">\n<caption>Facts at "
         "the time of the report</caption>\n<tbody>\n";
  for (const HostFact& fact : page.facts) {
    out << "<tr><th scope=\"row\">" << htmlText(fact.name) << "</th><td>"
        << htmlText(fact.value) << "</td></tr>\n";
  }
  out << "</tbody></table></div>\n</section>\n";
}

void printFooter(Output& out, const ReportPage& page) {
  out << "</main>\n<footer>\n<p>";
  if (page.hasEnvironment) {
    out << "This file contains the values of all variables of the launch "
           "file.";
  } else {
    out << "The values of variables are hidden, and words after names such as "
           "&#8220;password=&#8221;. Other secrets in the launch file and in "
           "the log are not recognized.";
  }
  out << "</p>\n</footer>\n<script>" << reportScript()
      << "</script>\n</body>\n</html>\n";
}

}  // namespace

void printReportPage(Output& out, const ReportPage& page) {
  printHead(out, page);
  printHeader(out, page);
  printVerdicts(out, page);
  printNodes(out, page);
  printTimelineSection(out, page);
  printLaunchFile(out, page);
  printLog(out, page);
  printInstallation(out, page);
  printHost(out, page);
  printFooter(out, page);
}

}  // namespace vorn::launch
