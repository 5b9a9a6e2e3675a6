"""Every system call of the launcher fails, one after the other, by strace on the real
program. fault_table.py has the expected outcomes."""

import collections
import os
import re
import select
import signal
import subprocess
import time
import warnings

import fault_table
import pytest
from fault_table import CASES, POLL_TIMEOUT, SCENARIOS
from fault_table import AwaitRestart, Ask, Die, Exit, Halt, Signal
from support.control import RESPONSE, State, pack_request, read_exactly
from support.control import unpack_response
from support.machine import PYTHON, Machine
from support.proc_view import LauncherView, node_of
from support.trace import on_every_machine, parse_trace
from support.waiting import eventually

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
# in the first calls of every process affects only its children.
SPEND = """\
import os, signal, sys
def attempt(call, *arguments):
    try:
        call(*arguments)
    except OSError:
        pass
attempt(signal.pthread_sigmask, signal.SIG_BLOCK, [])
attempt(signal.signal, signal.SIGPIPE, signal.SIG_DFL)
attempt(signal.signal, signal.SIGXFSZ, signal.SIG_DFL)
os.execv(sys.argv[1], sys.argv[1:])
"""
# On a busy machine a run can differ from the table without a defect of the launcher. It
# is then repeated, with a warning that gives the measured time: a node that waits for
# its restart is started five seconds after its last start, and the launcher logs "poll
# timeout" for a client that closes after more than 100 ms.
QUICK_ENOUGH = 4.0
CLOSED_IN_TIME = 0.1
ATTEMPTS = 10
OWN_FIRST_CALL = "fcntl(2, F_GETFD)"

AS_USUAL = fault_table.Outcome("as usual")


@pytest.fixture(scope="session", name="before_main")
def fixture_before_main(program, tmp_path_factory):
    """The number of calls of each name by the loader and a sanitizer, before the
    launcher's own first one."""
    output = tmp_path_factory.mktemp("before_main") / "strace.log"
    subprocess.run(
        ["strace", "-f", "-o", str(output), str(program)], stdout=subprocess.DEVNULL,
        check=False, timeout=60,
        env={"LC_ALL": "C.UTF-8", "ASAN_OPTIONS": "detect_leaks=0"},
    )
    counts = collections.Counter()
    for call in parse_trace(output.read_text(encoding="utf-8")):
        if call.text == OWN_FIRST_CALL:
            return counts
        counts[call.name] += 1
    raise AssertionError("the launcher's first call is another one")


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
    """A scenario on a machine, with its expected outcome."""

    def __init__(self, machine, scenario, outcome):
        self.machine = machine
        self.scenario = scenario
        self.outcome = outcome
        self.launcher = None
        self.replies = []
        self.slowest_close = 0.0  # seconds from a reply to the client's close
        self.trace = self.lines = self.status = None
        self.children = self.alive = self.inherits = self.blocks = None
        self.descriptors = None

    # -- The steps of the scenario.

    def go(self, strace):
        """Starts the launcher under strace, takes the steps and notes their
        results. Returns why the test itself was too slow for these, or None."""
        begin = time.monotonic()
        self.start(strace)
        if self.outcome.ends is None and self.scenario.arguments is None:
            self.launcher = LauncherView(self.machine)
            self.settle()
            for step in self.scenario.steps:
                self.take(step)
            if self.outcome.next_exit:
                self.take(Die(self.outcome.next_exit))
        if self.ends:
            self.machine.wait()
            self.trace = self.read_trace()
            self.lines = self.read_lines()
        else:
            self.look_around()
        return self.why_too_slow(time.monotonic() - begin)

    def why_too_slow(self, seconds):
        """The reason to repeat a run of so many seconds; None if its results count.
        An additional "poll timeout" counts unless a client was measured to be
        slow."""
        more = self.lines.count(POLL_TIMEOUT) - self.outcome.adds.count(POLL_TIMEOUT)
        if more > 0 and self.slowest_close >= CLOSED_IN_TIME:
            return f"a client closed {self.slowest_close:.3f} s after its reply"
        if State.RESTARTING in self.states.values() and seconds >= QUICK_ENOUGH:
            return f"the run took {seconds:.1f} s, and a node restarts after 5 s"
        return None

    @property
    def states(self):
        """The expected states of the nodes at the end."""
        return self.scenario.states | dict(self.outcome.states)

    @property
    def ends(self):
        """Whether the launcher is expected to terminate during the scenario."""
        return self.scenario.ends is not None or self.outcome.ends is not None

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
            if self.outcome.is_asked_again and self.replies[-1] != step.result:
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
            lambda: all(child.node or child.is_zombie for child in
                        self.launcher.children()),
            "its children are nodes that have been executed",
        )
        self.settle()
        self.trace = self.read_trace()
        self.lines = self.read_lines()
        self.children = self.launcher.children()
        self.alive = {c.node: c.pid for c in self.children if not c.is_zombie}
        self.inherits = {c.node for c in self.children if c.has_socket}
        self.blocks = {c.node for c in self.children if c.blocks_signals}
        self.descriptors = self.launcher.descriptors()
        if self.outcome.has_socket:
            self.status = {n: self.machine.status(n) for n in self.scenario.states}

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

    # -- Checks of the outcome.

    def check(self, lines, replies):
        """Checks the log lines in any order, the replies, and the conditions of every
        run."""
        more = collections.Counter(self.lines) - collections.Counter(lines)
        assert set(more) <= set(self.outcome.may_add)
        usual = collections.Counter(self.lines) - more
        assert sorted(usual.elements()) == sorted(lines)
        assert self.replies == replies
        if not self.ends:
            self.check_descriptors()
            self.check_nodes()
            self.check_inheritance()
            os.kill(self.launcher.host_pid, self.outcome.end)
        self.check_end()

    def check_descriptors(self):
        """No descriptor is leaked or lost."""
        usual = ["/dev/null", "stderr", "stdout", "anon_inode:[eventpoll]"]
        if self.outcome.has_socket:
            usual.append("socket")
        if self.outcome.has_signal_descriptor:
            usual.append("anon_inode:[signalfd]")
        found = [re.sub(".*/(?=std)", "", name) for name in self.descriptors]
        assert sorted(found) == sorted(usual)

    def check_nodes(self):
        """No zombie is left, the states are the expected ones, and the launcher knows
        every live node."""
        assert not any(child.is_zombie for child in self.children)
        assert len(self.alive) == len(self.children)
        running = {n for n, state in self.states.items() if state == State.RUNNING}
        assert set(self.alive) == running | set(self.outcome.still_runs)
        if self.outcome.has_socket:
            assert {node: s.state for node, s in self.status.items()} == self.states
            assert {n: self.status[n].pid for n in self.alive} == self.alive

    def check_inheritance(self):
        """The nodes have no descriptors and no blocked signals from the launcher."""
        usual = set(self.scenario.inherited_by)
        unusual = set(self.outcome.inherited_by)
        assert unusual <= self.inherits <= usual | unusual
        assert self.blocks == set(self.outcome.blocked)

    def check_end(self):
        """The launcher and the nodes terminate as expected."""
        status = 0
        if self.ends:
            own = self.outcome.ends
            status = own if own is not None else self.scenario.ends
        assert self.machine.wait() == status
        assert self.outcome.says in self.machine.stderr()
        stdout = "" if self.outcome.is_mute else self.scenario.stdout
        assert self.machine.stdout() == self.outcome.stdout + stdout
        found = [node_of(p.host_pid) for p in self.machine.processes() if p.is_alive]
        expected = self.outcome.survivors or self.scenario.survivors
        assert sorted(node for node in found if node) == sorted(expected)


# -- Without a fault.


def is_launcher_s_own(call):
    """Whether the call is not a sanitizer's, which creates pipes to inspect memory."""
    return not (
        call.name == "pipe2" and not call.arguments.endswith("O_CLOEXEC")
        or call.name == "write" and not re.match("[12], ", call.arguments)
    )


def own_calls(trace):
    """The launcher's calls from its own first one on."""
    calls = parse_trace(trace)
    first = next(i for i, c in enumerate(calls) if c.text == OWN_FIRST_CALL)
    return [c for c in calls[first:] if is_launcher_s_own(c) and c.name != "end"]


def matches(call, expected):
    return call.name == expected.name and re.match(expected.arguments, call.arguments)


def compare(calls, expected):
    """Asserts that the calls are the expected ones, in their order, the last of which
    may be unfinished."""
    expected = list(expected)
    for call in calls:
        assert expected, f"one too many: {call.text}"
        if expected[0].repeats and not matches(call, expected[0]):
            expected.pop(0)
        assert matches(call, expected[0]), f"{call.text} is not {expected[0]}"
        if not expected[0].repeats:
            expected.pop(0)
    assert [c.name for c in expected] in ([], ["epoll_wait"]), "these have not come"


def run(new_machine, scenario, strace_options, outcome=AS_USUAL):
    """A run that was quick enough. `strace_options` returns strace's options for a
    machine's directory."""
    for _ in range(ATTEMPTS):
        a_run = Run(new_machine(), scenario, outcome)
        reason = a_run.go(strace_options(a_run.machine.tmp))
        if reason is None:
            return a_run
        warnings.warn(f"{scenario.name}: repeated, since {reason}", stacklevel=1)
    raise AssertionError(f"the machine is too slow for this scenario: {reason}")


@pytest.mark.parametrize(
    "scenario", [s for s in SCENARIOS if not s.traces_children], ids=lambda s: s.name
)
def test_the_table_names_every_call_of_a_run_without_a_fault(scenario, new_machine):
    a_run = run(new_machine, scenario, lambda _: ["-s", "400"])
    left_out = set().union(*fault_table.LEFT_OUT.values())
    calls = [c for c in own_calls(a_run.trace) if c.name not in left_out]
    compare(calls, scenario.calls)
    a_run.check(scenario.lines, [step.result for step in scenario.asks])


# -- With a fault.


def injection(case, directory, before_main):
    """strace's options for the fault of a case, on the machine in `directory`."""
    call = case.call
    options = ["-s", "400", "-e", f"trace={call.name}"]
    before = 0
    if call.path:
        # The names of the file inside and outside the machine.
        options += ["-P", call.path, "-P", call.path.replace("/tmp", str(directory), 1)]
    elif not case.scenario.traces_children:
        before = before_main[call.name]
    when = before + case.n
    return options + ["-e", f"inject={call.name}:error={case.error}:when={when}"]


@pytest.mark.parametrize(
    "case",
    [pytest.param(case, marks=[] if case.is_short else pytest.mark.long, id=case.id)
     for case in CASES],
)
def test_a_failed_call_has_exactly_the_expected_outcome(case, new_machine, before_main):
    a_run = run(
        new_machine, case.scenario,
        lambda directory: injection(case, directory, before_main), case.outcome)
    failed = [call for call in parse_trace(a_run.trace) if call.was_injected
              and (call.pid != a_run.machine.pid) == case.call.of_child]
    assert all(matches(call, case.call) for call in failed)
    assert len(failed) == case.outcome.failures
    a_run.check(case.expected_lines(), case.expected_replies())
