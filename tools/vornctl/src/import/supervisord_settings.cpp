#include "import/supervisord_settings.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "import/command_words.h"
#include "output/text.h"
#include "vorn/launch_rules.h"

namespace vorn::launch {
namespace {

// The keys of a program without a counterpart.
constexpr KeyAdvice kProgramAdvice[] = {
    {" exitcodes ",
     "a node is restarted after any exit status; 'oneshot: true' turns that "
     "off"},
    {" stopsignal ",
     "the launcher sends SIGTERM; start a script that traps it and sends this "
     "signal"},
    {" stopwaitsecs ", "the launcher sends SIGKILL 10 s after SIGTERM"},
    {" stopasgroup killasgroup ",
     "the launcher stops only the process of the node; the option --cgroup of "
     "vornrun gives the node a control group, for which the launcher's unit "
     "needs 'Delegate=yes'"},
    {" stdout_capture_maxbytes stderr_capture_maxbytes stdout_events_enabled "
     "stderr_events_enabled events buffer_size result_handler ",
     "the launcher has no events; 'vornctl monitor --json' prints the changes "
     "of nodes"},
    {" stdout_syslog stderr_syslog ",
     "the option '--log journal' of vornrun sends the output to the journal"},
    {" strip_ansi ", "the output is not changed"},
    {" serverurl ", "the control socket has a fixed path"},
};

constexpr std::string_view kConverted =
    " command process_name numprocs numprocs_start priority user umask "
    "directory environment autostart autorestart startsecs startretries "
    "redirect_stderr stdout_logfile stdout_logfile_maxbytes "
    "stdout_logfile_backups stderr_logfile stderr_logfile_maxbytes "
    "stderr_logfile_backups ";

/// The settings of one process, as members of an ImportedNode.
class ProcessSettings {
 public:
  ProcessSettings(const SourceText& file, const ProgramKeys& keys,
                  const ValueNames& names, ImportedNode& node)
      : file_(file), keys_(keys), expansion_(file, names), node_(node) {}

  void convert() {
    addCommand();
    addOption("user", "user");
    addOption("umask", "umask");
    addOption("directory", "directory");
    addVariables();
    addLog();
    addRestarts();
    addRest();
  }

 private:
  const IniEntry* find(const std::string& key) const {
    const auto found = keys_.find(key);
    return found == keys_.end() ? nullptr : &found->second;
  }

  void addCommand() {
    const IniEntry& entry = *find("command");
    const ExpandedValue command = expansion_.expand(entry);
    const auto words = shellWords(command.text);
    if (!words || words->empty()) {
      throw ImportError(file_, entry.line,
                        words ? "the command is empty"
                              : "a quote in the command is not closed");
    }
    node_.program = words->front();
    node_.arguments.assign(words->begin() + 1, words->end());
    if (command.hasVariables) node_.options.emplace_back("expand", "");
  }

  void addOption(const std::string& key, const char* option) {
    const IniEntry* const entry = find(key);
    if (entry == nullptr || entry->value.empty()) return;
    const ExpandedValue value = expansion_.expand(*entry);
    if (value.hasVariables || value.text[0] == '~') {
      node_.omit(key, entry->value,
                 std::string("write the value in the option --") + option +
                     " of vornrun, which does not expand it");
    } else {
      node_.options.emplace_back(option, value.text);
    }
  }

  void addVariables() {
    const IniEntry* const entry = find("environment");
    if (entry == nullptr) return;
    const ExpandedValue value = expansion_.expand(*entry);
    for (const auto& [name, text] : readVariables(file_, *entry, value.text)) {
      if (value.hasVariables && text.find("${") != std::string::npos) {
        node_.omit("environment " + name, text,
                   "write the value of the variable; nothing expands it");
      } else {
        node_.environment.emplace_back(name, text);
      }
    }
  }

  /// The path of the log file of a stream; empty if there is none.
  std::string logFile(const std::string& key) {
    const IniEntry* const entry = find(key);
    if (entry == nullptr) return "";
    const ExpandedValue value = expansion_.expand(*entry);
    const std::string word = lowerCase(value.text);
    if (word == "auto" || word.empty()) return "";
    if (word == "none" || word == "/dev/null") {
      node_.omit(key, entry->value,
                 "the output is part of the launcher's; write '>/dev/null' in "
                 "a script");
      return "";
    }
    if (startsWith(word, "/dev/")) return "";
    if (word == "syslog") {
      node_.options.emplace_back("log", "journal");
      return "";
    }
    return value.text;
  }

  void addLog() {
    const std::string output = logFile("stdout_logfile");
    const std::string errors = logFile("stderr_logfile");
    const std::string& file = output.empty() ? errors : output;
    if (file.empty()) return;
    std::string directory = logDirectoryFor(file);
    node_.omitted.push_back(
        {(output.empty() ? "stderr_logfile=" : "stdout_logfile=") + file,
         "vornrun writes both streams to files in the directory " + directory});
    node_.options.emplace_back("log-dir", std::move(directory));
    const std::string stream = output.empty() ? "stderr" : "stdout";
    if (const auto* const size = find(stream + "_logfile_maxbytes")) {
      if (size->value == "0") {
        node_.omit(size->key, "0", "vornrun always limits the size");
      } else {
        node_.options.emplace_back("log-size", sizeFor(size->value));
      }
    }
    if (const auto* const count = find(stream + "_logfile_backups")) {
      node_.options.emplace_back("log-keep",
                                 std::to_string(readNumber(file_, *count)));
    }
  }

  void addRestarts() {
    if (const IniEntry* const start = find("autostart")) {
      node_.isStarted = flagOf(file_, *start);
    }
    if (const IniEntry* const restart = find("autorestart")) {
      const bool is_default = lowerCase(restart->value) == "unexpected";
      node_.isOneshot = !is_default && !flagOf(file_, *restart);
    }
    const IniEntry* const retries = find("startretries");
    const IniEntry* const seconds = find("startsecs");
    if (retries != nullptr) {
      const long starts = readNumber(file_, *retries) + 1;
      const long period = std::max(long{kRestartInterval.count()},
                                   seconds ? readNumber(file_, *seconds) : 0);
      node_.options.emplace_back(
          "give-up",
          std::to_string(starts) + "/" + std::to_string(starts * period) + "s");
    } else if (seconds != nullptr && readNumber(file_, *seconds) > 1) {
      node_.omit("startsecs", seconds->value,
                 "a node runs once it is started; see the options --ready and "
                 "--give-up of vornrun");
    }
  }

  void addRest() {
    for (const auto& [key, entry] : keys_) {
      const char* const advice = adviceFor(kProgramAdvice, key);
      if (advice == nullptr || isDefault(entry)) continue;
      node_.omit(key, entry.value, advice);
    }
    for (const auto& [key, entry] : keys_) {
      const bool is_known =
          kConverted.find(' ' + key + ' ') != std::string_view::npos ||
          adviceFor(kProgramAdvice, key) != nullptr;
      if (!is_known) node_.omit(key, entry.value, "this key is not known");
    }
  }

  /// Whether the launcher does what this setting says.
  static bool isDefault(const IniEntry& entry) {
    const std::string value = upperCase(entry.value);
    if (entry.key == "stopsignal") return value == "TERM" || value == "SIGTERM";
    if (entry.key == "stopwaitsecs") return value == "10";
    return value == "FALSE" || value == "0" || value == "AUTO";
  }

  const SourceText& file_;
  const ProgramKeys& keys_;
  Expansion expansion_;
  ImportedNode& node_;
};

}  // namespace

void convertSettings(const SourceText& file, const ProgramKeys& keys,
                     const ValueNames& names, ImportedNode& node) {
  ProcessSettings(file, keys, names, node).convert();
}

}  // namespace vorn::launch
