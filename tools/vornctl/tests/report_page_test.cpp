#include "commands/report_page.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace vorn::launch {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

std::string htmlOf(const ReportPage& page) {
  std::ostringstream text;
  Output out(text);
  printReportPage(out, page);
  return text.str();
}

ReportPage pageWith(Condition condition) {
  ReportPage page;
  NodeView& view = page.nodes.emplace_back();
  view.name = "camera";
  view.condition = condition;
  return page;
}

ReportVerdict verdictWith(bool are_lines_its_own) {
  return {"camera", {}, {"<last>"}, are_lines_its_own};
}

TEST(ReportPageTest, EachConditionHasASymbol) {
  const std::pair<Condition, const char*> symbols[] = {
      {Condition::RUNNING, "&#9679;"},       {Condition::EXITING, "&#9684;"},
      {Condition::STOPPING, "&#9684;"},      {Condition::RESTARTING, "&#8635;"},
      {Condition::DISABLED, "&#8856;"},      {Condition::STOPPED, "&#9632;"},
      {Condition::NEVER_STARTED, "&#9675;"}, {Condition::FAILED, "&#10007;"},
      {Condition::UNKNOWN_NODE, "?"}};
  for (const auto& [condition, symbol] : symbols) {
    EXPECT_THAT(htmlOf(pageWith(condition)),
                HasSubstr("<span aria-hidden=\"true\">" + std::string(symbol) +
                          "</span>"));
  }
}

TEST(ReportPageTest, AnEmptyReportNamesTheMissingParts) {
  EXPECT_THAT(htmlOf({}),
              AllOf(HasSubstr("The states of the nodes are not known."),
                    HasSubstr("There are no events."),
                    HasSubstr("The launch file is not known."),
                    HasSubstr("There are no log lines.")));
}

TEST(ReportPageTest, ProblemsHaveTheLinesBeforeTheExit) {
  ReportPage page = pageWith(Condition::FAILED);
  page.verdicts = {verdictWith(true)};
  EXPECT_THAT(htmlOf(page),
              AllOf(HasSubstr("Last lines of that run:"),
                    HasSubstr("&#60;last&#62;"), Not(HasSubstr("more nodes"))));
  page.verdicts = {verdictWith(false)};
  page.omittedVerdicts = 7;
  EXPECT_THAT(htmlOf(page),
              AllOf(HasSubstr("Last lines before that exit, of all nodes:"),
                    HasSubstr("<p>7 more nodes need attention")));
}

TEST(ReportPageTest, OmittedEventsAreCounted) {
  ReportPage page;
  page.timeline.rows = {{"camera", {}, {}}};
  page.timeline.endUs = 1'000'000;
  EXPECT_THAT(htmlOf(page), Not(HasSubstr("events as a table")));
  page.events = {{1, "camera", "started", false},
                 {2, "camera", "failed", true}};
  page.omittedEvents = 5;
  EXPECT_THAT(htmlOf(page), AllOf(HasSubstr("2 events as a table"),
                                  HasSubstr("; 5 older ones are omitted"),
                                  HasSubstr("<td class=\"bad\">failed</td>")));
}

TEST(ReportPageTest, DiagnosticsFollowTheLinesThatTheyAreAbout) {
  const CheckInfo* const error = &allChecks().front();
  const LaunchFile file;
  ReportPage page;
  page.launchFile = &file;
  page.fileLines = {"one", "two"};
  page.diagnostics = {{error, {2, 1}, "about two", {{{1, 1}, "see one"}}},
                      {error, {9, 1}, "about the end", {}}};
  const std::string html = htmlOf(page);
  EXPECT_THAT(html,
              AllOf(HasSubstr("<li class=\"marked\"><code>two</code>"),
                    HasSubstr("line 1: see one"), HasSubstr("about the end"),
                    Not(HasSubstr("more lines are not shown"))));
  EXPECT_GT(html.find("about two"), html.find("<code>two"));
  page.fileLines.resize(kMostFileLines + 3);
  EXPECT_THAT(htmlOf(page), HasSubstr("<p>3 more lines are not shown.</p>"));
}

TEST(ReportPageTest, EachVerdictAndSeverityHasAClass) {
  ReportPage page;
  const LaunchFile file;
  page.launchFile = &file;
  const std::pair<Verdict, const char*> verdicts[] = {
      {Verdict::ERROR, "bad"},
      {Verdict::WARNING, "warn"},
      {Verdict::UNKNOWN, "muted"},
      {Verdict::PASSED, "good"}};
  for (const auto& [verdict, name] : verdicts) {
    page.findings = {{"log", {verdict, "x", "repair it"}}};
    EXPECT_THAT(htmlOf(page),
                AllOf(HasSubstr("<td class=\"" + std::string(name)),
                      HasSubstr("x; repair it</td>")));
  }
  for (const CheckInfo& check : allChecks()) {
    page.diagnostics = {{&check, {1, 1}, "x", {}}};
    const char* const name = check.severity == Severity::ERROR     ? "bad"
                             : check.severity == Severity::WARNING ? "warn"
                                                                   : "muted";
    EXPECT_THAT(htmlOf(page), HasSubstr("<p class=\"diagnostic " +
                                        std::string(name) + "\">"));
  }
}

}  // namespace
}  // namespace vorn::launch
