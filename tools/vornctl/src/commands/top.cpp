#include "commands/top.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <optional>

#include "commands/top_facts.h"
#include "commands/top_list.h"
#include "commands/top_screen.h"
#include "commands/top_view.h"
#include "commands/why.h"
#include "context/targets.h"
#include "launchfile/required_graph.h"
#include "live/action_log.h"
#include "live/node_commands.h"
#include "live/node_status.h"
#include "live/node_watcher.h"

namespace vorn::launch {
namespace {

using Cmd = ControlRequest::Cmd;
using std::chrono::milliseconds;

constexpr milliseconds kRedraw{1000};  // for times in seconds
constexpr int kAbove = 2;              // summary and titles, above the nodes
constexpr int kBelow = 2;              // message and keys
class Top {
 public:
  Top(Context& context, const Targets& targets, const Screen& screen)
      : context_(context),
        launcher_(targets.launcher),
        graph_(targets.launcher.file),
        screen_(screen),
        facts_(targets.launcher, context.settings().logFile),
        watcher_(context.client(NodeWatcher::kReplyLimit),
                 context.settings().cancelFd, targets.launcher, targets.names) {
  }

  /// Runs until the user quits or the launcher is lost. `message` is to be
  /// printed after the screen has been closed.
  ExitStatus run(std::string& message) {
    draw();
    while (!is_done_) {
      const auto changes = watcher_.wait(kRedraw, STDIN_FILENO);
      if (isOver()) return kDone;
      if (!watcher_.failure().isDone()) {
        message = watcher_.failure().message;
        return exitStatusOf(watcher_.failure().outcome);
      }
      is_known_ = true;
      update(changes);
      handleKeys();
      if (lost_) {
        message = lost_->message;
        return exitStatusOf(lost_->outcome);
      }
      draw();
    }
    return kDone;
  }

 private:
  /// Whether a stop signal has arrived, or the terminal has been closed.
  bool isOver() const {
    pollfd terminal{STDIN_FILENO, 0, 0};
    return context_.isCancelled() || ::poll(&terminal, 1, 0) > 0;
  }

  /// Updates the nodes after these changes, and reads facts that are due.
  void update(const std::vector<NodeWatcher::Change>& changes) {
    for (const auto& change : changes) updateView(change.name);
    std::vector<NodeView> nodes = presentNodes();
    if (facts_.refresh(nodes, !changes.empty())) {
      // The exit of a process and a new program are not always a change.
      for (const NodeView& node : nodes) {
        if (mayChangeUnnoticed(node)) updateView(node.name);
      }
      nodes = presentNodes();
    }
    facts_.addTo(nodes);
    list_.update(std::move(nodes));
  }

  void updateView(const std::string& name) {
    views_[name] =
        viewOf(launcher_, name, watcher_.status(name), std::time(nullptr));
  }

  static bool mayChangeUnnoticed(const NodeView& node) {
    return node.condition == Condition::EXITING ||
           node.condition == Condition::DISABLED || node.run.isExpected ||
           node.run.state ||
           (node.condition == Condition::RUNNING && !node.memoryBytes);
  }

  /// The nodes with the times of now, in the order of the launch file.
  std::vector<NodeView> presentNodes() const {
    std::vector<NodeView> nodes;
    const int64_t now = std::time(nullptr);
    for (const std::string& name : watcher_.names()) {
      nodes.push_back(views_.at(name));
      updateTimes(nodes.back(), now);
    }
    return nodes;
  }

  size_t count() const { return list_.shown().size(); }

  /// Whether the screen has rows for the summary, titles and keys.
  static bool hasFrame() { return LINES > kAbove + kBelow; }

  /// The rows of the log, with its title.
  int rowsOfLog() const {
    return is_log_ && hasFrame() ? (LINES - kAbove - kBelow) / 2 : 0;
  }

  size_t rowsOfNodes() const {
    const bool has_line = !message_.empty() || asked_ || is_filter_;
    const int frame =
        hasFrame() ? kAbove + kBelow + rowsOfLog() : static_cast<int>(has_line);
    return static_cast<size_t>(std::max(1, LINES - frame));
  }

  void handleKeys() {
    for (int key = getch(); key != ERR && !is_done_ && !lost_; key = getch()) {
      handleKey(key);
    }
  }

  void handleKey(int key) {
    if (key == KEY_RESIZE) return;  // the screen is redrawn in any case
    if (is_help_ || !text_.empty()) {
      is_help_ = false;
      text_.clear();
      return;
    }
    message_.clear();
    if (asked_) {
      answer(key);
    } else if (is_filter_) {
      list_.setFilter(editedText(list_.filter(), key, is_filter_));
    } else if (const long step = stepFor(key); step != 0) {
      list_.select(step);
    } else if (const auto cmd = commandFor(key)) {
      request(*cmd);
    } else if (!list_.toggleSort(key)) {
      handleCommand(key);
    }
  }

  void handleCommand(int key) {
    switch (key) {
      case 'u':
        watcher_.markAllStale();
        break;
      case '!':
        list_.toggleFailing();
        break;
      case '/':
        is_filter_ = true;
        break;
      case 'l':
        is_log_ = !is_log_;
        break;
      case 'i':
        if (const NodeView* const node = list_.selected()) {
          text_ = explanationOf(context_.settings(), launcher_, *node);
        }
        break;
      case '?':
        is_help_ = true;
        break;
      case 'q':
        is_done_ = true;
        break;
      default:
        break;
    }
  }

  /// The rows by which a key moves the selection; 0 for other keys.
  long stepFor(int key) const {
    switch (key) {
      case KEY_UP:
      case 'k':
        return -1;
      case KEY_DOWN:
      case 'j':
        return 1;
      case KEY_PPAGE:
        return -static_cast<long>(rowsOfNodes());
      case KEY_NPAGE:
        return static_cast<long>(rowsOfNodes());
      case KEY_HOME:
        return -static_cast<long>(count());
      case KEY_END:
        return static_cast<long>(count());
      default:
        return 0;
    }
  }

  static std::optional<Cmd> commandFor(int key) {
    switch (key) {
      case 's':
        return Cmd::START;
      case 't':
        return Cmd::STOP;
      case 'r':
        return Cmd::RESTART;
      case 'e':
        return Cmd::ENABLE;
      case 'd':
        return Cmd::DISABLE;
      default:
        return std::nullopt;
    }
  }

  /// Acts on the selected node, after a question if that terminates its
  /// process.
  void request(Cmd cmd) {
    const NodeView* const node = list_.selected();
    if (node == nullptr) return;
    if (cmd == Cmd::START || cmd == Cmd::ENABLE) {
      act(cmd, std::string(node->name));
    } else {
      asked_ = {cmd, node->name};
    }
  }

  void answer(int key) {
    const Asked asked = *asked_;
    asked_.reset();
    if (key == 'y' || key == 'Y') act(asked.cmd, asked.name);
  }

  // `name` must not be in the list, which drawing changes.
  void act(Cmd cmd, const std::string& name) {
    const OperationWords words = wordsFor(cmd);
    ControlOptions options =
        context_.client(graph_.replyLimit(cmd, name)).options();
    options.onWait = [&](milliseconds elapsed) {
      message_ = std::string(words.doing) + ' ' + name + ' ' +
                 std::to_string(elapsed.count() / 1000) +
                 "s (Ctrl-C gives up waiting)";
      draw();
    };
    ControlClient client(options);
    const StatusReply before = watcher_.status(name);
    ActionRecorder recorder(words.command, "", launcher_.pid);
    const ControlReply reply = client.command(cmd, name);
    recorder.add(name, reply.outcome);
    (void)recorder.write();  // the action does not depend on its record
    message_ = name + ": ";
    if (reply.isDone()) {
      message_ += describeDone(cmd, launcher_, name, before);
    } else if (reply.outcome == Outcome::FAILED) {
      message_ += std::string(words.command) +
                  " failed: " + explainFailure(client, launcher_, name, cmd);
    } else if (reply.outcome == Outcome::NOT_FOUND) {
      message_ += "no such node";
    } else {
      lost_ = reply;
    }
    // The watcher notices the restarts of the nodes that it requires.
    watcher_.markStale(name);
  }

  void draw() {
    (void)erase();
    if (is_help_) {
      drawHelp();
      return;
    }
    if (!text_.empty()) {
      drawText(text_);
      return;
    }
    if (!is_known_) {
      Screen::write(0, "asking the launcher ...", A_NORMAL);
    } else {
      drawList();
    }
    const int last = LINES - 1;
    if (hasFrame()) drawKeyLine();
    if (!message_.empty()) {
      Screen::write(hasFrame() ? last - 1 : last, terminalText(message_),
                    A_BOLD);
    }
    if (is_filter_) {
      Screen::write(last, "/" + terminalText(list_.filter()) + "_", A_BOLD);
    }
    if (asked_) Screen::write(last, question(), A_BOLD);
    (void)refresh();
  }

  void drawList() {
    const size_t rows = rowsOfNodes();
    const size_t selected = list_.selectedIndex();
    first_ =
        std::clamp(first_, selected < rows ? 0 : selected - rows + 1, selected);
    // Fill all rows with nodes if there are enough.
    first_ = std::min(first_, count() < rows ? 0 : count() - rows);
    const int above = hasFrame() ? kAbove : 0;
    if (hasFrame()) {
      drawSummary(launcher_, list_, list_.position(first_, rows));
    }
    drawNodes(screen_, list_, first_, above, rows, hasFrame());
    if (rowsOfLog() == 0) return;
    std::string error;
    const int end = LINES - kBelow;
    const auto& lines =
        facts_.logLines(static_cast<size_t>(rowsOfLog() - 1), error);
    drawLines(error.empty() ? "Log" : "Log: " + error, lines, end - rowsOfLog(),
              end);
  }

  /// "stop camera? y/n", with a long name truncated.
  OutputText question() const {
    const OutputText begin = terminalText(wordsFor(asked_->cmd).command) + " ";
    const OutputText end = "? y/n";
    const size_t taken = displayWidth(begin) + displayWidth(end);
    const auto width = static_cast<size_t>(COLS);
    const size_t room = width > taken ? width - taken : 1;
    return begin + truncated(terminalText(asked_->name), room) + end;
  }

  /// A command to be confirmed.
  struct Asked {
    Cmd cmd;
    std::string name;
  };

  Context& context_;
  const LauncherProcess& launcher_;
  const RequiredGraph graph_;
  const Screen& screen_;
  TopFacts facts_;
  NodeWatcher watcher_;
  std::map<std::string, NodeView> views_;
  TopList list_;
  bool is_known_ = false;  // the launcher has answered for every node
  bool is_done_ = false;
  bool is_help_ = false;    // the help replaces the nodes
  std::string text_;        // replaces the nodes unless it is empty
  bool is_filter_ = false;  // keys change the filter
  bool is_log_ = false;     // the log is shown below the nodes
  std::optional<Asked> asked_;
  size_t first_ = 0;  // the topmost node on the screen
  std::string message_;
  std::optional<ControlReply>
      lost_;  // the failed request, after which run() returns
};

}  // namespace

ExitStatus showTop(Context& context, const std::vector<std::string>& nodes) {
  if (::isatty(STDIN_FILENO) != 1 || ::isatty(STDOUT_FILENO) != 1) {
    context.printError(
        "top needs a terminal; without one, use 'vornctl monitor'");
    return kUsage;
  }
  const Targets targets = findTargets(context, nodes);
  if (targets.status != kDone) return targets.status;
  std::string message;
  ExitStatus status = kDone;
  {
    const Screen screen(context.settings().hasColours);
    if (!screen.isOpen()) {
      context.printError(
          "this terminal is unknown or cannot place the cursor; check TERM");
      return kUsage;
    }
    status = Top(context, targets, screen).run(message);
  }
  if (!message.empty()) context.printError(message);
  return status;
}

}  // namespace vorn::launch
