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
constexpr bool kEvent = true;   // a turn in a node's life, a missing file
constexpr bool kPlain = false;  // everything else

/// Records the name under which this process logs; "?" until then. Control
/// characters in it would reach the log as they are. Like the first vtrace(),
/// settles whether standard error is open, a terminal or the journal; the
/// first action of main, so that nothing else decides that.
void setNodeName(const std::string& name);

/// Writes one log line to standard error by a single write(2), or by several
/// where standard error takes only part of the line. `level` is one of the
/// levels above, any other is shown as its number. `file` (only its last
/// component is shown), `line` and `func` tell the call's place, `flag` marks
/// an operator's event, `fmt` and what follows give the text as for printf.
///
/// The text may have any length. Bytes below 0x20 and 0x7f in it are shown
/// escaped ("\n", "\x1b"), so that it is always one line; UTF-8 passes
/// untouched.
///
/// Keeps errno. Works in a child forked by a single-threaded parent. Never
/// fails: what standard error does not take is lost. Blocks as long as standard
/// error does, such as a pipe that is full because its reader has stopped.
void vtrace(int level, const char* file, int line, const char* func, bool flag,
            const char* fmt, ...) __attribute__((format(printf, 6, 7)));

}  // namespace vorn

/// vtrace() with the caller's place, which only the compiler knows.
#define VTRACE(level, flag, ...) \
  ::vorn::vtrace((level), __FILE__, __LINE__, __func__, (flag), __VA_ARGS__)
