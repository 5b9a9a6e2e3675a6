#include "launchfile/yaml_text.h"

#include <yaml-cpp/eventhandler.h>

#include <algorithm>
#include <cstddef>
#include <optional>
#include <sstream>
#include <string_view>
#include <vector>

namespace vorn::launch {
namespace {

/// Collects the start of each document.
class DocumentStarts : public YAML::EventHandler {
 public:
  std::vector<SourceLocation> locations;

  void OnDocumentStart(const YAML::Mark& mark) override {
    locations.push_back(locationOf(mark));
  }
  void OnDocumentEnd() override {}
  void OnNull(const YAML::Mark&, YAML::anchor_t) override {}
  void OnAlias(const YAML::Mark&, YAML::anchor_t) override {}
  void OnScalar(const YAML::Mark&, const std::string&, YAML::anchor_t,
                const std::string&) override {}
  void OnSequenceStart(const YAML::Mark&, const std::string&, YAML::anchor_t,
                       YAML::EmitterStyle::value) override {}
  void OnSequenceEnd() override {}
  void OnMapStart(const YAML::Mark&, const std::string&, YAML::anchor_t,
                  YAML::EmitterStyle::value) override {}
  void OnMapEnd() override {}
};

/// Whether the text can continue after its first document, whose root this is.
/// A mapping in block style without indentation extends to the end of the text
/// or to a line that starts like one of these.
bool canContinue(const YAML::Node& root, const std::string& text) {
  const bool is_block =
      root.IsMap() && root.Style() == YAML::EmitterStyle::Block;
  if (!is_block || root.Mark().column != 0) return true;
  if (text.find('\0') != std::string::npos) return true;  // not in UTF-8
  const auto lines = {"\n---", "\n...", "\n%"};
  return std::any_of(lines.begin(), lines.end(), [&](const char* line) {
    return text.find(line) != std::string::npos;
  });
}

/// The text with each tab in the indentation of a line as `width` spaces.
std::string withoutTabs(const std::string& text, size_t width) {
  std::string result;
  bool is_indentation = true;
  for (const char letter : text) {
    if (letter == '\t' && is_indentation) {
      result.append(width, ' ');
      continue;
    }
    result += letter;
    is_indentation = letter == '\n' || (is_indentation && letter == ' ');
  }
  return result;
}

/// Whether tabs in the indentation cause the syntax error in this line, counted
/// from 0: with spaces, as many as are usual for a tab, the line is valid.
bool isCausedByTabs(const std::string& text, int line) {
  const auto widths = {2U, 4U, 8U};
  return std::any_of(widths.begin(), widths.end(), [&](size_t width) {
    try {
      (void)YAML::Load(withoutTabs(text, width));
    } catch (const YAML::Exception& exception) {
      return exception.mark.line != line;
    }
    return true;
  });
}

/// The first tab in the indentation of this line or of the line before it.
std::optional<SourceLocation> indentationTab(const SourceText& document,
                                             int line) {
  for (const int number : {line, line - 1}) {
    const std::string_view text = document.line(number);
    const size_t tab = text.substr(0, text.find_first_not_of(" \t")).find('\t');
    if (tab != std::string_view::npos) {
      return SourceLocation{number, static_cast<int>(tab) + 1};
    }
  }
  return std::nullopt;
}

}  // namespace

SourceLocation locationOf(const YAML::Mark& mark) {
  return mark.is_null() ? SourceLocation{}
                        : SourceLocation{mark.line + 1, mark.column + 1};
}

SourceLocation locationOfValue(const SourceText& document,
                               const YAML::Node& key, const YAML::Node& value) {
  const YAML::Mark key_mark = key.Mark();
  const YAML::Mark mark = value.Mark();
  const bool is_alias = mark.pos <= key_mark.pos;
  const bool is_elsewhere = value.IsNull() && mark.line != key_mark.line;
  if (!is_alias && !is_elsewhere) return locationOf(mark);
  const SourceLocation location = locationOf(key_mark);
  const std::string_view line = document.line(location.line);
  const size_t length = key.IsScalar() ? key.Scalar().size() : 0;
  const size_t key_end = static_cast<size_t>(key_mark.column) + length;
  for (size_t colon = line.find(':', key_end); colon != std::string::npos;
       colon = line.find(':', colon + 1)) {
    if (colon + 1 < line.size() && line[colon + 1] != ' ') continue;
    return {location.line, static_cast<int>(colon) + 3};
  }
  return location;
}

std::string kindOf(const YAML::Node& value) {
  if (value.IsNull()) return "nothing";
  if (value.IsSequence()) return "a list";
  if (value.IsMap()) return "a mapping";
  return "'" + value.Scalar() + "'";
}

SourceLocation findSecondDocument(const YAML::Node& root,
                                  const std::string& text) {
  // Most files need not be parsed a second time.
  if (!canContinue(root, text)) return {};
  std::istringstream stream(text);
  YAML::Parser parser(stream);
  DocumentStarts starts;
  try {
    if (!parser.HandleNextDocument(starts)) return {};
    if (!parser.HandleNextDocument(starts)) return {};
  } catch (const YAML::Exception& exception) {
    if (starts.locations.size() < 2) return locationOf(exception.mark);
  }
  return starts.locations.size() < 2 ? SourceLocation{} : starts.locations[1];
}

LoadError syntaxError(const SourceText& document,
                      const YAML::Exception& exception) {
  const SourceLocation location = locationOf(exception.mark);
  const auto tab = indentationTab(document, location.line);
  if (tab && isCausedByTabs(document.text(), exception.mark.line)) {
    return {"syntax", *tab,
            "this line is indented with a tab; indent with spaces only",
            exception.what()};
  }
  return {"syntax", location, exception.msg, exception.what()};
}

}  // namespace vorn::launch
