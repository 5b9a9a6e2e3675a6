#pragma once

#include "vornlib/time.h"

// The signals that the launcher reads like any other input: SIGCHLD and
// SIGTERM are blocked and arrive through a signalfd that the event loop
// watches, so that their handlers can use the whole program. The fatal and stop
// signals have an asynchronous handler in vornlaunch.cpp.

namespace vorn::launch {

class Epoll;

/// The signalfd, close-on-exec, open for the life of the process; -1 before
/// installSignalHandler() and after its failure to create it.
extern int signal_fd;

/// Routes SIGCHLD and SIGTERM to `signal_fd` and registers that in `epoll`,
/// which must be open. Every child that fork() creates from then on starts with
/// the two signals unblocked and at their defaults; popen() creates its shells
/// differently, with both signals blocked. False, after one ERROR line, at the
/// first step that fails; the earlier steps are not undone.
bool installSignalHandler(Epoll* epoll);

/// Handles one record of `signal_fd`. SIGTERM stops every node in registry
/// order and calls exit(0). SIGCHLD collects every exited child after its node
/// has been updated; an exception of Node::reap() is passed on after the
/// collection. Anything else, and a failed read, is one ERROR line. Waits if
/// there is no record.
void handleSignalFd();

/// The hook that runs in every forked child before its exec: resets SIGCHLD and
/// SIGTERM to their default dispositions and unblocks them.
void unblockSignals();

}  // namespace vorn::launch
