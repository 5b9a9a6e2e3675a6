#include "state_file_name.h"

namespace vorn::run {

std::string fileNameOf(const std::string& name) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string result;
  for (const char c : name) {
    const bool is_letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    const bool is_plain = is_letter || (c >= '0' && c <= '9') || c == '_' ||
                          c == '-' || (c == '.' && !result.empty());
    if (is_plain) {
      result += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    result += '%';
    result += kDigits[byte >> 4];
    result += kDigits[byte & 0xf];
  }
  return result;
}

}  // namespace vorn::run
