#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "context/context.h"
#include "context/exit_status.h"

namespace vorn::launch {

struct HealthOptions {
  enum class Format { PLAIN, JSON, NAGIOS };

  Format format = Format::PLAIN;
  // How long each node must have run; 0: examine the present state.
  std::chrono::milliseconds runFor{0};
};

/// The result of an examination of all nodes.
struct Health {
  struct Reason {
    std::string node;  // empty: the launcher
    std::string text;  // of a node: a clause whose subject is the node
  };
  bool isKnown = true;  // otherwise the nodes could not be examined
  size_t nodes = 0;
  std::vector<Reason> reasons;  // why it is not healthy

  bool isHealthy() const { return reasons.empty(); }
};

/// Examines the nodes now. With `run_for`, waits until all nodes have run for
/// that time and all oneshots have succeeded, until a node has failed, or until
/// the settings' reply limit (default: 5 min) or a stop signal.
Health examineHealth(const Context& context, std::chrono::milliseconds run_for);

/// The sentence for users.
std::string sentenceFor(const Health::Reason& reason);

/// Prints the result of examineHealth(). kDone if the nodes are healthy,
/// otherwise kFailed; for Nagios 2, and 3 if they could not be examined.
ExitStatus showHealth(const Context& context, const HealthOptions& options);

}  // namespace vorn::launch
