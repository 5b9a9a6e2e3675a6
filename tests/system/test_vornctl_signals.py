"""However vornctl is stopped or ended, no launcher waits for it."""

import json
import pathlib
import signal

import pytest

import support
from support.control import Cmd, State
from support.machine import PYTHON
from support.vornctl import VORNCTL
from support.waiting import eventually

COMMANDS = ["status", "stop"]


@pytest.fixture(name="robot")
def fixture_robot(machine):
    """A machine with a node whose stop takes no time: its program is missing."""
    return machine.start({"vornnode": {
        "camera": {"path": "/tmp/bin/none", "autostart": False}}})


def interrupted(machine, how, name, argument, command):
    """What tests/support/interrupted.py finds."""
    script = pathlib.Path(support.__file__).with_name("interrupted.py")
    path = machine.file("interrupted.py", script.read_bytes())
    text = machine.run(PYTHON, "-I", path, how, name, str(argument), VORNCTL,
                       "--launch-file", "/tmp/launch.yaml", command, "camera",
                       timeout=300)
    return json.loads(text)


def expected(command):
    """The exit status and the beginning of the output without a signal."""
    return {"status": (3, "NODE "), "stop": (0, "camera: stopped")}[command]


@pytest.mark.parametrize("command", COMMANDS)
def test_a_client_stopped_from_a_terminal_holds_no_launcher(robot, command):
    found = interrupted(robot, "stop", "SIGTSTP", robot.pid, command)
    status, out = expected(command)
    assert (found["status"], found["errors"]) == (status, "")
    assert found["out"].startswith(out)
    assert found["stops"] > 50


@pytest.mark.parametrize("command", COMMANDS)
def test_a_stop_that_cannot_be_held_off_holds_it_between_connect_and_send(
        robot, command):
    found = interrupted(robot, "stop", "SIGSTOP", robot.pid, command)
    status, out = expected(command)
    assert (found["status"], found["errors"]) == (status, "")
    assert found["out"].startswith(out)
    # Two requests: for the launcher, and for the node.
    assert found["blocked"] == ["connect", "getsockopt"] * 2


@pytest.mark.parametrize("command", COMMANDS)
@pytest.mark.parametrize("name", ["SIGINT", "SIGTERM", "SIGKILL"])
def test_a_client_that_is_ended_holds_no_launcher(robot, name, command):
    # A run with the sanitizers takes much longer.
    step = 6 if robot.sanitized else 1
    found = interrupted(robot, "end", name, step, command)
    statuses = {int(key) for key in found["statuses"]}
    if name == "SIGKILL":
        assert statuses == {-signal.SIGKILL}
    else:
        # Given up at one of the points where it would have waited, or done.
        assert {7} < statuses <= {expected(command)[0], 6, 7}
    assert robot.vornctl("ping").returncode == 0
    assert not robot.has_ended


# -- Nothing is left over.


def resident_kilobytes(process):
    status = process.read("status").decode()
    [line] = [x for x in status.splitlines() if x.startswith("VmRSS:")]
    return int(line.split()[1])


def test_ten_thousand_questions_leave_nothing_in_the_launcher(robot):
    def use():
        process = robot.process
        return sorted(process.descriptors.values()), resident_kilobytes(process)

    for _ in range(50):
        assert robot.vornctl("status", "camera").returncode == 3
    for _ in range(1000):
        robot.status("camera")
    descriptors, resident = use()
    for _ in range(50):
        assert robot.vornctl("status", "camera").returncode == 3
    for _ in range(9000):
        assert robot.status("camera").state == State.STOPPED
    # The last connection is closed right after its reply.
    eventually(lambda: use()[0] == descriptors, "the descriptors are as before")
    if not robot.sanitized:
        assert use()[1] - resident <= 128
    assert [p.name for p in robot.processes() if p.name == "vornctl"] == []
    assert robot.request(Cmd.ENABLE, "camera").result == 0
