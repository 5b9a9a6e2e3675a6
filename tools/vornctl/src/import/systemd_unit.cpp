#include "import/systemd_unit.h"

#include <algorithm>
#include <cstdlib>
#include <map>

#include "import/command_words.h"
#include "output/text.h"
#include "vorn/launch_rules.h"

namespace vorn::launch {
namespace {

using std::chrono::milliseconds;

bool isNameCharacter(char character) {
  return std::isalnum(static_cast<unsigned char>(character)) != 0 ||
         character == '_';
}

/// Whether a word contains a variable, which systemd expands.
bool hasVariable(const std::string& word) {
  for (size_t i = 0; i + 1 < word.size(); ++i) {
    if (word[i] != '$') continue;
    if (isNameCharacter(word[i + 1]) || word[i + 1] == '{') return true;
    ++i;
  }
  return false;
}

/// The word for a shell: "$NAME" is split there as well, "${NAME}" is not, and
/// "$$" is a '$'.
std::string shellWord(const std::string& word) {
  if (word.size() > 1 && word[0] == '$' && isNameCharacter(word[1])) {
    return word;
  }
  std::string quoted = "\"";
  for (size_t i = 0; i < word.size(); ++i) {
    const bool is_dollar = word.compare(i, 2, "$$") == 0;
    if (is_dollar || word[i] == '"' || word[i] == '\\' || word[i] == '`') {
      quoted += '\\';
    }
    quoted += word[i];
    if (is_dollar) ++i;
  }
  return quoted + '"';
}

std::string withSingleDollars(std::string word) {
  for (size_t i = word.find("$$"); i != std::string::npos;
       i = word.find("$$", i + 1)) {
    word.erase(i, 1);
  }
  return word;
}

}  // namespace

std::optional<milliseconds> unitDuration(const std::string& text) {
  static const std::map<std::string, double> units = {
      {"", 1000},      {"s", 1000},       {"sec", 1000},    {"ms", 1},
      {"msec", 1},     {"us", 0.001},     {"min", 60e3},    {"m", 60e3},
      {"minute", 6e4}, {"minutes", 60e3}, {"second", 1000}, {"seconds", 1000},
      {"h", 36e5},     {"hr", 36e5},      {"hour", 36e5},   {"hours", 36e5},
      {"d", 864e5},    {"day", 864e5},    {"days", 864e5}};
  double total = 0;
  const char* position = text.c_str();
  if (*position == '\0') return std::nullopt;
  while (*position != '\0') {
    char* end = nullptr;
    const double number = std::strtod(position, &end);
    if (end == position || number < 0 || number > 1e9) return std::nullopt;
    while (*end == ' ') ++end;
    std::string unit;
    while (std::isalpha(static_cast<unsigned char>(*end)) != 0) unit += *end++;
    while (*end == ' ') ++end;
    const auto found = units.find(unit);
    if (found == units.end()) return std::nullopt;
    total += number * found->second;
    position = end;
  }
  if (total > 1e10) return std::nullopt;
  return milliseconds(static_cast<int64_t>(total));
}

std::string durationText(milliseconds duration) {
  const auto count = duration.count();
  return count % 1000 == 0 ? std::to_string(count / 1000) + "s"
                           : std::to_string(count) + "ms";
}

std::string textBefore(const std::string& text, char separator) {
  return text.substr(0, text.find(separator));
}

std::string nodeNameOf(const std::string& unit) {
  return unit.substr(0, unit.rfind('.'));
}

void UnitImporter::read() {
  bool is_service = false;
  for (const IniSection& section : readUnitText(file_)) {
    if (startsWith(section.name, "X-")) continue;
    is_service = is_service || section.name == "Service";
    for (const IniEntry& entry : section.entries) {
      // An empty value removes the earlier ones.
      const auto is_same = [&](const IniEntry& other) {
        return other.key == entry.key;
      };
      const bool is_set = startsWith(entry.key, "Capability");
      if (entry.value.empty() && !is_set) {
        entries_.erase(
            std::remove_if(entries_.begin(), entries_.end(), is_same),
            entries_.end());
      } else if (!startsWith(entry.key, "X-")) {
        entries_.push_back(entry);
      }
    }
  }
  if (is_service) return;
  throw ImportError(file_, 0,
                    "no section [Service]; only services can be imported");
}

std::vector<const IniEntry*> UnitImporter::take(const std::string& key) {
  taken_.insert(key);
  std::vector<const IniEntry*> found;
  for (const IniEntry& entry : entries_) {
    if (entry.key == key) found.push_back(&entry);
  }
  return found;
}

const IniEntry* UnitImporter::takeLast(const std::string& key) {
  const auto found = take(key);
  return found.empty() ? nullptr : found.back();
}

/// The value of a specifier; empty if it depends on the machine.
std::string UnitImporter::specifier(char letter) const {
  const std::string& plain = node_.name;
  const size_t at = plain.find('@');
  std::string instance = at == std::string::npos ? "" : plain.substr(at + 1);
  switch (letter) {
    case 'n':
      return name_;
    case 'N':
      return plain;
    case 'p':
      return textBefore(plain, '@');
    case 'i':
    case 'I':
      return instance;
    case 't':
      return "/run";
    case 'S':
      return "/var/lib";
    case 'C':
      return "/var/cache";
    case 'L':
      return "/var/log";
    case 'E':
      return "/etc";
    case 'T':
      return "/tmp";
    case 'V':
      return "/var/tmp";
    case 'h':
      return "/root";
    case 'u':
    case 'g':
      return "root";
    case 'U':
    case 'G':
      return "0";
    case '%':
      return "%";
    default:
      return "";
  }
}

std::string UnitImporter::expanded(const std::string& text) {
  std::string result;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%' || i + 1 == text.size()) {
      result += text[i];
      continue;
    }
    const std::string value = specifier(text[++i]);
    result += value;
    if (value.empty()) {
      node_.omitted.push_back({std::string("%") + text[i] + " in " + text,
                               "write the value of the specifier"});
    }
  }
  return result;
}

void UnitImporter::addOption(const std::string& key, const char* option) {
  const IniEntry* const entry = takeLast(key);
  if (entry != nullptr) {
    node_.options.emplace_back(option, expanded(entry->value));
  }
}

void UnitImporter::addDuration(const std::string& key, const char* option) {
  const IniEntry* const entry = takeLast(key);
  if (entry == nullptr) return;
  const auto duration = unitDuration(entry->value);
  if (!duration) {
    node_.omit(key, entry->value, "not a time for vornrun");
  } else if (duration->count() > 0) {
    node_.options.emplace_back(option, durationText(*duration));
  }
}

void UnitImporter::addCommand() {
  const auto entries = take("ExecStart");
  if (entries.empty()) throw ImportError(file_, 0, "no ExecStart");
  const IniEntry& entry = *entries.front();
  auto words = unitWords(expanded(entry.value));
  if (!words) {
    throw ImportError(file_, entry.line, "a quote in ExecStart is not closed");
  }
  addWords(entry, std::move(*words));
  for (size_t i = 1; i < entries.size(); ++i) {
    node_.omit("ExecStart", entries[i]->value,
               "start a script that runs the commands");
  }
}

void UnitImporter::addWords(const IniEntry& entry,
                            std::vector<std::string> words) {
  if (words.empty()) throw ImportError(file_, entry.line, "no program");
  const size_t begin = words[0].find_first_not_of("-@:+!|");
  const std::string prefixes = words[0].substr(0, begin);
  words[0].erase(0, begin);
  const auto has = [&](char prefix) {
    return prefixes.find(prefix) != std::string::npos;
  };
  if (has('@') && words.size() > 1) {
    node_.omit("ExecStart", entry.value,
               "'@': the program gets its path as argv[0]");
    words.erase(words.begin() + 1);
  }
  if (has('+') || has('!')) {
    node_.omit("ExecStart", entry.value,
               "'+' and '!': the program gets the user of the other settings");
  }
  if (!has(':') && std::any_of(words.begin(), words.end(), hasVariable)) {
    std::string command = "exec";
    for (const std::string& word : words) command += " " + shellWord(word);
    words = {"/bin/sh", "-c", command};
  } else if (!has(':')) {
    std::transform(words.begin(), words.end(), words.begin(),
                   withSingleDollars);
  }
  node_.program = words.front();
  node_.arguments.assign(words.begin() + 1, words.end());
}

}  // namespace vorn::launch
