#pragma once

#include <string>

// Logging: one line per call on standard error, such as
//
//   2026-11-20T12:34:56.789012Z *INFO  vornlaunch[1234] node.cpp:88
//   startInternal: Node start 'planner' ok
//
// (on one line). The star marks an operator's event. On a terminal the level
// is coloured unless NO_COLOR is set; for the journal (JOURNAL_STREAM) the
// line starts with the syslog priority, "<6>", and has no time stamp.

namespace vorn {

// The levels; the numbers are part of the interface.
constexpr int kInfo = 1;   // progress and trace
constexpr int kWarn = 4;   // handled, not fatal
constexpr int kError = 8;  // a call or an input failed

// The flag.
constexpr bool kEvent = true;   // a change of a node's state, a missing file
constexpr bool kPlain = false;  // everything else

/// Sets the name of this process in its log lines; "?" until then. Control
/// characters in it are not escaped. Like the first vtrace(), determines
/// whether standard error is open, a terminal or the journal. It is the first
/// action of main, before anything can change standard error.
void setNodeName(const std::string& name);

/// Writes one log line to standard error by a single write(2), or by several
/// if standard error accepts only part of the line. `level` is one of the
/// levels above, any other is written as its number. `file` (only its last
/// component is written), `line` and `func` are the location of the call,
/// `flag` marks an operator's event, `fmt` and the arguments after it are as
/// for printf.
///
/// The text may have any length. Bytes below 0x20 and 0x7f in it are
/// escaped ("\n", "\x1b"), so that it is always one line; UTF-8 is
/// unchanged.
///
/// Preserves errno. Can be used in a forked child of a single-threaded parent.
/// Never fails: text that standard error does not accept is lost. Blocks while
/// standard error blocks, such as a full pipe whose reader is suspended.
void vtrace(int level, const char* file, int line, const char* func, bool flag,
            const char* fmt, ...) __attribute__((format(printf, 6, 7)));

}  // namespace vorn

/// vtrace() with the location of the call.
#define VTRACE(level, flag, ...) \
  ::vorn::vtrace((level), __FILE__, __LINE__, __func__, (flag), __VA_ARGS__)
