"""The launcher is killed at each of its system calls, and the next one is started
in the same machine: it finds a stale socket and nodes without a launcher.

A rehearsal under strace lists the calls. SIGKILL at the entry of call N is death
after call N-1, so that every boundary between two calls is tested. The next
launcher must answer, run all its nodes as new processes, notice the death of
one, end by SIGTERM with status 0 and write no ERROR line; the nodes of the first
must be found by the command in docs/operations.md and keep running."""

import collections
import dataclasses
import os
import re
import select
import shutil
import signal
import socket
import struct
import sys
import warnings

import pytest

from support import log_texts
from support.control import Cmd, Result, State, pack_request
from support.blocking import held
from support.machine import Machine
from support.start_time import start_ticks
from support.waiting import eventually

SLEEP = ["sleep", "1000"]
NODES = {
    "first": {"path": "/tmp/bin/stay", "required": ["second"]},
    "second": {"path": "/tmp/bin/stay", "sleep": 10},
    "third": {"path": "/tmp/bin/stay", "autostart": False},
}
STARTED = ["first", "second"]

# Shows the real process table after the stopped node is dead or collected, so that a
# stop makes the same calls each time.
PS = """\
pid=$(tr -dc 0-9 </proc/$PPID/cmdline)
while grep -qs '^State:.[^Z]' /proc/$pid/status; do sleep 0.01; done
exec /usr/bin/ps "$@"
"""

# The number of tests among which the calls are distributed, so that they run in
# parallel.
LONG_SHARES = 8
# The number of a scenario's calls at which the short form kills, spread evenly.
SHORT_COUNT = 3
# The number of attempts for each death: on a busy machine the number of waits before a
# restart varies, so a place is not always reached.
ATTEMPTS = 5


def pytest_generate_tests(metafunc):
    if "share" in metafunc.fixturenames:
        is_long = metafunc.config.getoption("--long")
        metafunc.parametrize("share", range(LONG_SHARES if is_long else 1))


# -- The actions of the launcher before its death.


@dataclasses.dataclass(frozen=True)
class Request:
    """A command, sent while another client waits for its turn."""

    cmd: Cmd
    name: str

    def begin(self, machine):
        clients = []
        for cmd, name in ((self.cmd, self.name), (Cmd.STATUS, "first")):
            try:
                client = machine.connect()
                clients.append(client)
                client.sendall(pack_request(cmd, name))
            except OSError:
                break  # it has died in the meantime
        return clients

    def is_over(self, machine, clients):
        del machine
        return len(select.select(clients, [], [], 0)[0]) == len(clients)


@dataclasses.dataclass(frozen=True)
class Fall:
    """The first node is killed; 5 s after its start it is restarted together with the
    second."""

    def begin(self, machine):
        try:
            machine.find_process(machine.status("first").pid).signal(signal.SIGKILL)
        except (OSError, struct.error):
            pass  # it has died meanwhile
        return []

    def is_over(self, machine, clients):
        del clients
        return len(machine.log_lines(log_texts.started("first"))) == 2


@dataclasses.dataclass(frozen=True)
class Signal:
    """SIGTERM, on which the launcher stops the nodes and exits."""

    def begin(self, machine):
        process = machine.process
        if process is not None:
            process.signal(signal.SIGTERM)
        return []

    def is_over(self, machine, clients):
        del clients
        return machine.has_ended


SCENARIOS = {
    "start-up": None,
    "START": Request(Cmd.START, "third"),
    "STOP": Request(Cmd.STOP, "first"),
    "RESTART": Request(Cmd.RESTART, "first"),
    "DISABLE": Request(Cmd.DISABLE, "second"),
    "a node's fall": Fall(),
    "SIGTERM": Signal(),
}


def start(machine, **options):
    """Starts the launcher and waits until it answers or has died."""
    machine.script("stay", "exec " + " ".join(SLEEP))
    machine.script("ps", PS)
    machine.start({"vornnode": NODES}, wait_until_up=False, **options)

    def answers_or_has_died():
        if machine.has_ended:
            return True
        try:
            return machine.status("none").result == Result.NOT_FOUND
        except (OSError, struct.error):
            return False  # not yet, or no longer

    eventually(answers_or_has_died, "the launcher answers or has died")


# -- The place of its death.


@dataclasses.dataclass(frozen=True)
class Place:
    """The entry into the launcher's `nth` call of this name, counted from 1."""

    call: str
    nth: int


def traced(machine, *options):
    """The command that starts the launcher under strace. Its children are not traced,
    and do not die with it."""
    environment = {"PATH": "/tmp/bin:/usr/bin:/bin"}
    if machine.sanitized:
        # The leak check cannot work under another tracer.
        environment["ASAN_OPTIONS"] = "detect_leaks=0"
    return {
        "wrapper": ["strace", "-D", "-o", "/tmp/strace.log", *options],
        "environment": environment,
    }


def trace(machine):
    return (machine.tmp / "strace.log").read_text(encoding="utf-8", errors="replace")


def is_idle(machine):
    """Whether the launcher's last call is a wait that has not returned."""
    return re.search(r"^epoll_p?wait\([^\n]*\Z", trace(machine), re.MULTILINE)


def calls(machine):
    """The names of the calls so far."""
    return re.findall(r"^(\w+)\(", trace(machine), re.MULTILINE)


def places(machine, scenario):
    """Every place of the scenario, found by a rehearsal on this machine."""
    start(machine, **traced(machine))
    eventually(lambda: is_idle(machine), "the launcher waits")
    before = len(calls(machine))
    if scenario is None:
        first, last = 1, before  # without the execve of the launcher
    else:
        clients = scenario.begin(machine)
        eventually(lambda: scenario.is_over(machine, clients), f"{scenario} is over")
        eventually(
            lambda: machine.has_ended or is_idle(machine), "the launcher waits again"
        )
        for client in clients:
            client.close()
        first, last = before, None
    seen = collections.Counter()
    found = []
    for call in calls(machine):
        seen[call] += 1
        found.append(Place(call, seen[call]))
    return found[first:last]


def die_at(place, machine, scenario):
    """Runs the scenario until the launcher dies at the place. Returns the clients
    of that moment; None if the launcher has not reached the place."""
    start(
        machine,
        **traced(machine, "-e", f"inject={place.call}:signal=SIGKILL:when={place.nth}"),
    )
    clients = []
    if scenario is not None and not machine.has_ended:
        clients = scenario.begin(machine)
        eventually(
            lambda: machine.has_ended or scenario.is_over(machine, clients),
            f"{scenario} is over",
        )
    try:
        # After a reply the launcher waits for the client, and then for events.
        eventually(lambda: machine.has_ended, "the launcher dies", timeout=5)
    except AssertionError:
        return None
    return clients if machine.wait() == -signal.SIGKILL else None


# -- The remains.


def nodes_of(machine):
    """The start time of each running node by its pid, after all processes other than
    the launcher and nodes have exited."""

    def settled():
        alive = [p for p in machine.processes() if p.is_alive]
        try:
            nodes = [p for p in alive if machine.has_ended or p.pid != machine.pid]
            if all(p.argv == SLEEP for p in nodes):
                return [{p.pid: start_ticks(p) for p in nodes}]
        except (FileNotFoundError, ProcessLookupError):
            pass  # it has exited in the meantime
        return None

    return eventually(settled, "nothing else runs")[0]


def found_by_environment(machine):
    """The pids of the nodes, found by their environment."""
    files = machine.run(
        "sh", "-c", "grep -lz '^__VORN_NODE_NAME__=' /proc/[0-9]*/environ 2>/dev/null",
        check=False,
    )
    return {int(file.split("/")[2]) for file in files.split()}


def has_ended(client):
    """Reads the received data, which must be empty or a whole reply. Returns whether
    the stream has ended."""
    data = b""
    try:
        while piece := client.recv(4096, socket.MSG_DONTWAIT):
            data += piece
    except BlockingIOError:
        return False
    except ConnectionError:
        pass
    assert len(data) in (0, 24), data
    return True


def holders(machine):
    """The nodes with a socket, that of the client whose command started them."""
    return [
        process
        for process in machine.processes()
        if any(d.startswith("socket:") for d in process.descriptors.values())
    ]


def assert_the_next_one_takes_over(machine):
    """Starts another launcher and checks everything that it does."""
    left = nodes_of(machine)
    assert found_by_environment(machine) == set(left)

    machine.start_again()
    pids = {name: machine.wait_for_state(name, State.RUNNING).pid for name in STARTED}
    assert machine.status("third").state == State.STOPPED
    assert machine.request(Cmd.START, "third").result == Result.SUCCESS
    pids["third"] = machine.status("third").pid
    assert not set(pids.values()) & set(left)
    assert set(nodes_of(machine)) == set(left) | set(pids.values())
    assert found_by_environment(machine) == set(left) | set(pids.values())

    machine.find_process(pids["second"]).signal(signal.SIGKILL)
    machine.wait_for_state("second", State.RESTARTING)
    machine.signal(signal.SIGTERM)
    assert machine.wait() == 0
    assert [
        line
        for line in machine.log()
        if line.pid == machine.pid and line.level == "ERROR"
    ] == []
    assert nodes_of(machine) == left, "the nodes of the first are as they were"


def assert_clients_see_the_end(machine, clients):
    """Every client sees the end of the stream at once, except one whose command has
    started nodes: they have a copy of the connection until they exit."""
    waiting = [client for client in clients if not has_ended(client)]
    if waiting:
        nodes = holders(machine)
        assert len(waiting) == 1 and nodes
        for node in nodes:
            node.signal(signal.SIGKILL)
        eventually(lambda: has_ended(waiting[0]), "the client sees the end")
    for client in clients:
        client.close()


@pytest.fixture(name="new_machine")
def fixture_new_machine(tmp_path, program, namespaces):
    """Creates one machine after the other, after terminating the processes of the
    previous one."""
    del namespaces
    machines = []

    def shut_down():
        if machines:
            machines.pop().shut_down()

    def make():
        shut_down()
        directory = tmp_path / str(len(os.listdir(tmp_path)))
        directory.mkdir()
        machines.append(Machine(directory, program))
        return machines[-1]

    yield make
    shut_down()


@pytest.mark.parametrize("name", SCENARIOS)
def test_after_a_death_at_any_call_the_next_launcher_takes_over(
    new_machine, name, share, is_long
):
    scenario = SCENARIOS[name]
    every = places(new_machine(), scenario)
    if is_long:
        chosen = every[share::LONG_SHARES]
    else:
        chosen = every[:: -(-len(every) // SHORT_COUNT)]
    for place in chosen:
        for _ in range(ATTEMPTS):
            machine = new_machine()
            clients = die_at(place, machine, scenario)
            if clients is not None:
                break
            warnings.warn(f"{name}: {place} was not reached", stacklevel=1)
        assert clients is not None, f"no death at {place} in {ATTEMPTS} attempts"
        try:
            assert_the_next_one_takes_over(machine)
            assert_clients_see_the_end(machine, clients)
        except AssertionError as error:
            raise AssertionError(f"after death at {place}: {error}") from error
    print(f"{name}, share {share}: {len(chosen)} of {len(every)} calls",
          file=sys.stderr)


# -- Other files at the path of the socket.


def stay(machine):
    """A launch file with one node that runs until it is stopped."""
    machine.script("stay", "exec " + " ".join(SLEEP))
    return {"vornnode": {"stay": {"path": "/tmp/bin/stay"}}}


def running(machine, pid):
    """The process of the pid, after it has executed the node's program."""

    def executed():
        process = machine.find_process(pid)
        return process if process and process.argv == SLEEP else None

    return eventually(executed, f"{pid} runs")


def assert_the_next_one_serves(machine):
    """Starts another launcher, which must log no error."""
    machine.start_again()
    pid = machine.wait_for_state("stay", State.RUNNING).pid
    assert running(machine, pid).parent == machine.process.host_pid
    lines = [line for line in machine.log() if line.pid == machine.pid]
    assert lines and {line.level for line in lines} == {"INFO"}


def test_every_client_sees_end_of_file_when_the_launcher_is_killed(machine):
    machine.start(stay(machine))
    with held(machine) as silent:
        # One client is being served, the others wait.
        clients = [silent]
        for _ in range(4):
            clients.append(machine.connect())
            clients[-1].sendall(pack_request(Cmd.STATUS, "stay"))
        machine.signal(signal.SIGKILL)
        assert machine.wait() == -signal.SIGKILL
        assert all(has_ended(client) for client in clients)
        for client in clients:
            client.close()
    with pytest.raises(ConnectionRefusedError):
        machine.connect()


def test_a_second_launcher_takes_only_the_socket_of_the_first(machine):
    machine.start(stay(machine))
    first = machine.process
    old = running(machine, machine.status("stay").pid)
    machine.start_again(wait_until_up=False)
    machine.wait_for_log(log_texts.started("stay"), count=2)
    assert machine.pid != first.pid
    new = running(machine, machine.status("stay").pid)
    assert new.pid != old.pid and new.parent == machine.process.host_pid
    assert machine.is_alive(old.pid)

    # The first launcher has no clients any more, and continues to supervise its node.
    old.signal(signal.SIGKILL)
    ready = machine.wait_for_log(log_texts.ready_to_restart("stay"))
    assert [line.pid for line in ready] == [first.pid]
    started = machine.wait_for_log(log_texts.started("stay"), count=3)
    assert [line.pid for line in started] == [first.pid, machine.pid, first.pid]
    assert machine.status("stay").pid == new.pid
    first.signal(signal.SIGTERM)
    eventually(lambda: not machine.is_alive(first.pid), "the first one ends")
    eventually(lambda: set(nodes_of(machine)) == {new.pid}, "so does its node")
    assert machine.status("stay").pid == new.pid


def test_the_next_launcher_creates_a_removed_socket_directory(machine):
    machine.start(stay(machine))
    old = running(machine, machine.status("stay").pid)
    shutil.rmtree(machine.tmp / "vornlaunch")
    with pytest.raises(FileNotFoundError):
        machine.connect()
    old.signal(signal.SIGKILL)
    machine.wait_for_log(log_texts.started("stay"), count=2)
    assert not (machine.tmp / "vornlaunch").exists()

    machine.signal(signal.SIGKILL)
    assert machine.wait() == -signal.SIGKILL
    assert_the_next_one_serves(machine)


def test_a_launcher_uses_a_socket_directory_that_is_a_link(machine):
    (machine.tmp / "elsewhere").mkdir()
    (machine.tmp / "vornlaunch").symlink_to("elsewhere")
    machine.start(stay(machine))
    machine.signal(signal.SIGKILL)
    assert machine.wait() == -signal.SIGKILL
    assert_the_next_one_serves(machine)
    assert os.listdir(machine.tmp / "elsewhere") == ["vornlaunch.sock"]


def test_a_dangling_link_as_socket_directory_terminates_the_launcher(machine):
    (machine.tmp / "vornlaunch").symlink_to("nowhere")
    machine.start(stay(machine), wait_until_up=False)
    assert machine.wait() == -signal.SIGABRT
    assert "filesystem error" in machine.stderr()
    assert nodes_of(machine) == {}
