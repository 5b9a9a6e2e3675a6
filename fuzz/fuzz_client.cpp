// The commands of vornctl with a launcher that sends any replies, and with any
// contents of /proc and of the log. The correct result is a documented exit
// status, and output that is bounded and has no control characters.
//
// Input: the command, the length of the log, the log, then for each reply and
// for each file of /proc that is read a byte and, except for 0 (a usual one)
// and 1 (none), that many bytes.

#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "commands/health.h"
#include "commands/history.h"
#include "commands/logs.h"
#include "commands/metrics.h"
#include "commands/names.h"
#include "commands/orphans.h"
#include "commands/ps.h"
#include "commands/status.h"
#include "commands/why.h"
#include "context/context.h"
#include "live/node_cells.h"
#include "live/process_table.h"
#include "support/input.h"
#include "support/output.h"
#include "vorn/control_protocol.h"

namespace vorn::fuzz {
namespace {

using launch::Context;
using launch::ExitStatus;

constexpr size_t kLongestOutput = size_t{1} << 20U;
// Pids that the machine which runs this hardly has.
constexpr pid_t kLauncher = 4194200;
constexpr int kProcesses = 6;
constexpr char kLaunchFile[] = R"(configure: {environment: {A: "1"}}
vornnode:
  camera: {path: /bin/sleep, argv: "1000", required: [lidar]}
  lidar: {path: /bin/sleep, oneshot: true}
  "b\e\n\u202e": {path: /bin/sleep, autostart: false, sleep: 5}
  off: {path: /opt/vornlaunch/bin/vornrun, disabled: true, argv: "-- /bin/sh"}
)";

/// The rest of the input; null outside a run.
Input* input = nullptr;

/// The next piece of the input; nothing for the usual one.
std::optional<std::string> nextPiece() {
  const uint8_t length = input->byte();
  if (length == 0) return std::nullopt;
  return std::string(input->bytes(length));
}

std::string usualReply() {
  launch::ControlResponse reply;
  reply.pid = kLauncher + 1;
  reply.state = 1;
  reply.startSeconds = 1'700'000'000;
  std::string bytes(sizeof(reply), '\0');
  std::memcpy(bytes.data(), &reply, sizeof(reply));
  return bytes;
}

std::string usualFile(const std::string& path) {
  constexpr size_t kPidBegin = std::char_traits<char>::length("/proc/");
  const std::string pid =
      path.substr(kPidBegin, path.find('/', kPidBegin) - kPidBegin);
  const std::string name = path.substr(path.rfind('/') + 1);
  if (name == "stat") {
    return pid + " (node) S " + std::to_string(kLauncher) +
           " 42 42 0 -1 0 1 2 3 4 250 50 9 9 20 0 3 0 8200 123456 25 0";
  }
  if (name == "cmdline") return {"vornlaunch\0/launch.yaml\0", 24};
  if (name == "environ") return {"__VORN_NODE_NAME__=lidar(vornlaunch)\0", 37};
  if (name == "status") return "NSpid:\t" + pid + "\n";
  return "";
}

/// A file in memory with this content; its path.
std::string memoryFile(const char* name, std::string_view content) {
  // One file per name, which every run overwrites.
  const int fd = ::memfd_create(name, MFD_CLOEXEC);
  check(fd >= 0 && ::write(fd, content.data(), content.size()) ==
                       static_cast<ssize_t>(content.size()),
        "a file in memory can be written");
  return "/proc/self/fd/" + std::to_string(fd);
}

void closeMemoryFile(const std::string& path) {
  (void)::close(std::stoi(path.substr(path.rfind('/') + 1)));
}

ExitStatus status(Context& context, bool is_json, bool is_plain) {
  launch::StatusOptions options;
  options.isJson = is_json;
  options.isPlain = is_plain;
  options.columns = launch::expandColumns({launch::kAllColumns});
  return showStatus(context, options);
}

ExitStatus health(Context& context, launch::HealthOptions::Format format) {
  launch::HealthOptions options;
  options.format = format;
  return showHealth(context, options);
}

using Command = std::function<ExitStatus(Context&)>;
using Format = launch::HealthOptions::Format;

const std::vector<Command>& commands() {
  static const std::vector<Command> kCommands = {
      [](Context& c) { return launch::showStatus(c, {}); },
      [](Context& c) { return status(c, false, false); },
      [](Context& c) { return status(c, false, true); },
      [](Context& c) { return status(c, true, false); },
      [](Context& c) { return launch::showProcesses(c, {}); },
      [](Context& c) {
        return launch::showProcesses(c, {{}, false, true});
      },
      [](Context& c) { return launch::showOrphans(c, {}); },
      [](Context& c) {
        return launch::showOrphans(c, {false, false, true});
      },
      [](Context& c) { return launch::explainNode(c, {"camera"}); },
      [](Context& c) { return launch::explainNode(c, {"lidar"}); },
      [](Context& c) { return launch::writeMetrics(c, {}); },
      [](Context& c) { return launch::showHistory(c, {}); },
      [](Context& c) {
        return launch::showHistory(c, {{}, 0, 100, true});
      },
      [](Context& c) { return health(c, Format::PLAIN); },
      [](Context& c) { return health(c, Format::JSON); },
      [](Context& c) { return health(c, Format::NAGIOS); },
      [](Context& c) { return launch::showNames(c, '\n'); },
  };
  return kCommands;
}

/// Captures what is written to a stream.
class Capture {
 public:
  explicit Capture(std::ostream& stream)
      : stream_(stream), before_(stream.rdbuf(text_.rdbuf())) {}
  ~Capture() { stream_.rdbuf(before_); }
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  std::string text() const { return text_.str(); }

 private:
  std::ostringstream text_;
  std::ostream& stream_;
  std::streambuf* before_;
};

void run(size_t command, const launch::Settings& settings) {
  const Capture out(std::cout);
  const Capture errors(std::cerr);
  Context context(settings);
  const ExitStatus result = commands()[command % commands().size()](context);
  check(result >= launch::kDone && result <= launch::kUntrusted,
        "the exit status is documented");
  checkOutput(out.text(), kLongestOutput);
  checkOutput(errors.text(), kLongestOutput);
}

}  // namespace
}  // namespace vorn::fuzz

// The linker redirects the calls here, and defines the names.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl*)
extern "C" {

/// Connects to a launcher that sends the next reply of the input.
int __wrap_connect(int fd, const sockaddr* /*address*/, socklen_t /*size*/) {
  static int launcher_end = -1;
  if (launcher_end >= 0) (void)::close(launcher_end);
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    return -1;
  }
  launcher_end = ends[1];
  const std::string reply =
      vorn::fuzz::nextPiece().value_or(vorn::fuzz::usualReply());
  (void)!::write(launcher_end, reply.data(), reply.size());
  (void)::shutdown(launcher_end, SHUT_WR);
  (void)::dup2(ends[0], fd);
  (void)::close(ends[0]);
  return 0;
}

int __wrap_getsockopt(int /*fd*/, int /*level*/, int /*name*/, void* value,
                      socklen_t* /*size*/) {
  *static_cast<ucred*>(value) = {vorn::fuzz::kLauncher, 0, 0};
  return 0;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl*)

#define STRING "RKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"

namespace vorn::fuzz {

// The linker redirects the calls of the functions with these names here.
std::optional<std::string> readFile(const std::string& path) __asm__(
    "__wrap__ZN4vorn6launch12readProcFileE" STRING);
std::optional<std::string> readLink(const std::string& path) __asm__(
    "__wrap__ZN4vorn6launch12readProcLinkE" STRING);
launch::ProcessTable readTable() __asm__(
    "__wrap__ZN4vorn6launch12ProcessTable4readEv");

std::optional<std::string> readFile(const std::string& path) {
  auto piece = nextPiece();
  if (!piece) return usualFile(path);
  if (piece->size() <= 1) return std::nullopt;
  return piece;
}

std::optional<std::string> readLink(const std::string& /*path*/) {
  auto piece = nextPiece();
  if (!piece) return "/";
  if (piece->size() <= 1) return std::nullopt;
  return piece;
}

launch::ProcessTable readTable() {
  std::vector<launch::Process> processes;
  for (int i = 0; i < kProcesses; ++i) {
    if (auto process = launch::readProcess(kLauncher + i)) {
      processes.push_back(std::move(*process));
    }
  }
  return launch::ProcessTable(std::move(processes));
}

}  // namespace vorn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vorn::fuzz;
  static const std::string kFile = memoryFile("launch.yaml", kLaunchFile);
  Input rest(data, size);
  input = &rest;
  const size_t command = rest.byte();
  const size_t length = size_t{4} * rest.byte();
  vorn::launch::Settings settings;
  settings.launchFile = kFile;
  settings.logFile = memoryFile("log", rest.bytes(length));
  settings.connectLimit = std::chrono::milliseconds(10);
  settings.replyLimit = std::chrono::milliseconds(10);
  run(command, settings);
  closeMemoryFile(settings.logFile);
  input = nullptr;
  return 0;
}
