#pragma once

#include "output/output_text.h"

namespace vorn::launch {

/// The importance of a line, in the numbers of syslog(3).
enum class JournalLevel { ERROR = 3, WARNING = 4, NOTICE = 5 };

/// "<3>" and the like, which the journal reads at the start of a line, if `fd`
/// is the stream to the journal that the variable JOURNAL_STREAM names;
/// otherwise empty. A program can inherit the variable and have other streams.
OutputText journalPrefix(int fd, JournalLevel level);

}  // namespace vorn::launch
