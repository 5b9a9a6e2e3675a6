"""A model of the launcher's nodes: only the table of states, without processes, clocks,
input or output.

The verbs, the public methods of Model, are all that can happen to a launcher.
A story is a launch file and a list of steps, each a verb and its arguments:

    nodes = {"a": {"oneshot": True}, "b": {"required": ["a"]}}
    steps = [("dies", "a", "exit 3"), ("passes", 5000), ("command", "stop", "b")]

Nodes and their programs are known by their key in `nodes`. A node has the name
of its key unless "called" gives it another one, which may be that of a second
node; commands and `required` go by name.
"""

import collections

from support import log_texts

STOPPED, RUNNING, RESTARTING, DISABLED = "STOPPED RUNNING RESTARTING DISABLED".split()
SUCCESS, NOT_FOUND, FAILED = "SUCCESS NOT_FOUND FAILED".split()

RESTART_SECONDS = 5
CLOCK_MS = 1_000_000  # both clocks when the launcher starts, in milliseconds
WALL_CLOCK_MS = 1_700_000_000_000

# Every row of the table of states: the event, and the states in which it can happen.
TRANSITIONS = {
    "start, disabled": {STOPPED, RUNNING, DISABLED},
    "start, not autostart": {STOPPED, DISABLED},
    "start, already running": {RUNNING},
    "start, no program": {STOPPED, RESTARTING, DISABLED},
    "start, fork refused": {STOPPED, RESTARTING, DISABLED},
    "start": {STOPPED, RESTARTING, DISABLED},
    "stop, nothing to stop": {STOPPED, DISABLED},
    "stop, waiting for restart": {RESTARTING},
    "stop, signal refused": {RUNNING},
    "stop": {RUNNING},
    "exit, oneshot": {STOPPED, RUNNING, DISABLED},
    "exit, disabled": {DISABLED},
    "exit, stopped": {STOPPED, RUNNING, DISABLED},
    "exit": {RUNNING},
    "poll, too early": {RESTARTING},
    "poll, due": {RESTARTING},
    "required, not running": {STOPPED, RESTARTING, DISABLED},
    "required, stop refused": {RUNNING},
    "required": {RUNNING},
    "restart, not running": {STOPPED, RESTARTING, DISABLED},
    "restart, stop refused": {RUNNING},
    "restart": {RUNNING},
    "disable": {STOPPED, RUNNING, RESTARTING, DISABLED},
    "enable": {STOPPED, RUNNING, RESTARTING, DISABLED},
}
EVERY_TRANSITION = {
    (state, event) for event, states in TRANSITIONS.items() for state in states
}


class Process:
    """A process that the launcher forked for the node `key`."""

    def __init__(self, key, lives):
        self.key = key
        self.lives = lives  # otherwise dead and not yet collected
        self.cause = "itself"  # of its exit, as the log shows it; "unclear" if it cannot
        self.is_stop_refused = False
        self.ignores_sigterm = False


class Node:
    def __init__(self, key, keys):
        self.key = key
        self.name = keys.get("called", key)
        self.required = keys.get("required", [])
        self.oneshot = keys.get("oneshot", False)
        self.autostart = keys.get("autostart", True)
        self.disabled = keys.get("disabled", False)
        self.stopped = False
        self.state = STOPPED
        self.process = None
        self.started_ms = None
        self.start_seconds = 0

    @property
    def path(self):
        return f"/tmp/bin/{self.key}"


class Model:
    """A launcher that has started its nodes and waits for events."""

    def __init__(self, nodes):
        self.nodes = [Node(key, keys) for key, keys in nodes.items()]
        self.clock_ms, self.wall_clock_ms = CLOCK_MS, WALL_CLOCK_MS
        self.programs = {node.key: "runs" for node in self.nodes}
        self.refused = "nothing"
        self.processes = []  # that the launcher has not collected, oldest first
        self.collected = []  # processes whose exit the launcher has collected
        self.offspring = 0  # processes that nodes have forked
        self.has_ended = False
        self.events = []  # (level, text) of the starred log lines, but for:
        self.exit_events = []  # those of exits, whose order is the kernel's
        self.transitions = collections.Counter()  # (state, event)
        self.stops = self.long_stops = 0
        for node in self.nodes:
            if not node.disabled:
                self._start(node)
        self._turn()

    def apply(self, step):
        """Executes one step of a story; returns the reply to a command, otherwise
        None."""
        assert not self.has_ended, step
        verb, *arguments = step
        return getattr(self, verb)(*arguments)

    # -- Steps.

    def command(self, cmd, name, dying=()):
        """A request on the control socket. The programs of `dying` exit just before,
        while the launcher is busy: it detects the exits only afterwards."""
        for key in dying:
            self.oldest(key).lives = False
        node = self.find(name)
        operation = {
            "start": self._start, "stop": self._stop, "restart": self._restart,
            "enable": self._enable, "disable": self._disable,
            "status": lambda node: True,
        }[cmd]
        if node is None:
            result = NOT_FOUND
        else:
            result = SUCCESS if operation(node) else FAILED
        self._turn()
        return result

    def dies(self, key, how):
        """The oldest process of a node exits: `how` is "exit STATUS" or "kill -SIGNAL
        $$"."""
        del how  # makes no difference
        self.oldest(key).lives = False
        self._turn()

    def ignores(self, key):
        """The process ignores SIGTERM from now on, so that its stop takes all
        passes."""
        self.oldest(key).ignores_sigterm = True

    def forks(self, key):
        """The process starts another process, which the launcher never stops."""
        del key
        self.offspring += 1

    def floods(self, key):
        """The process fills its standard output."""

    def program(self, key, what):
        """The program of the node is "gone", is "broken" (not executable) or "runs"
        again. This does not affect processes."""
        self.programs[key] = what

    def passes(self, milliseconds):
        """Time passes."""
        self.clock_ms += milliseconds
        self.wall_clock_ms += milliseconds
        self._turn()

    def sets_wall_clock(self, milliseconds):
        """The wall clock is changed by this difference."""
        self.wall_clock_ms += milliseconds

    def refuses(self, what):
        """From now on the kernel refuses "fork", "SIGTERM" or "nothing"."""
        self.refused = what

    def ends(self, signal):
        """SIGTERM or SIGINT for the launcher; the last step."""
        if signal == "SIGTERM":
            for node in self.nodes:
                self._stop(node)
        self.processes = [p for p in self.processes if p.lives]
        self.has_ended = True

    # -- Queries.

    def find(self, name):
        """The first node of this name, or None."""
        return next((node for node in self.nodes if node.name == name), None)

    def name(self, key):
        """The name of a node."""
        return next(node.name for node in self.nodes if node.key == key)

    def oldest(self, key):
        """The oldest live process of the node. It is not always the current one: a
        process that could not be stopped may have been replaced."""
        return next(p for p in self.processes if p.key == key and p.lives)

    @property
    def waits_for_restart(self):
        return any(node.state == RESTARTING for node in self.nodes)

    # -- The table of states.

    def _row(self, node, event, state, level=None, text=None, log=None):
        """`event` takes `node` to `state`, and logs."""
        self.transitions[node.state, event] += 1
        node.state = state
        if text is not None:
            (self.events if log is None else log).append((level, text))

    def _start(self, node):
        said = f"Node '{node.name}'"
        program = self.programs[node.key]
        if node.disabled:
            self._row(node, "start, disabled", DISABLED, "WARN", f"{said} disabled")
            return False
        if not node.autostart:
            node.autostart = True
            self._row(node, "start, not autostart", node.state,
                      "WARN", log_texts.not_autostart(node.name))
            return False
        if node.state == RUNNING:
            self._row(node, "start, already running", RUNNING,
                      "INFO", f"{said} already running")
            return True
        if program == "gone":
            node.disabled = True
            self._row(node, "start, no program", DISABLED,
                      "ERROR", log_texts.executable_missing(node.path))
            return False
        if self.refused == "fork":
            node.process = None
            self._row(node, "start, fork refused", STOPPED,
                      "ERROR", f"name: {node.name} fork failed.")
            return False
        node.stopped = False
        node.process = Process(node.key, lives=program == "runs")
        node.started_ms = self.clock_ms
        node.start_seconds = self.wall_clock_ms // 1000
        self.processes.append(node.process)
        self._row(node, "start", RUNNING, "INFO", log_texts.started(node.name))
        return True

    def _stop(self, node, cause="operator"):
        if node.state in (STOPPED, DISABLED):
            self._row(node, "stop, nothing to stop", node.state)
            return True
        node.stopped = True
        if node.state == RESTARTING:
            self._row(node, "stop, waiting for restart", STOPPED,
                      "INFO", f"Node '{node.name}' is restarting, set stopped.")
            return True
        if self.refused == "SIGTERM":
            node.process.is_stop_refused = True
            self._row(node, "stop, signal refused", RUNNING,
                      "ERROR", f"kill service '{node.name}' failed, "
                               "error: Operation not permitted")
            return False
        self.stops += 1
        self.long_stops += node.process.lives and node.process.ignores_sigterm
        self._row(node, "stop", STOPPED)
        node.process.lives = False  # and remains the node's until its exit
        node.process.cause = cause
        self._restart_required(node)
        return True

    def _restart_required(self, node):
        for name in node.required:
            other = self.find(name)
            if name != node.name and other is not None:
                self._stop_required(other)

    def _stop_required(self, node):
        if node.state != RUNNING:
            self._row(node, "required, not running", node.state)
            return
        was_stopped = self._stop(node, "required")
        if node.oneshot:
            node.disabled = True
        if was_stopped:
            self.transitions[RUNNING, "required"] += 1
            self._start(node)
        else:
            self.transitions[RUNNING, "required, stop refused"] += 1

    def _restart(self, node):
        state = node.state
        if state != RUNNING:
            event, started = "restart, not running", self._start(node)
        elif self._stop(node):
            event, started = "restart", self._start(node)
        else:
            event, started = "restart, stop refused", False
        self.transitions[state, event] += 1
        how = "success" if started else "failed"
        self.events.append(("INFO", f"Node '{node.name}' {how}"))
        return started

    def _disable(self, node):
        state = node.state
        was_stopped = self._stop(node)
        node.disabled = True
        node.state = DISABLED
        self.transitions[state, "disable"] += 1
        return was_stopped

    def _enable(self, node):
        node.disabled = False
        self._row(node, "enable", node.state)
        return True

    def _exit(self, node):
        log = self.exit_events
        node.process = None
        if node.oneshot:
            node.disabled = True
            log.append(("WARN", log_texts.disabled_as_oneshot(node.name)))
            self._row(node, "exit, oneshot", DISABLED,
                      "WARN", log_texts.disabled(node.name), log)
        elif node.disabled:
            self._row(node, "exit, disabled", DISABLED,
                      "WARN", log_texts.disabled(node.name), log)
        elif node.stopped:
            self._row(node, "exit, stopped", STOPPED,
                      "WARN", log_texts.stopped(node.name), log)
        else:
            self._row(node, "exit", RESTARTING,
                      "INFO", log_texts.ready_to_restart(node.name), log)

    # -- The loop.

    def _poll(self):
        for node in self.nodes:
            if node.state != RESTARTING:
                continue
            if (self.clock_ms - node.started_ms) // 1000 < RESTART_SECONDS:
                self.transitions[RESTARTING, "poll, too early"] += 1
            else:
                self.transitions[RESTARTING, "poll, due"] += 1
                self._restart_required(node)
                self._start(node)

    def _collect_exits(self):
        dead = [p for p in self.processes if not p.lives]
        self.processes = [p for p in self.processes if p.lives]
        self.collected += dead
        for process in dead:
            # Later commands without effect have no name in the log: one of them can
            # have been for this node.
            if process.is_stop_refused and process.cause == "itself":
                process.cause = "unclear"
            owner = next((n for n in self.nodes if n.process is process), None)
            if owner is not None:
                self._exit(owner)
        return dead

    def _turn(self):
        """Iterates the loop until there is nothing left to do."""
        self._poll()
        while self._collect_exits():
            self._poll()
