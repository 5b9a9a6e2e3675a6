#pragma once

#include <string>
#include <utility>
#include <vector>

// The results of examinations of an installation.

namespace vorn::launch {

enum class Verdict { ERROR, WARNING, UNKNOWN, PASSED };

/// The result of one examination.
struct Finding {
  Verdict verdict = Verdict::PASSED;
  std::string text;    // a sentence without a full stop
  std::string remedy;  // what to do, as an imperative; empty: nothing
};

inline Finding okFinding(std::string text) {
  return {Verdict::PASSED, std::move(text), ""};
}

/// That of an examination for which a permission or a launcher is missing.
inline Finding unknownFinding(std::string text, std::string remedy = "") {
  return {Verdict::UNKNOWN, std::move(text), std::move(remedy)};
}

constexpr char kRunAsRoot[] =
    "run vornctl as root or as the user of the launcher";

/// "error", "warning", "unknown" or "ok".
const char* wordFor(Verdict verdict);

/// "1, 2 and 3".
std::string listOf(const std::vector<std::string>& words);

}  // namespace vorn::launch
