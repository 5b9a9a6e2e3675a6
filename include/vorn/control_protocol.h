#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "vorn/node_state.h"

// The records of the control socket, sent as they are in memory: host byte
// order, one request and one reply per connection. docs/control-protocol.md
// describes their use.

namespace vorn::launch {

/// The path of the control socket; the names are fixed.
constexpr char kControlDirectory[] = "/tmp/vornlaunch";
constexpr char kControlSocketName[] = "vornlaunch.sock";

/// The request of a client.
struct ControlRequest {
  enum class Cmd : uint32_t {
    START = 0,
    STOP = 1,
    RESTART = 2,
    STATUS = 3,
    DISABLE = 4,
    ENABLE = 5,
  };

  Cmd cmd = Cmd::START;
  char name[128] = {};  // the node's, up to its NUL or the 128th byte
};

/// The reply of the launcher. All fields except `result` are 0, except in the
/// reply to a STATUS request for an existing node.
struct ControlResponse {
  enum class Result : int32_t {
    SUCCESS = 0,    // the node was found and the operation succeeded
    NOT_FOUND = 1,  // no node has that name
    FAILED = 2,     // the node was found but the operation returned false
  };

  Result result = Result::SUCCESS;
  uint32_t padding = 0;      // zeroed: no memory of ours leaves the process
  int32_t pid = 0;           // the child's, 0 without one
  int32_t state = 0;         // a NodeState
  int64_t startSeconds = 0;  // of the last start, since the Unix epoch; or 0
};

static_assert(std::is_trivially_copyable_v<ControlRequest>);
static_assert(std::is_standard_layout_v<ControlRequest>);
static_assert(sizeof(ControlRequest) == 132);
static_assert(offsetof(ControlRequest, cmd) == 0);
static_assert(offsetof(ControlRequest, name) == 4);
static_assert(sizeof(ControlRequest::Cmd) == 4);
static_assert(sizeof(ControlRequest::name) == 128);

static_assert(std::is_trivially_copyable_v<ControlResponse>);
static_assert(std::is_standard_layout_v<ControlResponse>);
static_assert(sizeof(ControlResponse) == 24);
static_assert(offsetof(ControlResponse, result) == 0);
static_assert(offsetof(ControlResponse, padding) == 4);
static_assert(offsetof(ControlResponse, pid) == 8);
static_assert(offsetof(ControlResponse, state) == 12);
static_assert(offsetof(ControlResponse, startSeconds) == 16);
static_assert(sizeof(ControlResponse::Result) == 4);

static_assert(static_cast<uint32_t>(ControlRequest::Cmd::START) == 0);
static_assert(static_cast<uint32_t>(ControlRequest::Cmd::STOP) == 1);
static_assert(static_cast<uint32_t>(ControlRequest::Cmd::RESTART) == 2);
static_assert(static_cast<uint32_t>(ControlRequest::Cmd::STATUS) == 3);
static_assert(static_cast<uint32_t>(ControlRequest::Cmd::DISABLE) == 4);
static_assert(static_cast<uint32_t>(ControlRequest::Cmd::ENABLE) == 5);
static_assert(static_cast<int32_t>(ControlResponse::Result::SUCCESS) == 0);
static_assert(static_cast<int32_t>(ControlResponse::Result::NOT_FOUND) == 1);
static_assert(static_cast<int32_t>(ControlResponse::Result::FAILED) == 2);

}  // namespace vorn::launch
