#include "process/environment.h"

#include <unistd.h>

#include <algorithm>

#include "environment_file.h"
#include "file_text.h"
#include "vorn/launch_rules.h"

namespace vorn::run {
namespace {

// The launcher's own connections to the service manager.
constexpr const char* kServiceVariables[] = {"NOTIFY_SOCKET", "WATCHDOG_PID",
                                             "WATCHDOG_USEC", "LISTEN_PID",
                                             "LISTEN_FDS",    "LISTEN_FDNAMES"};

bool isEntryOf(const std::string& entry, const std::string& name) {
  return entry.size() > name.size() && entry[name.size()] == '=' &&
         entry.compare(0, name.size(), name) == 0;
}

std::optional<RunError> addFile(const std::string& option,
                                Environment& environment) {
  const bool may_be_missing = option.substr(0, 1) == "-";
  const std::string path = option.substr(may_be_missing ? 1 : 0);
  const FileText file = readFileText(path);
  if (file.isMissing && may_be_missing) return std::nullopt;
  if (!file.error.empty()) {
    return RunError{"--env-file", "cannot read " + path + ": " + file.error};
  }
  const EnvironmentFile parsed = parseEnvironmentFile(file.text);
  if (!parsed.error.empty()) {
    return RunError{"--env-file", path + ": " + parsed.error};
  }
  for (const auto& [name, value] : parsed.variables) {
    environment.set(name, value);
  }
  return std::nullopt;
}

void addAccount(const Account& account, Environment& environment) {
  if (account.name.empty()) return;
  environment.set("HOME", account.home);
  environment.set("LOGNAME", account.name);
  environment.set("USER", account.name);
  environment.set(
      "SHELL", account.shell.empty() ? std::string("/bin/sh") : account.shell);
}

/// The name at `begin`, without braces.
std::string nameAt(const std::string& text, size_t begin) {
  size_t end = begin;
  while (end < text.size() && isVariableName(std::string_view(text).substr(
                                  begin, end + 1 - begin))) {
    ++end;
  }
  return text.substr(begin, end - begin);
}

}  // namespace

Environment Environment::inherited() {
  Environment result;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    result.entries_.emplace_back(*entry);
  }
  return result;
}

void Environment::set(const std::string& name, const std::string& value) {
  unset(name);
  entries_.push_back(name + "=" + value);
}

void Environment::unset(const std::string& name) {
  entries_.erase(std::remove_if(entries_.begin(), entries_.end(),
                                [&](const std::string& entry) {
                                  return isEntryOf(entry, name);
                                }),
                 entries_.end());
}

std::optional<std::string> Environment::find(const std::string& name) const {
  for (const std::string& entry : entries_) {
    if (isEntryOf(entry, name)) return entry.substr(name.size() + 1);
  }
  return std::nullopt;
}

std::optional<RunError> buildEnvironment(const RunSettings& settings,
                                         const Account* account,
                                         const Environment& inherited,
                                         Environment& result) {
  result = settings.clearEnvironment ? Environment() : inherited;
  const auto node = inherited.find(launch::kNodeNameVariable);
  if (node) result.set(launch::kNodeNameVariable, *node);
  for (const char* const name : kServiceVariables) result.unset(name);
  if (account != nullptr) addAccount(*account, result);
  for (const std::string& file : settings.environmentFiles) {
    if (auto error = addFile(file, result)) return error;
  }
  for (const auto& [name, value] : settings.environment) {
    result.set(name, value);
  }
  return std::nullopt;
}

std::optional<std::string> expandVariables(const std::string& text,
                                           const Environment& environment,
                                           std::string& missing) {
  std::string result;
  for (size_t i = 0; i < text.size();) {
    if (text[i] != '$' || i + 1 == text.size()) {
      result += text[i++];
      continue;
    }
    const bool is_braced = text[i + 1] == '{';
    const std::string name = nameAt(text, i + (is_braced ? 2 : 1));
    size_t length = name.size() + 1;
    if (is_braced) {
      const size_t end = i + 2 + name.size();
      length = end < text.size() && text[end] == '}' ? name.size() + 3 : 1;
    }
    if (name.empty() || length == 1) {
      result += '$';
      i += text[i + 1] == '$' ? 2 : 1;
      continue;
    }
    const auto value = environment.find(name);
    if (!value) {
      missing = name;
      return std::nullopt;
    }
    result += *value;
    i += length;
  }
  return result;
}

}  // namespace vorn::run
