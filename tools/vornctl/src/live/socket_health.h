#pragma once

#include <sys/types.h>

#include <string>

#include "control_client.h"
#include "live/health.h"

namespace vorn::launch {

/// The control socket as the file system shows it.
struct SocketFacts {
  std::string path;
  int error = 0;  // of the examination of the path; ENOENT: it does not exist
  bool isSocket = false;
  uid_t owner = 0;
  mode_t mode = 0;  // permissions
  uid_t directoryOwner = 0;
  mode_t directoryMode = 0;  // permissions, with S_ISVTX
  bool hasListener = true;   // a process listens on it, as far as is known
  // A launcher that should have created it; 0: none.
  pid_t launcher = 0;
  uid_t launcherUid = 0;
};

/// The facts about the socket at `path`, except those after `directoryMode`.
SocketFacts examineSocket(const std::string& path);

Finding socketFinding(const SocketFacts& facts);

/// About the reply to a first status request; `message` explains the outcome.
Finding answerFinding(Outcome outcome, const std::string& message,
                      bool is_launcher_running);

}  // namespace vorn::launch
