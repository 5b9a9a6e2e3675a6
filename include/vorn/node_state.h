#pragma once

#include <cstdint>

namespace vorn::launch {

/// The state of a node and its child. The reply to a STATUS request contains
/// the numbers.
///
///                       start
///             +----------------------------+
///             |                            v
///         STOPPED <-------- stop ------ RUNNING <---- start ----+
///             ^                            |                    |
///             |                         exited by               |
///           stop                         itself                 |
///             |                            v      5 s since     |
///             +----------------------- RESTARTING -- start -----+
///
///   any state -- disable, a oneshot's exit --> DISABLED
///   all but RUNNING -- start without an executable --> DISABLED
///   DISABLED -- enable, then start --> RUNNING
enum class NodeState : int32_t {
  STOPPED = 0,     // no child wanted, or its fork failed; after a stop `pid`
                   // is kept until the reap
  RUNNING = 1,     // forked, and neither a stop nor its exit handled yet
  RESTARTING = 2,  // exited by itself, the registry will restart it
  DISABLED = 3,    // not started until enabled
};

}  // namespace vorn::launch
