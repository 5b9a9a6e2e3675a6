#include "import/supervisord.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <tuple>

#include "import/command_words.h"
#include "import/supervisord_values.h"
#include "output/text.h"
#include "vorn/launch_rules.h"

namespace vorn::launch {
namespace {

constexpr int kDefaultPriority = 999;

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

// Other sections.
constexpr KeyAdvice kSectionAdvice[] = {
    {" unix_http_server inet_http_server supervisorctl ",
     "the launcher has one control socket, which vornctl uses; root and the "
     "launcher's user can connect"},
    {" supervisord ", "write this in the launcher's unit"},
    {" rpcinterface ", "the launcher has one protocol, which is documented"},
    {" eventlistener ",
     "the launcher has no events; 'vornctl monitor --json' prints the changes "
     "of nodes"},
    {" fcgi-program ",
     "the launcher does not pass sockets; let the program open its own, or use "
     "socket activation of systemd"},
};

/// Converts the files, one after the other, and puts the nodes in order.
class SupervisordImporter {
 public:
  void addSections(const SourceText& file);
  Imported finish();

 private:
  using Position = std::tuple<int, int>;  // priorities of group and program

  struct Program {
    const SourceText* file;
    IniSection section;
    std::string name;
  };
  struct Group {
    std::string name;
    int priority = 0;
  };

  void addGroup(const SourceText& file, const IniSection& section);
  void addGlobal(const SourceText& file, const IniSection& section);
  void addProgram(const Program& program);
  ImportedNode process(const Program& program, const ProgramKeys& keys,
                       long number, long count);

  std::vector<Program> programs_;
  std::map<std::string, Group> groups_;  // by program
  std::vector<std::pair<Position, ImportedNode>> nodes_;
  Imported imported_;
};

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

constexpr std::string_view kConverted =
    " command process_name numprocs numprocs_start priority user umask "
    "directory environment autostart autorestart startsecs startretries "
    "redirect_stderr stdout_logfile stdout_logfile_maxbytes "
    "stdout_logfile_backups stderr_logfile stderr_logfile_maxbytes "
    "stderr_logfile_backups ";

void SupervisordImporter::addSections(const SourceText& file) {
  for (const IniSection& section : readSupervisordText(file)) {
    const size_t colon = section.name.find(':');
    const std::string kind = section.name.substr(0, colon);
    const std::string name =
        colon == std::string::npos
            ? ""
            : withoutOuterBlanks(section.name.substr(colon + 1));
    if (kind == "program") {
      programs_.push_back({&file, section, name});
    } else if (kind == "group") {
      addGroup(file, section);
    } else {
      addGlobal(file, section);
    }
  }
}

void SupervisordImporter::addGroup(const SourceText& file,
                                   const IniSection& section) {
  Group group{
      withoutOuterBlanks(section.name.substr(section.name.find(':') + 1)),
      kDefaultPriority};
  for (const IniEntry& entry : section.entries) {
    if (entry.key == "priority") {
      group.priority = static_cast<int>(readNumber(file, entry));
    }
  }
  for (const IniEntry& entry : section.entries) {
    if (entry.key != "programs") continue;
    for (const std::string& name : split(entry.value, ',')) {
      groups_[withoutOuterBlanks(name)] = group;
    }
  }
}

void SupervisordImporter::addGlobal(const SourceText& file,
                                    const IniSection& section) {
  const std::string kind = section.name.substr(0, section.name.find(':'));
  if (kind == "include") {
    for (const IniEntry& entry : section.entries) {
      imported_.omitted.push_back({"[include] " + entry.key + "=" + entry.value,
                                   "add these files to the command line"});
    }
    return;
  }
  const char* const advice = adviceFor(kSectionAdvice, kind);
  const std::string reason =
      advice == nullptr ? "this section is not known" : advice;
  if (kind != "supervisord") {
    imported_.omitted.push_back({"[" + section.name + "]", reason});
    return;
  }
  for (const IniEntry& entry : section.entries) {
    if (entry.key == "environment") {
      imported_.environment = readVariables(file, entry, entry.value);
    } else {
      imported_.omitted.push_back(
          {"[supervisord] " + entry.key + "=" + entry.value, reason});
    }
  }
}

void SupervisordImporter::addProgram(const Program& program) {
  ProgramKeys keys;
  for (const IniEntry& entry : program.section.entries) keys[entry.key] = entry;
  if (keys.count("command") == 0) {
    throw ImportError(*program.file, program.section.line,
                      "[" + program.section.name + "] has no command");
  }
  const auto number = [&](const char* key, long other) {
    const auto found = keys.find(key);
    return found == keys.end() ? other
                               : readNumber(*program.file, found->second);
  };
  const auto group = groups_.find(program.name);
  const int priority = static_cast<int>(number("priority", kDefaultPriority));
  const Position position{
      group == groups_.end() ? priority : group->second.priority, priority};
  const long count = number("numprocs", 1);
  if (count < 0 || count > 1000) {
    throw ImportError(*program.file, keys["numprocs"].line,
                      "numprocs is not between 0 and 1000");
  }
  const long first = number("numprocs_start", 0);
  for (long i = first; i < first + count; ++i) {
    nodes_.emplace_back(position, process(program, keys, i, count));
  }
}

/// The name of a process; throws ImportError if several have the same.
std::string processName(const SourceText& file, const IniSection& section,
                        const ProgramKeys& keys, const ValueNames& names) {
  const auto found = keys.find("process_name");
  const IniEntry entry = found == keys.end()
                             ? IniEntry{"", "%(program_name)s", section.line}
                             : found->second;
  if (names.at("numprocs") != "1" &&
      entry.value.find("process_num") == std::string::npos) {
    throw ImportError(file, entry.line,
                      "process_name needs %(process_num)s, since numprocs is "
                      "more than 1");
  }
  return Expansion(file, names).expand(entry).text;
}

ImportedNode SupervisordImporter::process(const Program& program,
                                          const ProgramKeys& keys, long number,
                                          long count) {
  const auto found = groups_.find(program.name);
  const std::string group =
      found == groups_.end() ? program.name : found->second.name;
  const std::filesystem::path path(program.file->name());
  const ValueNames names = {
      {"here", std::filesystem::absolute(path).parent_path().string()},
      {"program_name", program.name},
      {"group_name", group},
      {"process_num", std::to_string(number)},
      {"numprocs", std::to_string(count)}};
  ImportedNode node;
  node.name = processName(*program.file, program.section, keys, names);
  // As supervisorctl names it: a pattern such as 'web:*' selects a group.
  if (group != node.name) node.name = group + ":" + node.name;
  ProcessSettings(*program.file, keys, names, node).convert();
  for (const auto& [key, entry] : keys) {
    const bool is_known =
        kConverted.find(' ' + key + ' ') != std::string_view::npos ||
        adviceFor(kProgramAdvice, key) != nullptr;
    if (!is_known) node.omit(key, entry.value, "this key is not known");
  }
  return node;
}

Imported SupervisordImporter::finish() {
  for (const Program& program : programs_) addProgram(program);
  std::stable_sort(
      nodes_.begin(), nodes_.end(),
      [](const auto& a, const auto& b) { return a.first < b.first; });
  imported_.omitted.insert(
      imported_.omitted.begin(),
      {"",
       "The launcher restarts a node after any exit, 5 s after its start, "
       "also with autorestart=unexpected."});
  for (auto& [position, node] : nodes_) {
    imported_.nodes.push_back(std::move(node));
  }
  return std::move(imported_);
}

}  // namespace

Imported importSupervisord(const std::vector<SourceText>& files) {
  SupervisordImporter importer;
  for (const SourceText& file : files) importer.addSections(file);
  return importer.finish();
}

}  // namespace vorn::launch
