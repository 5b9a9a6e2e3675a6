#include "commands/top.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <map>
#include <optional>

#include "commands/top_screen.h"
#include "context/targets.h"
#include "launchfile/required_graph.h"
#include "live/action_log.h"
#include "live/node_cells.h"
#include "live/node_commands.h"
#include "live/node_status.h"
#include "live/node_watcher.h"
#include "output/output.h"
#include "output/text.h"

namespace vorn::launch {
namespace {

using Cmd = ControlRequest::Cmd;
using std::chrono::milliseconds;

constexpr milliseconds kRedraw{1000};  // for times in seconds
constexpr int kAbove = 2;              // summary and titles, above the nodes
constexpr int kBelow = 2;              // message and keys
// The line of keys: the first one that fits the width of the screen.
constexpr const char* kKeyLines[] = {
    "Up/Down  s start  t stop  r restart  e enable  d disable  ? help  q quit",
    "s start t stop r restart ? help q quit", "? help  q quit"};
// Fits into 40 columns and, with the line below it, into 10 rows.
constexpr const char* kHelp[] = {"Up/Down j/k         select a node",
                                 "PgUp/PgDn Home/End  select a node",
                                 "s                   start the node",
                                 "t                   stop the node",
                                 "r                   restart the node",
                                 "e                   enable the node",
                                 "d                   disable the node",
                                 "u                   update all nodes",
                                 "q                   quit"};
const char* const kColumns[] = {"node",   "state",  "pid",
                                "uptime", "policy", "required"};

class Top {
 public:
  Top(Context& context, const Targets& targets, const Screen& screen)
      : context_(context),
        launcher_(targets.launcher),
        graph_(targets.launcher.file),
        screen_(screen),
        watcher_(context.client(NodeWatcher::kReplyLimit),
                 context.settings().cancelFd, targets.launcher, targets.names) {
  }

  /// Runs until the user quits or the launcher is lost. `message` is to be
  /// printed after the screen has been closed.
  ExitStatus run(std::string& message) {
    draw();
    while (!is_done_) {
      (void)watcher_.wait(kRedraw, STDIN_FILENO);
      if (isOver()) return kDone;
      if (!watcher_.failure().isDone()) {
        message = watcher_.failure().message;
        return exitStatusOf(watcher_.failure().outcome);
      }
      is_known_ = true;
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

  size_t count() const { return watcher_.names().size(); }

  /// Whether the screen has rows for the summary, titles and keys.
  static bool hasFrame() { return LINES > kAbove + kBelow; }

  size_t rowsOfNodes() const {
    const int frame = hasFrame()
                          ? kAbove + kBelow
                          : static_cast<int>(!message_.empty() || asked_);
    return static_cast<size_t>(std::max(1, LINES - frame));
  }

  void handleKeys() {
    for (int key = getch(); key != ERR && !is_done_ && !lost_; key = getch()) {
      handleKey(key);
    }
  }

  void handleKey(int key) {
    if (key == KEY_RESIZE) return;  // the screen is redrawn in any case
    if (is_help_) {
      is_help_ = false;
      return;
    }
    message_.clear();
    if (asked_) {
      answer(key);
    } else if (const long step = stepFor(key); step != 0) {
      select(step);
    } else if (const auto cmd = commandFor(key)) {
      request(*cmd);
    } else if (key == 'u') {
      watcher_.markAllStale();
    } else if (key == '?') {
      is_help_ = true;
    } else if (key == 'q') {
      is_done_ = true;
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
    if (count() == 0) return;
    if (cmd == Cmd::START || cmd == Cmd::ENABLE) {
      act(cmd);
    } else {
      asked_ = cmd;
    }
  }

  void answer(int key) {
    const Cmd cmd = *asked_;
    asked_.reset();
    if (key == 'y' || key == 'Y') act(cmd);
  }

  void select(long step) {
    if (count() == 0) return;
    const long last = static_cast<long>(count()) - 1;
    selected_ = static_cast<size_t>(
        std::clamp(static_cast<long>(selected_) + step, 0L, last));
  }

  void act(Cmd cmd) {
    const std::string& name = watcher_.names()[selected_];
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

  std::vector<NodeView> views() const {
    std::vector<NodeView> views;
    const int64_t now = std::time(nullptr);
    for (const std::string& name : watcher_.names()) {
      views.push_back(viewOf(launcher_, name, watcher_.status(name), now));
    }
    return views;
  }

  void draw() {
    (void)erase();
    if (is_help_) {
      drawHelp();
      return;
    }
    if (!is_known_) {
      Screen::write(0, "asking the launcher ...", A_NORMAL);
    } else {
      const auto all = views();
      if (hasFrame()) Screen::write(0, summary(all), A_NORMAL);
      drawNodes(all);
    }
    if (hasFrame()) Screen::write(LINES - 1, keyLine(), A_DIM);
    if (!message_.empty()) {
      Screen::write(LINES - (hasFrame() ? 2 : 1), terminalText(message_),
                    A_BOLD);
    }
    if (asked_) Screen::write(LINES - 1, question(), A_BOLD);
    (void)refresh();
  }

  static OutputText keyLine() {
    OutputText line;
    for (const char* const each : kKeyLines) {
      line = terminalText(each);
      if (displayWidth(line) <= static_cast<size_t>(COLS)) break;
    }
    return line;
  }

  /// "stop camera? y/n", with a long name truncated.
  OutputText question() const {
    const OutputText begin = terminalText(wordsFor(*asked_).command) + " ";
    const OutputText end = "? y/n";
    const size_t taken = displayWidth(begin) + displayWidth(end);
    const auto width = static_cast<size_t>(COLS);
    const size_t room = width > taken ? width - taken : 1;
    return begin + truncated(terminalText(watcher_.names()[selected_]), room) +
           end;
  }

  static void drawHelp() {
    int row = 0;
    for (const char* const line : kHelp) {
      Screen::write(row++, terminalText(line), A_NORMAL);
    }
    Screen::write(LINES - 1, "Press a key to return.", A_DIM);
    (void)refresh();
  }

  OutputText summary(const std::vector<NodeView>& all) const {
    std::map<std::string, size_t> counts;
    for (const NodeView& view : all) ++counts[wordFor(view.condition)];
    OutputText text = "launcher ";
    text += launcher_.pid == 0 ? "?" : OutputText(launcher_.pid);
    text += "  " + OutputText(all.size()) + " nodes";
    for (const auto& [word, number] : counts) {
      text += word == counts.begin()->first ? ": " : ", ";
      text += number + (" " + terminalText(word));
    }
    // Last, since it may be long.
    if (!launcher_.launchFile.empty()) {
      text += "  " + terminalText(launcher_.launchFile);
    }
    return text;
  }

  void drawNodes(const std::vector<NodeView>& all) {
    const size_t rows = rowsOfNodes();
    first_ = std::clamp(first_, selected_ < rows ? 0 : selected_ - rows + 1,
                        selected_);
    // Fill all rows with nodes if there are enough.
    first_ = std::min(first_, all.size() < rows ? 0 : all.size() - rows);
    std::vector<std::vector<Cell>> lines;
    std::vector<size_t> widths;
    for (const char* const column : kColumns) {
      widths.push_back(std::strlen(column));
    }
    for (const NodeView& view : all) {
      std::vector<Cell> line;
      for (size_t i = 0; i < widths.size(); ++i) {
        line.push_back(cellFor(view, kColumns[i]));
        widths[i] = std::max(widths[i], displayWidth(line.back().text));
      }
      lines.push_back(std::move(line));
    }
    // A long name is truncated in favour of the other columns.
    widths[0] = std::min(widths[0], static_cast<size_t>(COLS / 2));
    if (hasFrame()) drawTitles(widths);
    const int above = hasFrame() ? kAbove : 0;
    for (size_t i = first_; i < lines.size() && i < first_ + rows; ++i) {
      screen_.writeCells(above + static_cast<int>(i - first_), lines[i], widths,
                         i == selected_ ? A_REVERSE : A_NORMAL);
    }
  }

  void drawTitles(const std::vector<size_t>& widths) const {
    std::vector<Cell> titles;
    for (const char* const title : kColumns) {
      titles.push_back({terminalText(upperCase(title)), Colour::BOLD});
    }
    screen_.writeCells(kAbove - 1, titles, widths, A_NORMAL);
  }

  Context& context_;
  const LauncherProcess& launcher_;
  const RequiredGraph graph_;
  const Screen& screen_;
  NodeWatcher watcher_;
  bool is_known_ = false;  // the launcher has answered for every node
  bool is_done_ = false;
  bool is_help_ = false;      // the help replaces the nodes
  std::optional<Cmd> asked_;  // to be confirmed by "y"
  size_t selected_ = 0;
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
