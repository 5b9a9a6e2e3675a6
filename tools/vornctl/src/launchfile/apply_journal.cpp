#include "launchfile/apply_journal.h"

#include <filesystem>

#include "output/json.h"

namespace vorn::launch {

std::string replacedFile(const std::string& launch_file) {
  std::error_code ignored;
  const auto resolved = std::filesystem::weakly_canonical(launch_file, ignored);
  return resolved.empty() ? launch_file : resolved.string();
}

std::string previousFileOf(const std::string& launch_file) {
  return launch_file + ".previous";
}

std::string journalOf(const std::string& launch_file) {
  return launch_file + ".apply";
}

std::string lockFileOf(const std::string& launch_file) {
  return launch_file + ".lock";
}

std::string textOf(const ApplyJournal& journal) {
  const Json document = {{"replacing", journal.isReplacing},
                         {"hadFile", journal.hadFile},
                         {"time", journal.time}};
  return document.dump() + '\n';
}

ApplyJournal parseApplyJournal(const std::string& text) {
  const Json document = Json::parse(text, nullptr, false);
  try {
    ApplyJournal journal;
    journal.isReplacing = document.at("replacing").get<bool>();
    journal.hadFile = document.at("hadFile").get<bool>();
    journal.time = document.at("time").get<std::string>();
    return journal;
  } catch (const Json::exception&) {
    return {false, false, "an unknown time"};
  }
}

std::string describeInterruption(const ApplyJournal& journal) {
  return "an apply that began at " + journal.time + " was interrupted before " +
         (journal.isReplacing ? "its launch file was found to be healthy"
                              : "it replaced the launch file");
}

}  // namespace vorn::launch
