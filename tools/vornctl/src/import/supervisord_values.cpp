#include "import/supervisord_values.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "output/text.h"

namespace vorn::launch {

bool flagOf(const SourceText& file, const IniEntry& entry) {
  const std::string word = ' ' + lowerCase(entry.value) + ' ';
  const std::string_view yes = " true yes on 1 t y ";
  const std::string_view no = " false no off 0 f n ";
  if (yes.find(word) != std::string_view::npos) return true;
  if (no.find(word) != std::string_view::npos) return false;
  throw ImportError(file, entry.line,
                    entry.key + " is not true or false: '" + entry.value + "'");
}

long readNumber(const SourceText& file, const IniEntry& entry) {
  char* end = nullptr;
  const long number = std::strtol(entry.value.c_str(), &end, 10);
  if (!entry.value.empty() && *end == '\0' && std::labs(number) <= 1'000'000) {
    return number;
  }
  throw ImportError(file, entry.line,
                    entry.key + " is not a number: '" + entry.value + "'");
}

ExpandedValue Expansion::expand(const IniEntry& entry) const {
  ExpandedValue result;
  const std::string& text = entry.value;
  const bool has_variables = text.find("%(ENV_") != std::string::npos;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      result.text += text[i];
      // vornrun expands variables if there are any.
      if (text[i] == '$' && has_variables) result.text += '$';
    } else if (text.compare(i, 2, "%%") == 0) {
      result.text += text[i++];
    } else {
      i = appendName(entry, i, result);
    }
  }
  return result;
}

size_t Expansion::appendName(const IniEntry& entry, size_t percent,
                             ExpandedValue& result) const {
  const std::string& text = entry.value;
  const size_t end = text.find(')', percent);
  const size_t kind = text.find_first_of("sd", end);
  if (text.compare(percent, 2, "%(") != 0 || kind == std::string::npos) {
    throw ImportError(file_, entry.line,
                      "'%' in " + entry.key +
                          " without a name, such as %(ENV_HOME)s; write '%%' "
                          "for a '%'");
  }
  const std::string name = text.substr(percent + 2, end - percent - 2);
  const std::string width = text.substr(end + 1, kind - end - 1);
  const auto found = names_.find(name);
  if (name.rfind("ENV_", 0) == 0) {
    result.text += "${" + name.substr(4) + "}";
    result.hasVariables = true;
  } else if (found != names_.end()) {
    const size_t digits = std::strtoul(width.c_str(), nullptr, 10);
    const std::string& value = found->second;
    if (text[kind] == 'd' && digits < 10 && value.size() < digits) {
      result.text.append(digits - value.size(), '0');
    }
    result.text += value;
  } else {
    throw ImportError(file_, entry.line,
                      "unknown name '" + name + "' in " + entry.key);
  }
  return kind;
}

std::string withoutOuterBlanks(const std::string& text) {
  const size_t begin = text.find_first_not_of(" \t\n");
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(" \t\n") - begin + 1);
}

Assignments readVariables(const SourceText& file, const IniEntry& entry,
                          const std::string& value) {
  Assignments variables;
  for (size_t i = 0; i < value.size();) {
    const size_t equals = value.find('=', i);
    if (equals == std::string::npos) {
      if (value.find_first_not_of(" \t\n,", i) == std::string::npos) break;
      throw ImportError(file, entry.line,
                        "'=' is missing in " + entry.key + " after '" +
                            value.substr(i) + "'");
    }
    const std::string name = withoutOuterBlanks(value.substr(i, equals - i));
    const size_t begin = value.find_first_not_of(" \t\n", equals + 1);
    const char quote = begin == std::string::npos ? '\0' : value[begin];
    if (quote == '"' || quote == '\'') {
      const size_t end = value.find(quote, begin + 1);
      if (end == std::string::npos) {
        throw ImportError(file, entry.line,
                          "a quote in " + entry.key + " is not closed");
      }
      variables.emplace_back(name, value.substr(begin + 1, end - begin - 1));
      i = std::min(value.find(',', end), value.size() - 1) + 1;
    } else {
      const size_t end = std::min(value.find(',', equals), value.size());
      variables.emplace_back(
          name, withoutOuterBlanks(value.substr(equals + 1, end - equals - 1)));
      i = end + 1;
    }
  }
  return variables;
}

std::string sizeFor(std::string size) {
  size = upperCase(size);
  if (!size.empty() && size.back() == 'B') size.pop_back();
  return size;
}

}  // namespace vorn::launch
