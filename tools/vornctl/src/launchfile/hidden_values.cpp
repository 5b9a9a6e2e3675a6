#include "launchfile/hidden_values.h"

#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/yaml.h>

#include <map>
#include <set>
#include <sstream>
#include <string_view>
#include <utility>

#include "output/output_text.h"
#include "output/text.h"

namespace vorn::launch {
namespace {

constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";

/// A part of a text, in bytes.
struct TextRange {
  size_t begin = 0;
  size_t end = std::string::npos;
};

/// Whether the values below a key of this name can be variables. Misspelt names
/// are included.
bool isEnvironmentKey(const std::string& key) {
  static const std::set<std::string> kOthers = {"env", "envs", "env_vars",
                                                "vars", "variables"};
  const std::string name = lowerCase(key);
  return name.rfind("envi", 0) == 0 || kOthers.count(name) > 0;
}

/// Collects the ranges of the values of variables from the tokens of a text. A
/// range extends to the next token, since yaml-cpp reports only where a value
/// begins.
class ValueFinder : public YAML::EventHandler {
 public:
  explicit ValueFinder(const std::string& text) : text_(text) {
    if (text.compare(0, kByteOrderMark.size(), kByteOrderMark) == 0) {
      offset_ = kByteOrderMark.size();
    }
  }

  /// Which bytes of the text are hidden. `is_whole`: the text was read to its
  /// end.
  std::vector<bool> hiddenBytes(bool is_whole) {
    if (!is_whole) ranges_.push_back({last_ + 1});
    addAliased();
    std::vector<bool> is_hidden(text_.size(), false);
    for (const TextRange& range : ranges_) mark(range, is_hidden, true);
    for (const TextRange& range : names_) mark(range, is_hidden, false);
    return is_hidden;
  }

  void OnDocumentStart(const YAML::Mark& mark) override {
    ++document_;
    enterToken(mark);
  }
  void OnDocumentEnd() override {}
  void OnNull(const YAML::Mark& mark, YAML::anchor_t anchor) override {
    enterNode(mark, anchor, nullptr);
    leaveNode(anchor);
  }
  void OnAlias(const YAML::Mark& mark, YAML::anchor_t anchor) override {
    enterNode(mark, 0, nullptr);
    aliases_.push_back({byteOffset(mark), {document_, anchor}});
    leaveNode(0);
  }
  void OnScalar(const YAML::Mark& mark, const std::string& /*tag*/,
                YAML::anchor_t anchor, const std::string& value) override {
    enterNode(mark, anchor, &value);
    leaveNode(anchor);
  }
  void OnSequenceStart(const YAML::Mark& mark, const std::string& /*tag*/,
                       YAML::anchor_t anchor,
                       YAML::EmitterStyle::value /*style*/) override {
    enterNode(mark, anchor, nullptr);
    frames_.push_back({anchor, false});
  }
  void OnSequenceEnd() override { leaveFrame(); }
  void OnMapStart(const YAML::Mark& mark, const std::string& /*tag*/,
                  YAML::anchor_t anchor,
                  YAML::EmitterStyle::value /*style*/) override {
    enterNode(mark, anchor, nullptr);
    // The keys of `vornnode` are names of nodes.
    const bool has_names = frames_.size() == 1 && frames_[0].key == "vornnode";
    frames_.push_back({anchor, true, !has_names});
  }
  void OnMapEnd() override { leaveFrame(); }

 private:
  using Anchor = std::pair<int, YAML::anchor_t>;  // document and number

  struct Frame {
    YAML::anchor_t anchor = 0;
    bool is_map = false;
    bool has_environment_keys = false;
    bool is_at_key = true;
    std::string key = {};  // the last one
  };

  size_t byteOffset(const YAML::Mark& mark) const {
    return mark.pos < 0 ? 0 : static_cast<size_t>(mark.pos) + offset_;
  }

  /// Ends the ranges that extend to the next token.
  void enterToken(const YAML::Mark& mark) {
    last_ = byteOffset(mark);
    for (const size_t range : pending_) ranges_[range].end = last_;
    for (const Anchor& anchor : pending_anchors_) anchors_[anchor].end = last_;
    pending_.clear();
    pending_anchors_.clear();
  }

  void enterNode(const YAML::Mark& mark, YAML::anchor_t anchor,
                 const std::string* scalar) {
    enterToken(mark);
    if (anchor != 0) anchors_[{document_, anchor}] = {last_};
    if (frames_.empty() || !frames_.back().is_map) return;
    Frame& frame = frames_.back();
    if (frame.is_at_key) {
      frame.key = scalar == nullptr ? "" : *scalar;
      enterKey(scalar);
    }
  }

  void enterKey(const std::string* scalar) {
    if (scalar == nullptr) return;
    const size_t end = last_ + lengthInText(*scalar);
    if (environment_depth_ != 0) {
      names_.push_back({last_, end});
    } else if (frames_.back().has_environment_keys &&
               isEnvironmentKey(*scalar)) {
      environment_depth_ = frames_.size();
      ranges_.push_back({end});
    }
  }

  /// The length of a scalar at the current token, if the text has it unchanged
  /// with or without quotes; otherwise 0.
  size_t lengthInText(const std::string& scalar) const {
    for (const char* const quote : {"", "'", "\""}) {
      const std::string written = quote + scalar + quote;
      if (text_.compare(last_, written.size(), written) == 0) {
        return written.size();
      }
    }
    return 0;
  }

  void leaveNode(YAML::anchor_t anchor) {
    if (anchor != 0) pending_anchors_.emplace_back(document_, anchor);
    if (frames_.empty() || !frames_.back().is_map) return;
    Frame& frame = frames_.back();
    frame.is_at_key = !frame.is_at_key;
    if (frame.is_at_key && environment_depth_ == frames_.size()) {
      environment_depth_ = 0;
      pending_.push_back(ranges_.size() - 1);
    }
  }

  void leaveFrame() {
    const YAML::anchor_t anchor = frames_.back().anchor;
    frames_.pop_back();
    leaveNode(anchor);
  }

  /// Adds the ranges of anchors to which an alias in a range refers.
  void addAliased() {
    std::set<Anchor> added;
    for (size_t i = 0; i < ranges_.size(); ++i) {
      for (const auto& [position, anchor] : aliases_) {
        if (position < ranges_[i].begin || position >= ranges_[i].end) continue;
        const auto found = anchors_.find(anchor);
        if (found == anchors_.end() || !added.insert(anchor).second) continue;
        ranges_.push_back(found->second);
      }
    }
  }

  void mark(const TextRange& range, std::vector<bool>& bytes,
            bool value) const {
    for (size_t i = range.begin; i < std::min(range.end, bytes.size()); ++i) {
      bytes[i] = value;
    }
  }

  const std::string& text_;
  size_t offset_ = 0;  // of the first byte that yaml-cpp counts
  int document_ = 0;
  size_t last_ = 0;  // position of the last token
  std::vector<Frame> frames_;
  size_t environment_depth_ = 0;   // number of frames; 0: in no environment
  std::vector<TextRange> ranges_;  // hidden
  std::vector<TextRange> names_;   // of variables, shown
  std::vector<size_t> pending_;    // in ranges_
  std::vector<Anchor> pending_anchors_;
  std::map<Anchor, TextRange> anchors_;
  std::vector<std::pair<size_t, Anchor>> aliases_;  // with their positions
};

std::vector<bool> hiddenBytesOf(const std::string& text) {
  // yaml-cpp counts bytes only in UTF-8, and 0x04 is its end of a text.
  if (!isUtf8(text) || text.find('\x04') != std::string::npos ||
      text.find('\0') != std::string::npos) {
    std::vector<bool> all(text.size(), true);
    return all;
  }
  ValueFinder finder(text);
  try {
    std::istringstream stream(text);
    YAML::Parser parser(stream);
    while (parser.HandleNextDocument(finder)) {
    }
  } catch (const YAML::Exception&) {
    return finder.hiddenBytes(false);
  }
  return finder.hiddenBytes(true);
}

/// A part of a line in which all bytes are hidden. Punctuation before the value
/// stays.
std::string replacement(std::string_view hidden) {
  const size_t begin = hidden.find_first_not_of(" \t:{,}\r");
  if (begin == std::string::npos) return std::string(hidden);
  return std::string(hidden.substr(0, begin)) + kHidden;
}

std::string shownLine(std::string_view line, const std::vector<bool>& is_hidden,
                      size_t position) {
  std::string shown;
  for (size_t begin = 0; begin < line.size();) {
    size_t end = begin + 1;
    while (end < line.size() &&
           is_hidden[position + end] == is_hidden[position + begin]) {
      ++end;
    }
    const std::string_view part = line.substr(begin, end - begin);
    if (is_hidden[position + begin]) {
      shown += replacement(part);
      if (end < line.size() && shown.back() == ']') shown += ' ';
    } else {
      shown += part;
    }
    begin = end;
  }
  return shown;
}

}  // namespace

std::vector<std::string> linesWithoutValues(const SourceText& document) {
  const std::string& text = document.text();
  const std::vector<bool> is_hidden = hiddenBytesOf(text);
  std::vector<std::string> lines;
  for (size_t begin = 0; begin < text.size();) {
    const size_t end = std::min(text.find('\n', begin), text.size());
    lines.push_back(shownLine(std::string_view(text).substr(begin, end - begin),
                              is_hidden, begin));
    begin = end + 1;
  }
  return lines;
}

}  // namespace vorn::launch
