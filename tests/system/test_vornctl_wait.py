"""vornctl waits for states and follows changes."""

import json
import signal
import time

import pytest

from support import log_texts
from support.control import Cmd, State
from support.blocking import held
from support.vornctl import running
from support.waiting import eventually


@pytest.fixture(name="robot")
def fixture_robot(machine):
    """A machine with two running nodes, and one that must be started."""
    path = machine.script("stay", "exec sleep 1000")
    return machine.start({"vornnode": {
        "camera": {"path": path}, "lidar": {"path": path},
        "manual": {"path": path, "autostart": False}}})


def name_of(command):
    return command[0]


def crash(machine, name):
    """Kills the node; returns its former pid."""
    process = machine.child(name, ["sleep", "1000"])
    process.signal(signal.SIGKILL)
    return process.pid


def status_requests(machine):
    """The number of status requests that the launcher has received."""
    return len(machine.log_lines(log_texts.command(Cmd.STATUS)))


def wait_for_status_request(machine, before):
    eventually(lambda: status_requests(machine) > before, "vornctl sends a request")


# -- wait.


@pytest.mark.parametrize("arguments", [
    ["camera", "lidar", "--state", "running"], ["manual", "--state", "stopped"]],
    ids=" ".join)
def test_a_state_that_is_already_reached_is_not_awaited(robot, arguments):
    done = robot.vornctl("wait", *arguments)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


@pytest.mark.parametrize("state, cmd, name", [
    ("running", Cmd.START, "manual"), ("stopped", Cmd.STOP, "camera"),
    ("disabled", Cmd.DISABLE, "camera"), ("restarted", Cmd.RESTART, "camera"),
], ids=["running", "stopped", "disabled", "restarted"])
def test_the_state_is_awaited(robot, state, cmd, name):
    with running(robot, "wait", name, "--state", state) as client:
        # One request finds the launcher, the other one is about the node.
        eventually(lambda: status_requests(robot) >= 3, "vornctl sends a request")
        assert client.popen.poll() is None
        robot.request(cmd, name)
        assert client.end() == (0, "", "")


def test_all_of_several_nodes_are_awaited(robot):
    with running(robot, "wait", "*", "--state", "running") as client:
        eventually(lambda: status_requests(robot) >= 5, "vornctl sends a request")
        assert client.popen.poll() is None
        robot.request(Cmd.START, "manual")
        assert client.end() == (0, "", "")


def test_a_state_must_last_for_the_given_time(robot):
    begin = time.monotonic()
    done = robot.vornctl("wait", "camera", "--state", "running", "--for", "700ms")
    assert (done.returncode, done.stderr) == (0, "")
    assert time.monotonic() - begin >= 0.7


def test_a_state_that_does_not_last_is_exit_status_3(robot):
    before = status_requests(robot)
    with running(robot, "wait", "camera", "--state", "running",
                 "--for", "1h") as client:
        wait_for_status_request(robot, before + 1)
        crash(robot, "camera")
        status, _, errors = client.end()
    assert status == 3
    assert errors.startswith("vornctl: the state did not last: camera is ")


def test_a_wait_that_times_out_is_exit_status_6(robot):
    done = robot.vornctl("wait", "camera", "manual", "--state", "running",
                         "--timeout", "300ms")
    assert (done.returncode, done.stdout, done.stderr) == (
        6, "", "vornctl: the time limit has expired: manual is stopped\n")


@pytest.mark.parametrize("arguments", [["--timeout", "300ms"], ["--timeout", "0"]],
                         ids=" ".join)
def test_a_wait_for_a_busy_launcher_is_not_longer(robot, arguments):
    with held(robot):
        done = robot.vornctl("wait", "camera", "--state", "running", *arguments)
    assert (done.returncode, done.stdout) == (6, "")


def test_a_wait_for_a_busy_launcher_can_be_interrupted(robot):
    with held(robot), running(
            robot, "wait", "camera", "--state", "running") as client:
        client.wait_until_polling()
        client.signal(signal.SIGINT)
        assert client.end()[:2] == (6, "")


@pytest.mark.parametrize("command", [
    ["wait", "camera", "camrea", "--state", "running"],
    ["monitor", "camrea", "camera"]], ids=name_of)
def test_an_unknown_node_is_not_awaited(robot, command):
    done = robot.vornctl(*command)
    assert (done.returncode, done.stderr) == (
        4, "vornctl: camrea: no such node; did you mean 'camera'?\n")


def test_a_node_that_is_newer_than_the_launcher_does_not_end_the_wait(robot):
    other = robot.file("other.yaml", "vornnode: {new: {path: /bin/x}, "
                       "camera: {path: /bin/x}}")
    with running(robot, "--launch-file", other, "monitor") as client:
        assert change(client.line()) == ["new", "unknown"]
        assert change(client.line())[:2] == ["camera", "running"]


def test_more_nodes_than_descriptors_are_watched(machine):
    count = 300
    machine.start({"vornnode": {
        f"n{i}": {"path": "/bin/sleep", "argv": "1000"} for i in range(count)}})
    with running(machine, "monitor", wrapper=["prlimit", "--nofile=290"]) as client:
        for i in range(count):
            assert change(client.line())[:2] == [f"n{i}", "running"]
        machine.request(Cmd.STOP, f"n{count - 1}")
        while (now := change(client.line())) != [f"n{count - 1}", "stopped"]:
            assert now[0] == f"n{count - 1}"
        client.signal(signal.SIGINT)
        assert client.end() == (0, "", "")


# -- monitor.


def change(line):
    """The node and its state of a line of `monitor`."""
    words = line.split()
    assert len(words[0]) == len("2026-11-20") and words[1].count(":") == 2
    return words[2:]


def test_monitor_prints_a_line_for_each_change(robot):
    with running(robot, "monitor", "camera", "manual") as client:
        pid = robot.status("camera").pid
        assert change(client.line()) == ["camera", "running", "pid", str(pid)]
        assert change(client.line()) == ["manual", "never", "started"]
        robot.request(Cmd.START, "manual")
        pid = robot.status("manual").pid
        assert change(client.line()) == ["manual", "running", "pid", str(pid)]
        robot.request(Cmd.DISABLE, "camera")
        while (now := change(client.line()))[1] != "disabled" or len(now) > 2:
            assert now[0] == "camera"
        client.signal(signal.SIGINT)
        assert client.end() == (0, "", "")


def test_monitor_prints_a_json_document_per_line(robot):
    with running(robot, "monitor", "--json", "camera") as client:
        first = json.loads(client.line())
        status = robot.status("camera")
        assert abs(first.pop("time") - time.time()) < 3600
        assert first == {
            "schema": 1, "name": "camera", "state": "running",
            "condition": "running", "pid": status.pid,
            "startSeconds": status.start_seconds}
        crash(robot, "camera")
        while (line := json.loads(client.line()))["state"] != "restarting":
            assert line["condition"] == "exiting"
        assert (line["pid"], line["startSeconds"]) == (None, status.start_seconds)


def test_monitor_requests_the_status_only_after_a_change(robot):
    with running(robot, "monitor", "camera", "lidar", "manual") as client:
        for _ in range(3):
            client.line()
        before = status_requests(robot)
        old = crash(robot, "camera")
        # Its crash, the five seconds until its restart, and the restart.
        while (now := change(client.line()))[1] != "running":
            assert now[0] == "camera"
        assert now[3] != str(old)
        assert 2 <= status_requests(robot) - before <= 12


@pytest.mark.parametrize("command", [
    ["monitor"], ["wait", "camera", "--state", "stopped"]], ids=" ".join)
def test_the_launchers_sudden_exit_is_detected(robot, command):
    before = status_requests(robot)
    with running(robot, *command) as client:
        wait_for_status_request(robot, before + 1)
        # The nodes continue, so nothing else indicates the exit.
        robot.signal(signal.SIGKILL)
        status, _, errors = client.end()
    assert status == 5
    assert errors == (
        "vornctl: no launcher is running: /tmp/vornlaunch/vornlaunch.sock is a stale "
        "socket, no process listens on it\n")


def test_another_launcher_is_not_mistaken_for_the_watched_one(robot):
    before = status_requests(robot)
    with running(robot, "wait", "camera", "--state", "stopped") as client:
        wait_for_status_request(robot, before + 1)
        with client.stopped():
            robot.signal(signal.SIGKILL)
            robot.wait()
            robot.run("sh", "-c", "/tmp/install/bin/vornlaunch /tmp/launch.yaml "
                      ">/tmp/second 2>&1 &")
            eventually(lambda: robot.vornctl("ping").returncode == 0,
                       "the second launcher answers")
        status, _, errors = client.end()
    assert (status, errors) == (
        5, "vornctl: the launcher has exited, and another one is running\n")


@pytest.mark.native  # an emulated client can send requests later
@pytest.mark.parametrize("number, status", [
    (signal.SIGINT, 6), (signal.SIGTERM, 6), (signal.SIGHUP, 6)],
    ids=["SIGINT", "SIGTERM", "SIGHUP"])
def test_a_wait_can_be_interrupted(robot, number, status):
    before = status_requests(robot)
    with running(robot, "wait", "manual", "--state", "running") as client:
        wait_for_status_request(robot, before + 1)
        client.signal(number)
        assert client.end() == (status, "", "")


def test_a_hangup_that_the_caller_ignores_is_ignored(robot):
    before = status_requests(robot)
    with running(robot, "wait", "manual", "--state", "running",
                 wrapper=["nohup"]) as client:
        wait_for_status_request(robot, before + 1)
        client.signal(signal.SIGHUP)
        robot.request(Cmd.START, "manual")
        assert client.end()[0] == 0
    assert robot.status("manual").state == State.RUNNING


def test_monitor_exits_with_its_reader(robot):
    with running(robot, "monitor", "camera") as client:
        client.line()
        client.popen.stdout.close()
        robot.request(Cmd.STOP, "camera")
        client.popen.wait(timeout=60)
        # By SIGPIPE, which nsenter passes on.
        assert client.popen.returncode in (-signal.SIGPIPE, 128 + signal.SIGPIPE)


# -- The state file of vornrun.


def test_a_node_is_ready_when_vornrun_says_so(machine):
    check = machine.script("check", "test -e /tmp/go")
    machine.start({"vornnode": {"camera": machine.wrapped(
        f"--state-dir /tmp/run --ready exec:{check}",
        machine.script("stay", "exec sleep 1000"))}})
    shown = ["status", "--plain", "--no-header", "-o", "state,ready"]
    eventually(lambda: machine.vornctl(*shown).stdout == "running\tstarting\n",
               "the node starts")
    early = machine.vornctl("wait", "camera", "--state", "ready", "--timeout", "100ms")
    assert early.returncode == 6
    assert early.stderr.endswith(": camera is starting\n")
    machine.file("go", "")
    assert machine.vornctl("wait", "camera", "--state", "ready").returncode == 0
    assert machine.vornctl(*shown).stdout == "running\tready\n"
    assert "Phase:  ready since " in machine.vornctl("why", "camera").stdout
    node = json.loads(machine.vornctl("status", "--json").stdout)["nodes"][0]
    assert node["run"]["ready"] is True
    assert 'vornlaunch_node_ready{node="camera"} 1\n' in machine.vornctl("metrics").stdout
