// The expansion of "install://" in any text, with the root of any VORN_ROOT or
// of an executable in any place.
//
// Input: the text, NUL, VORN_ROOT, NUL, the executable's path.

#include <cstddef>
#include <cstdint>
#include <string>

#include "parser.h"
#include "support/check.h"
#include "support/input.h"
#include "support/library_calls.h"
#include "support/log.h"
#include "vornlib/install_root.h"
#include "vornlib/path.h"

namespace {

std::string installed_root;  // the result of root()
size_t asked_for_root = 0;   // how often, in one expansion
size_t most_replacements = 0;

}  // namespace

namespace vorn::fuzz {

// The linker redirects the calls of path::root() here, because the original
// determines the root only once per process.
const std::string& wrappedRoot() __asm__("__wrap__ZN4vorn4path4rootB5cxx11Ev");
const std::string& wrappedRoot() {
  check(++asked_for_root <= most_replacements, "the expansion comes to an end");
  return installed_root;
}

namespace {

bool contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

std::string parentOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}

/// The root for `chosen` where `executable` runs, checked.
std::string rootFor(const std::string& chosen, const std::string& executable) {
  const LogSink log;
  test::libraryCalls().read_symlink = [&](const auto&, auto&) {
    return executable;
  };
  std::string root = path::rootFor(chosen.c_str());
  check(root.empty() || root.back() != '/', "a root has no slash at its end");
  const bool is_refused = contains(chosen, "install:");
  int refusals = is_refused ? 1 : 0;
  if (is_refused || chosen.empty()) {
    const std::string directory = parentOf(parentOf(executable));
    const bool is_doubled = contains(directory, "install:/install:");
    refusals += is_doubled ? 1 : 0;
    check(root == (is_doubled ? "" : directory),
          "the executable's root is used");
  } else {
    const size_t end = chosen.find_last_not_of('/') + 1;  // 0 for none
    check(root == chosen.substr(0, end), "VORN_ROOT is used");
  }
  check(log.lines() == refusals, "each refusal is logged, and nothing else");
  return root;
}

/// As the kernel reports it: absolute, without empty components.
std::string asExecutablePath(const std::string& text) {
  std::string path;
  for (const char c : '/' + text) {
    if (c != '/' || path.empty() || path.back() != '/') path += c;
  }
  return path;
}

}  // namespace
}  // namespace vorn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vorn;
  fuzz::Input input(data, size);
  const std::string text = input.text();
  const std::string chosen = input.text();
  const std::string executable = fuzz::asExecutablePath(input.text());
  installed_root = fuzz::rootFor(chosen, executable);

  asked_for_root = 0;
  // Each uses up a character of the text; under a root that completes prefixes
  // a slash behind one counts once for each.
  most_replacements =
      fuzz::contains(installed_root, "install:") ? size * size : size;
  const std::string value = launch::expandInstallRoot(text);
  const std::string prefix(path::kInstallPrefix);
  fuzz::check(!fuzz::contains(value, prefix.c_str()),
              "no install:// is left in a value");
  fuzz::check(value.size() + asked_for_root * (prefix.size() - 1) ==
                  text.size() + asked_for_root * installed_root.size(),
              "each replacement puts the root for all but the last slash");
  fuzz::check(asked_for_root > 0 || value == text,
              "a text without the prefix stays as it is");
  return 0;
}
