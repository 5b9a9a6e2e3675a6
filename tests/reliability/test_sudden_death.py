"""The launcher killed at its every system call, and the next one started over
what it has left: a socket nobody listens on, nodes without a launcher."""

import collections
import dataclasses
import os
import re
import select
import signal
import socket
import struct
import sys

import pytest

from support.control import Cmd, Result, State, pack_request
from support.machine import Machine
from support.start_time import start_ticks
from support.trace import launcher_calls
from support.waiting import eventually

SLEEP = ["sleep", "1000"]
NODES = {
    "first": {"path": "/tmp/bin/stay", "required": ["second"]},
    "second": {"path": "/tmp/bin/stay", "sleep": 10},
    "third": {"path": "/tmp/bin/stay", "autostart": False},
    "fourth": {"path": "/tmp/bin/fall-once"},
}
STARTED = ["first", "second", "fourth"]

# The calls are dealt out to so many tests, to run beside each other.
LONG_SHARES = 8
# The short form kills at so many of a scenario's calls, spread evenly.
SHORT_COUNT = 4


def pytest_generate_tests(metafunc):
    if "share" in metafunc.fixturenames:
        is_long = metafunc.config.getoption("--long")
        metafunc.parametrize("share", range(LONG_SHARES if is_long else 1))


# -- What the launcher does until it dies.


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
                break  # it has died meanwhile
        return clients

    def is_over(self, machine, clients):
        del machine
        return len(select.select(clients, [], [], 0)[0]) == len(clients)


@dataclasses.dataclass(frozen=True)
class Fall:
    """The fourth node exits and is started again."""

    def begin(self, machine):
        del machine
        return []

    def is_over(self, machine, clients):
        del clients
        return len(machine.log_lines("Node start 'fourth' ok")) == 2


@dataclasses.dataclass(frozen=True)
class Signal:
    """SIGTERM, with which the launcher stops the nodes and ends."""

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


def start(machine, scenario, **options):
    """Starts the launcher and waits until it answers or has died."""
    machine.script("stay", "exec " + " ".join(SLEEP))
    machine.script(
        "fall-once",
        "[ -e /tmp/fallen ] && exec sleep 1000\n: > /tmp/fallen\nexit 1",
    )
    if not isinstance(scenario, Fall):
        machine.file("fallen", "")
    machine.start({"vornnode": NODES}, wait_until_up=False, **options)

    def answers_or_has_died():
        if machine.has_ended:
            return True
        try:
            return machine.status("none").result == Result.NOT_FOUND
        except (OSError, struct.error):
            return False  # not yet, or no more

    eventually(answers_or_has_died, "the launcher answers or has died")


# -- Where it dies.


@dataclasses.dataclass(frozen=True)
class Place:
    """The entry into the launcher's `nth` call of this name, counted from 1."""

    call: str
    nth: int


def is_idle(machine):
    """Whether the launcher's last call is a wait that has not come back."""
    trace = (machine.tmp / "strace.log").read_text(encoding="utf-8", errors="replace")
    return re.search(r"\d+ +epoll_wait\([^\n]*$", trace)


def places(machine, scenario):
    """Every place of the scenario, as a rehearsal on this machine shows them."""
    start(machine, scenario, strace=[])
    eventually(lambda: is_idle(machine), "the launcher waits")
    before = len(launcher_calls(machine))
    if scenario is None:
        first, last = 1, before  # without the execve that makes it the launcher
    else:
        clients = scenario.begin(machine)
        eventually(lambda: scenario.is_over(machine, clients), f"{scenario} is over")
        eventually(
            lambda: machine.has_ended or is_idle(machine), "the launcher waits again"
        )
        for client in clients:
            client.close()
        # One more, the wait behind it, which has not come back.
        first, last = before + 1, None
    seen = collections.Counter()
    found = []
    for call in launcher_calls(machine):
        seen[call.name] += 1
        found.append(Place(call.name, seen[call.name]))
    return [place for place in found[first:last] if place.call != "end"]


def die_at(place, machine, scenario):
    """Lets the launcher play the scenario and die at the place. Returns whether
    it came there, and the clients of the last moment; one that does not come
    there, since its calls vary a little, is killed in the end."""
    start(
        machine, scenario,
        # Without -f: what the launcher starts is not to die.
        wrapper=["strace", "-D", "-o", "/tmp/strace.log", "-e",
                 f"inject={place.call}:signal=SIGKILL:when={place.nth}"],
        environment={"ASAN_OPTIONS": "detect_leaks=0"} if machine.sanitized else {},
    )
    clients = []
    if scenario is not None and not machine.has_ended:
        clients = scenario.begin(machine)
        eventually(
            lambda: machine.has_ended or scenario.is_over(machine, clients),
            f"{scenario} is over",
        )
    try:
        # Behind an answer come the wait for the client and that for events.
        eventually(lambda: machine.has_ended, "the launcher dies", timeout=2)
    except AssertionError:
        machine.signal(signal.SIGKILL)
        assert machine.wait() == -signal.SIGKILL
        return False, clients
    return machine.wait() == -signal.SIGKILL, clients


# -- What is left of it.


def orphans(machine):
    """The nodes that are left, when everything else has ended: by pid, when each
    was started."""

    def settled():
        try:
            alive = [p for p in machine.processes() if p.is_alive]
            if all(p.argv == SLEEP for p in alive):
                return {"are": {p.pid: start_ticks(p) for p in alive}}
        except (FileNotFoundError, ProcessLookupError):
            pass
        return None

    return eventually(settled, "only nodes are left")["are"]


def found_as_documented(machine):
    """The pids of the nodes, by the command of docs/operations.md."""
    files = machine.run(
        "sh", "-c", "grep -lz '^__VORN_NODE_NAME__=' /proc/[0-9]*/environ 2>/dev/null",
        check=False,
    )
    return {int(file.split("/")[2]) for file in files.split()}


def has_ended(client):
    """Reads what has come. Whether that was the end of the stream; what came
    before must be nothing or a whole reply."""
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
    """The nodes with a socket: that of the client whose command started them."""
    return [
        process
        for process in machine.processes()
        if any(d.startswith("socket:") for d in process.descriptors.values())
    ]


def assert_the_next_one_takes_over(machine):
    """Starts another launcher and looks at all it does."""
    machine.file("fallen", "")
    left = orphans(machine)
    assert found_as_documented(machine) == set(left)

    machine.start_again()
    pids = {name: machine.wait_for_state(name, State.RUNNING).pid for name in STARTED}
    assert machine.status("third").state == State.STOPPED
    assert machine.request(Cmd.START, "third").result == Result.SUCCESS
    pids["third"] = machine.status("third").pid
    assert not set(pids.values()) & set(left)
    assert set(orphans(machine)) == set(left) | set(pids.values())
    assert found_as_documented(machine) == set(left) | set(pids.values())

    machine.find_process(pids["second"]).signal(signal.SIGKILL)
    machine.wait_for_state("second", State.RESTARTING)
    machine.signal(signal.SIGTERM)
    assert machine.wait() == 0
    assert [
        line
        for line in machine.log()
        if line.pid == machine.pid and line.level == "ERROR"
    ] == []
    assert orphans(machine) == left, "the nodes of the first are as they were"


def assert_clients_see_the_end(machine, clients):
    """At once, but for one whose command has started a node: that one has a copy
    of the connection and ends it with its own end."""
    waiting = [client for client in clients if not has_ended(client)]
    if waiting:
        nodes = holders(machine)
        assert len(waiting) == len(nodes) == 1
        nodes[0].signal(signal.SIGKILL)
        eventually(lambda: has_ended(waiting[0]), "the client sees the end")
    for client in clients:
        client.close()


@pytest.fixture(name="new_machine")
def fixture_new_machine(tmp_path, program, namespaces):
    """Makes one machine after the other, the last one's processes ended."""
    del namespaces
    machines = []

    def shut_down():
        if machines:
            machines.pop().shut_down()

    def make():
        shut_down()
        folder = tmp_path / str(len(os.listdir(tmp_path)))
        folder.mkdir()
        machines.append(Machine(folder, program))
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
    reached = 0
    for place in chosen:
        machine = new_machine()
        there, clients = die_at(place, machine, scenario)
        reached += there
        try:
            assert_the_next_one_takes_over(machine)
            assert_clients_see_the_end(machine, clients)
        except AssertionError as error:
            raise AssertionError(f"after death at {place}: {error}") from error
    # The number of looks at the process table varies, and with it some calls.
    assert reached >= 0.7 * len(chosen)
    print(
        f"{name}, share {share}: {len(chosen)} of {len(every)} calls, "
        f"{reached} as planned",
        file=sys.stderr,
    )
