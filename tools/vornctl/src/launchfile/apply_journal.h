#pragma once

#include <string>

// The files that `vornctl apply` keeps next to the launch file that it
// replaces.

namespace vorn::launch {

/// The file that an apply of `launch_file` replaces: the target of a symbolic
/// link, not the link.
std::string replacedFile(const std::string& launch_file);

// The next functions expect a replaced file.

/// The last launch file that was replaced.
std::string previousFileOf(const std::string& launch_file);

/// The progress of an apply; it exists only until the apply ends.
std::string journalOf(const std::string& launch_file);

/// A file that an apply locks with fcntl(2) while it runs.
std::string lockFileOf(const std::string& launch_file);

/// The contents of a journal.
struct ApplyJournal {
  bool isReplacing = false;  // the launch file may be new
  bool hadFile = false;      // a launch file existed before
  std::string time;          // of the start, for messages
};

std::string textOf(const ApplyJournal& journal);

/// A damaged journal becomes one of an apply that has replaced nothing: an
/// apply writes it at once, so another program has damaged it.
ApplyJournal parseApplyJournal(const std::string& text);

/// A clause about an apply that did not end: "an apply that began at TIME was
/// interrupted ...".
std::string describeInterruption(const ApplyJournal& journal);

}  // namespace vorn::launch
