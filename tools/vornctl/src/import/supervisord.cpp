#include "import/supervisord.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <tuple>

#include "import/supervisord_settings.h"
#include "import/supervisord_values.h"

namespace vorn::launch {
namespace {

constexpr int kDefaultPriority = 999;

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
  convertSettings(*program.file, keys, names, node);
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
