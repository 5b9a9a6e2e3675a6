"""vornctl shows what the launcher's log says about the life of nodes."""

import json

import pytest

from support import log_texts
from support.control import Cmd, State


@pytest.fixture(name="robot")
def fixture_robot(machine):
    """Oneshots that have exited, one of them with an error, and a running node."""
    machine.script("stay", "exec sleep 1000")
    machine.script("good", "exit 0")
    machine.script("bad", "echo 'no map' >&2; exit 3")
    machine.start({"vornnode": {
        "camera": {"path": "/tmp/bin/stay"},
        "good": {"path": "/tmp/bin/good", "oneshot": True},
        "bad": {"path": "/tmp/bin/bad", "oneshot": True},
        "later": {"path": "/tmp/bin/bad", "oneshot": True, "autostart": False},
    }})
    for name in ("good", "bad"):
        machine.wait_for_state(name, State.DISABLED)
    return machine


def states(machine, *arguments):
    """The exit status, and the states by name."""
    done = machine.vornctl("status", "--plain", "--no-header", "-o", "node,state",
                           *arguments)
    assert done.stderr == ""
    return done.returncode, dict(line.split("\t") for line in done.stdout.splitlines())


def test_a_oneshot_that_exited_with_an_error_is_failed(robot):
    assert states(robot) == (0, {"camera": "running", "good": "disabled",
                                 "bad": "failed", "later": "never-started"})


def test_failed_shows_only_failed_nodes_and_is_exit_status_1(robot):
    assert states(robot, "--failed") == (1, {"bad": "failed"})
    assert states(robot, "--failed", "camera", "good") == (0, {})


def test_a_crash_loop_is_failed_while_the_node_runs(machine):
    machine.script("loop", "exec sleep 1000")
    machine.start({"vornnode": {"loop": {"path": "/tmp/bin/loop"}}})
    for count in range(1, 4):
        machine.child("loop", ["sleep", "1000"]).signal(11)
        machine.wait_for_log(log_texts.ready_to_restart("loop"), count)
        machine.request(Cmd.START, "loop")
    done = machine.vornctl("status", "--failed", "--plain", "--no-header",
                           "-o", "node,state,restarts,last_exit")
    assert (done.returncode, done.stdout) == (1, "loop\trunning\t3\tSIGSEGV\n")


def test_the_last_exit_is_part_of_the_json(robot):
    document = json.loads(robot.vornctl("status", "--json", "bad").stdout)
    [node] = document["nodes"]
    assert (node["condition"], node["failed"]) == ("failed", True)
    exit_ = node["lastExit"]
    assert (exit_["exitStatus"], exit_["signal"], exit_["cause"]) == (
        3, None, "itself")


def test_a_log_that_cannot_be_read_is_an_error_only_if_it_is_needed(machine):
    machine.script("bad", "exit 3")
    machine.start({"vornnode": {"bad": {"path": "/tmp/bin/bad", "oneshot": True}}})
    machine.wait_for_state("bad", State.DISABLED)
    assert machine.vornctl("status", "--log", "/no/log").stderr == ""
    done = machine.vornctl("status", "--log", "/no/log", "--failed")
    assert done.stderr == (
        "vornctl: cannot read the log /no/log: No such file or directory\n")


def test_a_wait_for_the_success_of_a_oneshot_is_over_at_its_exit(robot):
    done = robot.vornctl("wait", "good", "--state", "succeeded")
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def test_a_wait_for_the_success_of_a_oneshot_fails_with_it(robot):
    done = robot.vornctl("wait", "good", "bad", "--state", "succeeded")
    assert (done.returncode, done.stderr) == (
        1, "vornctl: bad has failed: it exited with status 3\n")


def test_a_node_that_restarts_cannot_succeed(robot):
    done = robot.vornctl("wait", "camera", "--state", "succeeded")
    assert (done.returncode, done.stderr) == (
        2, "vornctl: camera: only a node with oneshot: true can succeed\n")
