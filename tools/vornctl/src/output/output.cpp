#include "output/output.h"

#include <iostream>

namespace vorn::launch {

Output& Output::operator<<(const OutputText& text) {
  stream_ << text.str();
  return *this;
}

void Output::flush() { stream_.flush(); }

bool Output::isGood() const { return stream_.good(); }

Output standardOutput() { return Output(std::cout); }

Output standardError() { return Output(std::cerr); }

}  // namespace vorn::launch
