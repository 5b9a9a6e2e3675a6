"""The system calls of the launcher fail, one per run, by strace on the real
program. fault_table.py has the expected outcomes."""

import collections
import dataclasses
import fcntl
import functools
import os
import pathlib
import pickle
import re
import select
import signal
import time
import warnings

import fault_table
import pytest
from fault_table import AwaitRestart, Ask, CANNOT_FAIL_IN_LIBRARIES, CASES, Die, Exit
from fault_table import Halt, LEFT_OUT, OF_A_LIBRARY, Outcome, POLL_TIMEOUT, ROWS
from fault_table import SCENARIOS, SHARED_WITH_LIBRARIES, SIGTERM, START, Signal
from support.control import RESPONSE, Result, State, pack_request, read_exactly
from support.control import unpack_response
from support.machine import PYTHON, Machine
from support.proc_view import LauncherView, node_of
from support.trace import on_every_machine, parse_trace
from support.waiting import eventually

SOURCES = pathlib.Path(__file__).resolve().parents[2]
# Shows the real process table when the stopped node is dead, so that a stop makes the
# same calls each time; two checks of a node that has stopped itself still show it
# alive.
PS = """\
pid=$(tr -dc 0-9 </proc/$PPID/cmdline)
state() { read -r _ _ state _ </proc/$pid/stat && echo $state; }
echo >>/tmp/looks
if [ "$(state)" != T ] || [ $(wc -l </tmp/looks) -gt 2 ]; then
  kill -CONT $pid
  while [ "$(state)" != Z ]; do sleep 0.01; done
fi
exec /usr/bin/ps "$@"
"""
# Exits when it is continued.
HALTING = "kill -STOP $$\nexit 3"
# Makes the first calls of the launcher's process before the launcher, so that a fault
# in one of the first calls of every process affects only its children. At the end no
# signal is blocked, whichever of the calls has failed.
SPEND = """\
import os, signal, sys
def attempt(call, *arguments):
    try:
        call(*arguments)
    except OSError:
        pass
for _ in range(4):
    attempt(signal.pthread_sigmask, signal.SIG_SETMASK, [])
attempt(signal.signal, signal.SIGPIPE, signal.SIG_DFL)
attempt(signal.signal, signal.SIGXFSZ, signal.SIG_DFL)
os.execv(sys.argv[1], sys.argv[1:])
"""
# On a busy machine a run can differ from the table although the launcher works.
# The run is then repeated, with a warning that contains the measured time: a node in
# state RESTARTING is started five seconds after its last start, and the launcher
# logs "poll timeout" for a client that closes after more than 100 ms.
QUICK_ENOUGH = 4.0
CLOSED_IN_TIME = 0.1
ATTEMPTS = 10
OWN_FIRST_CALL = "fcntl(2, F_GETFD)"

AS_USUAL = Outcome("as usual")


@dataclasses.dataclass
class Facts:
    """The results of a run."""

    calls: list  # of the launcher, and of its children if they are traced
    pid: int
    lines: list  # of the log, without times and places, pids as PID
    replies: list  # results, None for no reply
    is_up: bool  # until the test ended it, which the following fields need
    states: dict = dataclasses.field(default_factory=dict)  # by node
    known: dict = dataclasses.field(default_factory=dict)  # node to pid
    alive: dict = dataclasses.field(default_factory=dict)  # node to pid
    dead: int = 0  # children that are zombies
    inherits: set = dataclasses.field(default_factory=set)  # nodes with a socket
    blocks: set = dataclasses.field(default_factory=set)  # with blocked signals
    descriptors: list = dataclasses.field(default_factory=list)
    # After the end.
    status: int = None
    stdout: str = ""
    stderr: str = ""
    survivors: list = dataclasses.field(default_factory=list)  # nodes


@pytest.fixture(name="new_machine")
def fixture_new_machine(tmp_path, program, namespaces):
    """Creates machines, each for one run."""
    del namespaces
    made = []

    def make():
        directory = tmp_path / f"machine{len(made)}"
        directory.mkdir()
        made.append(Machine(directory, program))
        return made[-1]

    yield make
    for machine in made:
        machine.shut_down()


def is_readable(client):
    return bool(select.select([client], [], [], 0)[0])


class Run:
    """A scenario on a machine, with an outcome that decides how it is observed."""

    def __init__(self, machine, scenario, outcome):
        self.machine = machine
        self.scenario = scenario
        self.outcome = outcome
        self.launcher = None
        self.replies = []
        self.is_asked_again = False
        self.slowest_close = 0.0  # seconds from a reply to the client's close

    def go(self, strace):
        """Starts the launcher under strace and takes the steps. Returns the facts,
        and why the test itself was too slow for these, or None."""
        begin = time.monotonic()
        self.start(strace)
        if self.outcome.ends is None and self.scenario.arguments is None:
            self.take_steps()
        is_up = not (self.scenario.ends or self.outcome.ends is not None
                     or self.has_aborted())
        if not is_up:
            self.machine.wait()
        facts = self.look_around() if is_up else self.read_files(False)
        reason = self.why_too_slow(facts, time.monotonic() - begin)
        if is_up:
            os.kill(self.launcher.host_pid, self.outcome.end)
        facts.status = self.machine.wait()
        facts.stdout, facts.stderr = self.machine.stdout(), self.machine.stderr()
        running = (node_of(p.host_pid) for p in self.machine.processes() if p.is_alive)
        facts.survivors = sorted(filter(None, running))
        return facts, reason

    def why_too_slow(self, facts, seconds):
        """The reason to repeat a run of so many seconds; None if its results count.
        An additional "poll timeout" counts unless a client was measured to be
        slow. The failed write of that line is only in the trace."""
        found = max(facts.lines.count(POLL_TIMEOUT),
                    sum("poll timeout" in call.arguments for call in facts.calls))
        more = found - self.outcome.adds.count(POLL_TIMEOUT)
        if more > 0 and self.slowest_close >= CLOSED_IN_TIME:
            return f"a client closed {self.slowest_close:.3f} s after its reply"
        is_restarting = (self.scenario.restarting
                         or State.RESTARTING in dict(self.outcome.states).values())
        if is_restarting and seconds >= QUICK_ENOUGH:
            return f"the run took {seconds:.1f} s, and a node restarts after 5 s"
        return None

    def has_aborted(self):
        """Whether the launcher has ended where the outcome allows that."""
        return self.outcome.may_abort and self.machine.has_ended

    def take_steps(self):
        try:
            self.launcher = LauncherView(self.machine)
        except AssertionError:
            if not self.outcome.may_abort:
                raise
            self.machine.wait()
            return
        self.settle()
        steps = [*self.scenario.steps]
        if self.outcome.next_exit:
            steps.append(Die(self.outcome.next_exit))
        for step in steps:
            if self.has_aborted():
                return
            self.take(step)

    def start(self, strace):
        machine, scenario = self.machine, self.scenario
        machine.script("ps", PS)
        machine.script("halting", HALTING)
        machine.script("worker", "exec sleep 1000")
        content = {"vornnode": scenario.nodes}
        if scenario.environment:
            content["configure"] = {"environment": scenario.environment}
        options = {"strace": strace, "traces_children": False}
        if scenario.traces_children:
            spend = machine.file("spend.py", SPEND)
            options = {"wrapper": ["strace", "-D", "-f", "-o", "/tmp/strace.log",
                                   *on_every_machine(strace),
                                   PYTHON, "-I", "-S", spend]}
        machine.start(
            content, arguments=scenario.arguments, wait_until_up=False, **options,
            environment={"TZ": "UTC0", "PATH": "/tmp/bin:/usr/bin:/bin",
                         "ASAN_OPTIONS": "detect_leaks=0"},
        )

    def settle(self, **options):
        self.launcher.wait_until_quiet(
            notices_exits=self.outcome.is_supervising, **options)

    def take(self, step):
        if isinstance(step, Ask):
            self.replies.append(self.ask(step))
            if self.replies[-1] is None and not self.is_asked_again \
                    and self.outcome.reply == "none, no effect":
                self.is_asked_again = True
                self.replies.append(self.ask(step))
        elif isinstance(step, Halt):
            self.halted(step.node)
        elif isinstance(step, Exit):
            self.end(self.halted(step.node), signal.SIGCONT)
        elif isinstance(step, Die):
            self.end(self.executed(step.node), signal.SIGKILL)
        elif isinstance(step, AwaitRestart):
            self.settle(without_limit=True)
        elif isinstance(step, Signal):
            os.kill(self.launcher.host_pid, step.number)
            return
        self.settle()

    def executed(self, node):
        return eventually(lambda: self.launcher.node(node), f"{node} is executed")

    def halted(self, node):
        def halted():
            child = self.launcher.node(node)
            return child if child and child.state == "T" else None

        return eventually(halted, f"{node} halts")

    def end(self, child, number):
        os.kill(child.host_pid, number)
        eventually(
            lambda: child.host_pid not in
            (c.host_pid for c in self.launcher.children() if not c.is_zombie),
            "the node is dead",
        )

    def ask(self, step):
        """The result in the reply; None without one. The end of the stream is not an
        indication: a child that was forked in the meantime keeps the connection
        open."""
        no_reply_until = 0.0

        def is_served():
            nonlocal no_reply_until
            now = time.monotonic()
            if is_readable(client):
                return True
            no_reply_until = now
            return self.launcher.is_quiet()

        with self.machine.connect() as client:
            no_reply_until = time.monotonic()
            try:
                client.sendall(pack_request(step.cmd, step.node))
                eventually(is_served, "the request has been served")
                data = b""
                if is_readable(client):
                    data = read_exactly(client, RESPONSE.size)
            except (BrokenPipeError, ConnectionResetError):
                data = b""
        self.slowest_close = max(
            self.slowest_close, time.monotonic() - no_reply_until)
        return unpack_response(data).result if data else None

    def look_around(self):
        """Records the current state before a restart can change it."""
        eventually(
            lambda: all(child.node or (child.is_zombie and not child.is_traced)
                        for child in self.launcher.children()),
            "its children are nodes that have been executed",
        )
        self.settle()
        facts = self.read_files(True)
        children = self.launcher.children()
        living = [child for child in children if not child.is_zombie]
        facts.dead = len(children) - len(living)
        facts.alive = {child.node: child.pid for child in living}
        facts.inherits = {child.node for child in living if child.has_socket}
        facts.blocks = {child.node for child in living if child.blocks_signals}
        facts.descriptors = sorted(
            re.sub(".*/(?=std)", "", name) for name in self.launcher.descriptors())
        if self.outcome.has_socket:
            replies = {node: self.machine.status(node) for node in self.scenario.nodes}
            facts.states = {node: reply.state for node, reply in replies.items()}
            facts.known = {node: reply.pid for node, reply in replies.items()}
        return facts

    def read_files(self, is_up):
        """The facts in the trace and the log."""
        return Facts(parse_trace(self.read_trace()), self.machine.pid,
                     self.read_lines(), self.replies, is_up)

    def read_lines(self):
        """The log lines, without times and places, pids as PID."""
        return [
            ("*" if line.event else "")
            + f"{line.level} {line.func}: "
            + re.sub(r"(?<=si_pid: )\d+|(?<=^Child )\d+", "PID", line.text)
            for line in self.machine.log()
        ]

    def read_trace(self):
        """The lines of strace so far, each with its pid."""
        file = self.machine.tmp / "strace.log"
        text = file.read_text(encoding="utf-8", errors="replace")
        if self.scenario.traces_children:
            return text
        return re.sub("^", f"{self.machine.pid} ", text, flags=re.MULTILINE)


def run(new_machine, scenario, strace_options, outcome):
    """The facts of a run that was quick enough. `strace_options` returns strace's
    options for a machine's directory."""
    for _ in range(ATTEMPTS):
        machine = new_machine()
        facts, reason = Run(machine, scenario, outcome).go(strace_options(machine.tmp))
        if reason is None:
            return facts
        warnings.warn(f"{scenario.name}: repeated, since {reason}", stacklevel=1)
    raise AssertionError(f"the machine is too slow for this scenario: {reason}")


@pytest.fixture(scope="session", name="usual")
def fixture_usual(tmp_path_factory, program, namespaces):
    """Returns the facts of a scenario without a fault. All workers share them."""
    del namespaces
    shared = tmp_path_factory.getbasetemp()
    if "PYTEST_XDIST_WORKER" in os.environ:
        shared = shared.parent

    def observe(scenario):
        made = []

        def make():
            made.append(Machine(tmp_path_factory.mktemp("usual"), program))
            return made[-1]

        try:
            return run(make, scenario, lambda _: ["-s", "400"], AS_USUAL)
        finally:
            for machine in made:
                machine.shut_down()

    @functools.cache
    def usual(scenario):
        file = shared / f"{scenario.name}.facts"
        with open(file.with_suffix(".lock"), "w", encoding="ascii") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            if not file.exists():
                file.write_bytes(pickle.dumps(observe(scenario)))
            return pickle.loads(file.read_bytes())

    return usual


# -- The calls of a run without a fault.


def is_a_sanitizer_s(call):
    """Whether the call is a sanitizer's, which creates pipes to inspect memory."""
    return (call.name == "pipe2" and not call.arguments.endswith("O_CLOEXEC")
            or call.name == "write" and not re.match("[12], ", call.arguments))


def can_fail(call):
    return not (call.name == "end" or call.name in set().union(*LEFT_OUT.values())
                or is_a_sanitizer_s(call))


def positions(calls):
    """The indexes of the launcher's calls, from its own first one on, that are made
    to fail."""
    first = next(i for i, call in enumerate(calls) if call.text == OWN_FIRST_CALL)
    return [i for i in range(first, len(calls)) if can_fail(calls[i])]


def row_of(call):
    return next((r for r in ROWS if not r.of_child and r.matches(call)), None)


def positions_of(row, calls):
    return [i for i in positions(calls) if row_of(calls[i]) is row]


def positions_of_libraries(calls):
    """One index for each kind of call that is not in the table."""
    kinds = {}
    for i in positions(calls):
        name = calls[i].name
        if row_of(calls[i]) is None and name not in CANNOT_FAIL_IN_LIBRARIES:
            shape = re.sub(r"0x\w+|\d+", "", calls[i].arguments)
            kinds.setdefault((name, shape), i)
    return list(kinds.values())


# -- The comparison.


def lines_before(position, calls):
    """How many log lines are written before a call."""
    return sum(call.name == "write" and call.arguments.startswith("2, ")
               for call in calls[:position])


def expected_lines(outcome, usual, position):
    if outcome.silent:
        return []
    lines = list(usual.lines)
    if outcome.ends is not None:
        del lines[lines_before(position, usual.calls):]
    if outcome.loses_line:
        del lines[lines_before(position, usual.calls)]
    for line in outcome.lacks:
        lines.remove(line)
    return [*lines, *outcome.adds]


def expected_replies(outcome, usual, position):
    """The results that the clients see."""
    if outcome.ends is not None:
        return []
    replies = list(usual.replies)
    request = sum(call.name == "accept" for call in usual.calls[:position]) - 1
    if outcome.reply == "none, no effect":
        replies.insert(request, None)
    elif outcome.reply == "none":
        replies[request] = None
    elif outcome.reply == "FAILED":
        replies[request] = Result.FAILED
    return replies


def check_launcher(facts, outcome, usual):
    """The launcher that is up has leaked nothing and lost nothing."""
    descriptors = list(usual.descriptors)
    if not outcome.has_socket:
        descriptors.remove("socket")
    if not outcome.has_signal_descriptor:
        descriptors.remove("anon_inode:[signalfd]")
    assert facts.descriptors == descriptors
    assert facts.dead == 0
    states = usual.states | dict(outcome.states)
    if outcome.has_socket:
        assert facts.states == states
        assert {node: facts.known[node] for node in facts.alive} == facts.alive
    running = {node for node, state in states.items() if state == State.RUNNING}
    assert set(facts.alive) == running | set(outcome.still_runs)
    inherited = set(outcome.inherited_by)
    assert inherited <= facts.inherits <= usual.inherits | inherited
    assert facts.blocks == set(outcome.blocked)


def check(facts, outcome, usual, position):
    """The run differs from the usual one by the outcome."""
    if outcome.may_abort and facts.status == -signal.SIGABRT:
        check_abort(facts, usual)
        return
    more = collections.Counter(facts.lines)
    more.subtract(expected_lines(outcome, usual, position))
    assert not +more or outcome.may_add, "these lines come in addition"
    assert not -more, "these lines are missing"
    assert facts.replies == expected_replies(outcome, usual, position)
    if facts.is_up:
        check_launcher(facts, outcome, usual)
    assert facts.status == (usual.status if outcome.ends is None else outcome.ends)
    assert outcome.says in facts.stderr
    assert facts.stdout == outcome.stdout + ("" if outcome.is_mute else usual.stdout)
    assert facts.survivors == sorted(outcome.survivors or usual.survivors)


def check_abort(facts, usual):
    """The launcher says why it ends, and has started no node."""
    assert "terminate called after throwing" in facts.stderr
    assert facts.lines == usual.lines[: len(facts.lines)]
    assert not facts.survivors and not facts.alive
    assert not any("Node start" in line for line in facts.lines)


def injection(name, error, number):
    """strace's options for the failure of the call of this number and name, which are
    the kernel's."""
    return ["-s", "400", "-e", f"trace=?{name}",
            "-e", f"inject=?{name}:error={error}:when={number}"]


def kernel_name(call):
    return call.kernel_name or call.name


def number_of(call, calls):
    """The number of the call among the calls of its name, from 1."""
    name = kernel_name(call)
    return [id(c) for c in calls if kernel_name(c) == name].index(id(call)) + 1


def fail(new_machine, scenario, position, error, outcome, usual):
    """A run in which the call of this position fails, and its comparison."""
    call = usual.calls[position]
    number = number_of(call, usual.calls)
    facts = run(new_machine, scenario,
                lambda _: injection(kernel_name(call), error, number), outcome)
    [failed] = [other for other in facts.calls if other.was_injected]
    assert row_of(failed) is row_of(call), f"{failed.text} has failed"
    try:
        check(facts, outcome, usual, position)
    except AssertionError as wrong:
        raise AssertionError(f"{error} in {call.text}: {wrong}") from wrong


# -- The tests.


IN_ONE_PROCESS = [s for s in SCENARIOS if not s.traces_children]
QUICK = [s for s in IN_ONE_PROCESS if not s.is_slow]


@pytest.mark.parametrize("scenario", IN_ONE_PROCESS, ids=lambda s: s.name)
def test_a_run_without_a_fault_makes_no_own_call_that_is_not_in_the_table(
        scenario, usual):
    facts = usual(scenario)
    own = {row.name for row in ROWS} - SHARED_WITH_LIBRARIES
    calls = [facts.calls[i] for i in positions(facts.calls)]
    assert not [c.text for c in calls if c.name in own and row_of(c) is None]
    check(facts, AS_USUAL, facts, None)


def test_every_system_call_in_the_sources_is_in_the_table():
    text = "".join(
        file.read_text(encoding="utf-8") for directory in
        ("tools/vornlaunch/src", "libvornlib/src") for file in
        sorted((SOURCES / directory).glob("*.cpp")))
    functions = set(re.findall(r"(?<![\w>:])::([a-z_]\w*)\(", text))
    calls = {fault_table.FUNCTIONS.get(name, name) for name in functions} - {None}
    assert calls - {row.name for row in ROWS} <= set().union(*LEFT_OUT.values())
    assert set(fault_table.FUNCTIONS) <= functions


def parameters():
    """Each case and its scenario; None is the first one that makes the call. In the
    long form one error of each outcome is injected wherever the call is made."""
    long = [pytest.mark.long]
    for case in CASES:
        yield pytest.param(case, case.scenario, id=case.id,
                           marks=[] if case.is_short else long)
        if case.is_short and not case.scenario:
            for scenario in QUICK:
                yield pytest.param(case, scenario, id=f"{scenario.name}-{case.id}",
                                   marks=long)


@pytest.mark.parametrize(
    "case, scenario", [p for p in parameters() if not p.values[0].row.of_child])
def test_a_failed_call_has_exactly_the_expected_outcome(
        case, scenario, new_machine, usual):
    candidates = [scenario] if scenario else QUICK
    found = [(s, i) for s in candidates for i in positions_of(case.row, usual(s).calls)]
    if case.number:
        found = [found[case.number - 1]]
    elif case.scenario or scenario is None:
        found = [found[0]]
    for where, position in found:
        fail(new_machine, where, position, case.error, case.outcome, usual(where))


def number_in_a_child(case, usual):
    """The number of the call of the case among a child's calls of its name; the C
    library makes some of them in fork(3)."""
    child = next(call.pid for call in usual.calls if call.pid != usual.pid)
    calls = [call for call in usual.calls if call.pid == child]
    matching = [call for call in calls if case.row.matches(call)]
    return number_of(matching[case.number - 1], calls)


@pytest.mark.parametrize(
    "case, scenario", [p for p in parameters() if p.values[0].row.of_child])
def test_a_failed_call_of_a_child_has_exactly_the_expected_outcome(
        case, scenario, new_machine, usual):
    row, outcome = case.row, case.outcome
    number = case.number if row.path else number_in_a_child(case, usual(scenario))

    def strace(directory):
        options = injection(row.name, case.error, number)
        if row.path:  # the names of the file inside and outside the machine
            options += ["-P", row.path,
                        "-P", row.path.replace("/tmp", str(directory), 1)]
        return options

    facts = run(new_machine, scenario, strace, outcome)
    failed = [call for call in facts.calls
              if call.was_injected and call.pid != facts.pid]
    assert all(row.matches(call) for call in failed)
    assert len(failed) == outcome.failures
    check(facts, outcome, usual(scenario), None)


@pytest.mark.plain  # a sanitizer's own calls are not told from those of libraries
@pytest.mark.parametrize("error", ["ENOMEM", pytest.param("EINTR",
                                                          marks=pytest.mark.long)])
@pytest.mark.parametrize("scenario", [
    pytest.param(s, id=s.name, marks=[] if s in (START, SIGTERM) else pytest.mark.long)
    for s in QUICK])
def test_a_failed_call_of_a_library_changes_nothing_or_ends_the_start_up(
        scenario, error, new_machine, usual):
    facts = usual(scenario)
    for position in positions_of_libraries(facts.calls):
        fail(new_machine, scenario, position, error, OF_A_LIBRARY, facts)
