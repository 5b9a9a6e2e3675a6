#include "live/metrics_text.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <string>

namespace vorn::launch {
namespace {

/// A launcher with a node of each kind; the name of the second is hostile.
LauncherMetrics exampleMetrics() {
  LauncherMetrics metrics;
  metrics.version = "1.2.3";
  metrics.isUp = true;
  metrics.isFileStale = false;
  metrics.orphans = 2;
  NodeMetrics camera;
  camera.view.name = "camera";
  camera.view.condition = Condition::RUNNING;
  camera.view.state = NodeState::RUNNING;
  camera.view.startSeconds = 1'795'000'000;
  camera.view.cpuSeconds = 12.25;
  camera.view.memoryBytes = 12'345'678'901;
  camera.view.isCrashLoop = true;
  HistoryEvent killed;
  killed.kind = HistoryEvent::Kind::EXITED;
  killed.code = CLD_DUMPED;
  killed.status = SIGSEGV;
  camera.view.lastExit = killed;
  camera.restarts = CountsByCause{7, 1, 2, 1};
  camera.isReady = true;
  NodeMetrics hostile;
  hostile.view.name = "a\"b\\c\n\x1b[31m\xff";
  hostile.view.condition = Condition::FAILED;
  hostile.view.state = NodeState::DISABLED;
  HistoryEvent exited = killed;
  exited.code = CLD_EXITED;
  exited.status = 3;
  hostile.view.lastExit = exited;
  hostile.restarts = CountsByCause{};
  NodeMetrics unlogged;
  unlogged.view.name = "unlogged";
  unlogged.view.condition = Condition::NEVER_STARTED;
  metrics.nodes = {camera, hostile, unlogged, camera};
  return metrics;
}

std::string expected(const std::string& file) {
  std::ifstream stream(std::string(VORN_TEST_DATA) + "/" + file);
  return {std::istreambuf_iterator<char>(stream), {}};
}

// scripts/lint.sh gives the same file to `promtool check metrics`.
TEST(MetricsTextTest, ContainsEachSeriesOnceInTheTextFormat) {
  EXPECT_EQ(metricsText(exampleMetrics(), MetricsFormat::PROMETHEUS).str(),
            expected("metrics.prom"));
}

TEST(MetricsTextTest, OpenMetricsNamesFamiliesWithoutSuffixesAndHasAnEnd) {
  const std::string text =
      metricsText(exampleMetrics(), MetricsFormat::OPENMETRICS).str();
  for (const std::string line :
       {"# TYPE vornlaunch_build "
        "info\nvornlaunch_build_info{version=\"1.2.3\"} 1",
        "# TYPE vornlaunch_node_restarts counter\n"
        "vornlaunch_node_restarts_total{node=\"camera\",cause=\"itself\"} 7",
        "# TYPE vornlaunch_node_cpu_seconds counter\n"
        "vornlaunch_node_cpu_seconds_total{node=\"camera\"} 12.25"}) {
    EXPECT_NE(text.find(line + "\n"), std::string::npos) << line;
  }
  EXPECT_EQ(text.substr(text.rfind('#')), "# EOF\n");
}

TEST(MetricsTextTest, WithoutALauncherOnlyTheLauncherHasMetrics) {
  LauncherMetrics metrics;
  metrics.version = "1.2.3";
  const std::string text =
      metricsText(metrics, MetricsFormat::PROMETHEUS).str();
  EXPECT_NE(text.find("\nvornlaunch_up 0\n"), std::string::npos);
  EXPECT_EQ(text.find("vornlaunch_node"), std::string::npos);
  EXPECT_EQ(text.find("stale"), std::string::npos);
}

}  // namespace
}  // namespace vorn::launch
