#include "check/report.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "check/rule_help.h"
#include "output/journal_prefix.h"
#include "output/json.h"
#include "output/table.h"
#include "vornctl_version.h"

namespace vorn::launch {
namespace {

// Grows when a member changes its meaning or is removed, not when one is added.
constexpr int kReportSchema = 1;
constexpr size_t kLongestSource = 120;  // bytes of a source line

Colour colourOf(Severity severity) {
  switch (severity) {
    case Severity::ERROR:
      return Colour::RED;
    case Severity::WARNING:
      return Colour::YELLOW;
    case Severity::NOTE:
      break;
  }
  return Colour::FAINT;
}

/// The start of the character at this position; the end of the line beyond it.
size_t characterBefore(std::string_view line, size_t position) {
  if (position >= line.size()) return line.size();
  const auto is_inside = [&] {
    return (static_cast<unsigned char>(line[position]) & 0xc0U) == 0x80U;
  };
  while (position > 0 && is_inside()) --position;
  return position;
}

void printSource(Output& out, const SourceText& document,
                 const SourceLocation& location) {
  const std::string_view line = document.line(location.line);
  if (line.empty()) return;
  const auto column = static_cast<size_t>(location.column) - 1;
  const bool is_short = line.size() <= kLongestSource;
  const bool is_cut = !is_short && column > kLongestSource / 2;
  const size_t begin =
      is_cut ? characterBefore(line, column - kLongestSource / 2) : 0;
  const size_t end = characterBefore(line, begin + kLongestSource);
  std::string part(line.substr(begin, end - begin));
  std::replace(part.begin(), part.end(), '\t', ' ');
  const OutputText ellipsis = is_cut ? "…" : OutputText();
  const OutputText prefix =
      ellipsis + terminalText(part.substr(0, column - begin));
  const size_t missing = column > line.size() ? column - line.size() : 0;
  out << "  " << ellipsis << terminalText(part)
      << (end < line.size() ? "…" : OutputText()) << "\n  "
      << spaces(displayWidth(prefix) + missing) << "^\n";
}

Json locationJson(const SourceLocation& location) {
  return {{"line", location.line}, {"column", location.column}};
}

/// The column in characters of UTF-8.
int codePointColumn(const SourceText& document,
                    const SourceLocation& location) {
  const std::string_view line = document.line(location.line);
  int column = 1;
  for (int i = 0; i < location.column - 1; ++i) {
    const auto index = static_cast<size_t>(i);
    const bool is_inside =
        index < line.size() &&
        (static_cast<unsigned char>(line[index]) & 0xc0U) == 0x80U;
    if (!is_inside) ++column;
  }
  return column;
}

/// A path as a URI reference.
std::string uriOf(const std::string& path) {
  static const std::string plain =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~/";
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string uri = path.rfind('/', 0) == 0 ? "file://" : "";
  for (const char letter : path) {
    if (plain.find(letter) != std::string::npos) {
      uri += letter;
      continue;
    }
    const auto byte = static_cast<unsigned char>(letter);
    uri += '%';
    uri += kDigits[byte >> 4U];
    uri += kDigits[byte & 0xfU];
  }
  return uri;
}

Json sarifLocation(const SourceText& document, const SourceLocation& location) {
  Json physical = {{"artifactLocation", {{"uri", uriOf(document.name())}}}};
  if (location.line > 0) {
    physical["region"] = {{"startLine", location.line},
                          {"startColumn", codePointColumn(document, location)}};
  }
  return {{"physicalLocation", physical}};
}

Json sarifResult(const SourceText& document, const Diagnostic& diagnostic) {
  Json result = {
      {"ruleId", diagnostic.check->name},
      {"level", wordFor(diagnostic.check->severity)},
      {"message", {{"text", diagnostic.message}}},
      {"locations",
       Json::array({sarifLocation(document, diagnostic.location)})},
  };
  Json related = Json::array();
  for (const Note& note : diagnostic.notes) {
    Json location = sarifLocation(document, note.location);
    location["message"] = {{"text", note.message}};
    related.push_back(std::move(location));
  }
  if (!related.empty()) result["relatedLocations"] = std::move(related);
  return result;
}

Json sarifRules() {
  Json rules = Json::array();
  for (const CheckInfo& check : allChecks()) {
    const std::string help = helpFor(check.name);
    rules.push_back(
        {{"id", check.name},
         {"shortDescription", {{"text", check.summary}}},
         {"help", {{"text", help}, {"markdown", help}}},
         {"defaultConfiguration", {{"level", wordFor(check.severity)}}}});
  }
  return rules;
}

JournalLevel journalLevelOf(Severity severity) {
  if (severity == Severity::ERROR) return JournalLevel::ERROR;
  return severity == Severity::WARNING ? JournalLevel::WARNING
                                       : JournalLevel::NOTICE;
}

}  // namespace

void printAsText(Output& out, const CheckedFile& file, bool has_source,
                 bool has_colours, int fd) {
  JournalLevel level = JournalLevel::NOTICE;
  const auto print_line = [&](const SourceLocation& location, const char* word,
                              Colour colour, const std::string& text) {
    const OutputText location_text = terminalText(
        file.document.name() + ':' + std::to_string(location.line) + ':' +
        std::to_string(location.column) + ':');
    out << journalPrefix(fd, level)
        << (has_colours ? coloured(location_text, Colour::BOLD) : location_text)
        << " "
        << (has_colours ? coloured(terminalText(word) + ":", colour)
                        : terminalText(word) + ":")
        << " " << terminalText(text) << "\n";
    if (has_source) printSource(out, file.document, location);
  };
  for (const Diagnostic& diagnostic : file.diagnostics.all()) {
    const Severity severity = diagnostic.check->severity;
    level = journalLevelOf(severity);
    print_line(diagnostic.location, wordFor(severity), colourOf(severity),
               diagnostic.message + " [" + diagnostic.check->name + ']');
    for (const Note& note : diagnostic.notes) {
      print_line(note.location, "note", Colour::FAINT, note.message);
    }
  }
}

void printAsJson(Output& out, const std::vector<CheckedFile>& files) {
  Json list = Json::array();
  for (const CheckedFile& file : files) {
    Json diagnostics = Json::array();
    for (const Diagnostic& diagnostic : file.diagnostics.all()) {
      Json each = locationJson(diagnostic.location);
      each["severity"] = wordFor(diagnostic.check->severity);
      each["name"] = diagnostic.check->name;
      each["message"] = diagnostic.message;
      each["notes"] = Json::array();
      for (const Note& note : diagnostic.notes) {
        Json location = locationJson(note.location);
        location["message"] = note.message;
        each["notes"].push_back(std::move(location));
      }
      diagnostics.push_back(std::move(each));
    }
    list.push_back({{"file", file.document.name()},
                    {"loads", file.isLoaded},
                    {"findings", std::move(diagnostics)}});
  }
  out << jsonText({{"schema", kReportSchema}, {"files", std::move(list)}});
}

void printAsSarif(Output& out, const std::vector<CheckedFile>& files) {
  Json results = Json::array();
  for (const CheckedFile& file : files) {
    for (const Diagnostic& diagnostic : file.diagnostics.all()) {
      results.push_back(sarifResult(file.document, diagnostic));
    }
  }
  const Json driver = {{"name", "vornctl"},
                       {"version", VORNCTL_VERSION},
                       {"rules", sarifRules()}};
  const Json run = {{"tool", {{"driver", driver}}},
                    {"columnKind", "unicodeCodePoints"},
                    {"results", std::move(results)}};
  out << jsonText({{"$schema", "https://json.schemastore.org/sarif-2.1.0.json"},
                   {"version", "2.1.0"},
                   {"runs", Json::array({run})}});
}

void printAsGithub(Output& out, const std::vector<CheckedFile>& files) {
  for (const CheckedFile& file : files) {
    for (const Diagnostic& diagnostic : file.diagnostics.all()) {
      const Severity severity = diagnostic.check->severity;
      const auto message = [](const std::string& text) {
        return githubText(text, GithubPart::MESSAGE);
      };
      const auto property = [](const std::string& text) {
        return githubText(text, GithubPart::PROPERTY);
      };
      out << "::"
          << terminalText(severity == Severity::NOTE ? "notice"
                                                     : wordFor(severity))
          << " file=" << property(file.document.name())
          << ",line=" << diagnostic.location.line
          << ",col=" << diagnostic.location.column
          << ",title=" << property(diagnostic.check->name)
          << "::" << message(diagnostic.message);
      for (const Note& note : diagnostic.notes) {
        out << "%0Aline " << note.location.line << ": "
            << message(note.message);
      }
      out << "\n";
    }
  }
}

}  // namespace vorn::launch
