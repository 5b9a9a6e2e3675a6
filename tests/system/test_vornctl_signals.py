"""A suspended or terminated vornctl does not block the launcher."""

import json
import pathlib
import signal

import pytest

import support
from support.process_tree import ProcessTree
from support.machine import PYTHON
from support.vornctl import VORNCTL
from support.waiting import eventually

COMMANDS = ["status", "stop"]


@pytest.fixture(name="robot")
def fixture_robot(machine):
    """A machine with a node that stops immediately, because its program is missing."""
    return machine.start({"vornnode": {
        "camera": {"path": "/tmp/bin/none", "autostart": False}}})


def injected(machine, how, name, argument, command):
    """The results of tests/support/signal_injection.py."""
    script = pathlib.Path(support.__file__).with_name("signal_injection.py")
    path = machine.file("signal_injection.py", script.read_bytes())
    done = machine.execute(
        PYTHON, "-I", path, how, name, str(argument), VORNCTL, "--launch-file",
        "/tmp/launch.yaml", command, "camera", timeout=300)
    assert done.returncode == 0, done.stderr
    return json.loads(done.stdout)


def expected(command):
    """The exit status and the first line of the output without a signal."""
    return {"status": (3, "launcher "), "stop": (0, "camera: already stopped")}[command]


@pytest.mark.native  # the emulator makes more calls and handles each signal itself
@pytest.mark.parametrize("command", COMMANDS)
def test_a_client_suspended_from_a_terminal_does_not_block_the_launcher(robot, command):
    found = injected(robot, "stop", "SIGTSTP", robot.pid, command)
    status, out = expected(command)
    assert (found["status"], found["errors"]) == (status, "")
    assert found["out"].startswith(out)
    assert found["stops"] > 50


@pytest.mark.native
@pytest.mark.parametrize("command", COMMANDS)
def test_sigstop_between_connect_and_send_blocks_the_launcher(
        robot, command):
    found = injected(robot, "stop", "SIGSTOP", robot.pid, command)
    status, out = expected(command)
    assert (found["status"], found["errors"]) == (status, "")
    assert found["out"].startswith(out)
    # One request for the launcher and one for the status of the node, also before a
    # stop.
    requests = {"status": 2, "stop": 3}[command]
    assert found["blocked"] == ["connect", "getsockopt"] * requests


@pytest.mark.parametrize("command", COMMANDS)
@pytest.mark.parametrize("name", ["SIGINT", "SIGTERM", "SIGHUP", "SIGKILL"])
def test_a_terminated_client_does_not_block_the_launcher(robot, name, command):
    # A run with the sanitizers takes much longer.
    step = 6 if robot.sanitized else 1
    found = injected(robot, "end", name, step, command)
    statuses = {int(key) for key in found["statuses"]}
    assert sum(found["statuses"].values()) > found["points"] / 2
    if name == "SIGKILL":
        assert statuses == {-signal.SIGKILL}
    else:
        # It gives up where it would have waited, or completes.
        assert statuses <= {expected(command)[0], 6, 7} and len(statuses) > 1
        # With a step, the few points after the send can be skipped.
        assert 7 in statuses or step > 1
    assert robot.vornctl("ping").returncode == 0
    assert not robot.has_ended


# -- Leaks.


# In KiB. A leak of 24 bytes per request would exceed it in the long form.
ALLOWANCE = 128


def ask_by_processes(machine, count):
    """Runs `vornctl status` `count` times."""
    finished = machine.execute(
        "sh", "-c", "i=0; while [ $i -lt $1 ]; do $0 status -q camera; "
        "[ $? = 3 ] || exit 1; i=$((i + 1)); done", VORNCTL, str(count),
        timeout=1800)
    assert (finished.returncode, finished.stderr) == (0, "")


def ask_by_one_process(machine, count):
    """One vornctl sends `count` requests, each on a connection of its own. It has few
    more descriptors than it needs."""
    names = [f"unknown-{i}" for i in range(count)]
    done = machine.execute(
        "prlimit", "--nofile=16", VORNCTL, "status", "-q", *names)
    assert done.returncode == 4
    assert done.stderr.count("no such node") == count


def leaves_nothing(machine, ask, count):
    """Sends `count` requests, and checks that the launcher has no more descriptors or
    memory."""
    tree = ProcessTree(machine)
    ask(machine, max(10, count // 10))  # one-time allocations
    descriptors, memory = tree.descriptors(), tree.memory()
    ask(machine, count)
    # The last connection is closed right after its reply.
    eventually(lambda: tree.descriptors() <= descriptors,
               "the descriptors are as before")
    assert [x.name for x in machine.processes() if x.name == "vornctl"] == []
    grown = tree.memory() - memory
    print(f"{count} requests: {descriptors} descriptors, {memory} KiB, "
          f"{grown} KiB more")
    # The sanitizers delay the release of memory.
    return grown <= ALLOWANCE or machine.sanitized


def test_requests_of_many_clients_leak_nothing(robot):
    assert leaves_nothing(robot, ask_by_processes, 50)


def test_many_requests_of_one_client_leak_nothing(robot):
    assert leaves_nothing(robot, ask_by_one_process, 1000)


@pytest.mark.long
@pytest.mark.parametrize("ask", [ask_by_processes, ask_by_one_process])
def test_ten_thousand_requests_leak_nothing(robot, ask):
    assert leaves_nothing(robot, ask, 10_000)
