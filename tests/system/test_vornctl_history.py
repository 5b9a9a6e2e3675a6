"""vornctl shows what the launcher's log says about the life of nodes."""

import json
import pathlib

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


# -- history.


def history(machine, *arguments):
    """The events as (node, event, cause)."""
    done = machine.vornctl("history", "--json", *arguments)
    assert (done.returncode, done.stderr) == (0, "")
    document = json.loads(done.stdout)
    assert document["schema"] == 1
    return [(event["node"], event["event"], event["cause"])
            for event in document["events"] if event["event"] != "action"]


def test_history_has_each_start_and_exit_with_its_cause(robot):
    robot.vornctl("restart", "camera", check=True)
    robot.vornctl("stop", "camera", check=True)
    events = history(robot)
    assert events[0] == (None, "launcher-started", "unknown")
    assert [event for event in events if event[0] == "camera"] == [
        ("camera", "started", "start-up"),
        ("camera", "started", "operator"),
        ("camera", "exited", "operator"),
        ("camera", "exited", "operator"),
    ]
    assert ("bad", "exited", "itself") in events


def test_history_selects_nodes_and_the_last_exits(robot):
    assert {event[0] for event in history(robot, "b*", "good")} == {
        None, "bad", "good"}
    [*_, (last, event, _)] = history(robot, "-n", "1")
    assert (last, event) in {("bad", "exited"), ("good", "exited")}


def test_history_shows_who_has_acted_and_why(robot):
    robot.vornctl("stop", "--reason", "new lens", "camera", check=True)
    text = robot.vornctl("history", "camera").stdout
    assert "stop by root: new lens" in text


def test_history_needs_no_launcher_for_a_named_log(robot):
    robot.signal(9)
    robot.wait()
    assert "bad   exited with status 3" in robot.vornctl(
        "history", "--log", "/tmp/stderr", "bad").stdout


def test_history_of_an_unknown_node_is_exit_status_4(robot):
    done = robot.vornctl("history", "camera", "nix")
    assert (done.returncode, done.stdout, done.stderr) == (
        4, "", "vornctl: nix: no such node in the launch file or the log\n")


def test_a_hostile_name_reaches_the_terminal_escaped(machine):
    machine.script("bad", "printf '\\033[2J\\n' >&2; exit 3")
    machine.start({"vornnode": {
        "a\x1b[2J": {"path": "/tmp/bin/bad", "oneshot": True}}})
    machine.wait_for_state("a\x1b[2J", State.DISABLED)
    for command in (["history"], ["why", "a\x1b[2J"]):
        done = machine.vornctl(*command)
        assert "a\\x1b[2J" in done.stdout
        assert "\x1b" not in done.stdout + done.stderr


# -- why: the causes of a bad night, each in the first line.


def why(machine, name):
    """The exit status and the first line."""
    done = machine.vornctl("why", name)
    return done.returncode, done.stdout.split("\n")[0]


def test_why_is_silent_about_a_node_that_runs(robot):
    status, line = why(robot, "camera")
    assert status == 0
    assert line.startswith("camera has been running since ")


def test_why_names_a_failed_oneshot_and_its_last_lines(robot):
    done = robot.vornctl("why", "bad")
    assert done.returncode == 1
    assert done.stdout.startswith("bad has failed: it exited with status 3\n")
    assert "\n    no map\n" in done.stdout


def test_why_names_a_crash_loop_with_a_core(machine):
    machine.script("loop", "exec sleep 1000")
    machine.start({"vornnode": {"loop": {"path": "/tmp/bin/loop"}}},
                  wrapper=["prlimit", "--core=unlimited"])
    for count in range(1, 4):
        machine.child("loop", ["sleep", "1000"]).signal(11)
        machine.wait_for_log(log_texts.ready_to_restart("loop"), count)
        machine.request(Cmd.START, "loop")
    status, line = why(machine, "loop")
    assert status == 1
    assert line.startswith("loop is in a crash loop: it was killed by SIGSEGV")
    assert line.endswith("; 3 restarts in the last hour")
    dumped = "si_code: 3" in machine.stderr()  # the machine may write no core
    assert ("core dumped" in line) == dumped


def test_why_names_the_lack_of_memory_in_the_kernel_log(machine):
    machine.script("hungry", "exec sleep 1000")
    machine.start({"vornnode": {"hungry": {"path": "/tmp/bin/hungry"}}})
    hungry = machine.child("hungry", ["sleep", "1000"])
    machine.file("kmsg", f"3,9,9,-;Out of memory: Killed process {hungry.pid} "
                         "(sleep) total-vm:1kB\n")
    hungry.signal(9)
    machine.wait_for_log(log_texts.ready_to_restart("hungry"))
    done = machine.execute("unshare", "--mount", "sh", "-c",
                           "mount --bind /tmp/kmsg /dev/kmsg && "
                           "/tmp/install/bin/vornctl why hungry")
    assert "was killed by SIGKILL (Killed) by the kernel for lack of memory" in (
        done.stdout.split("\n")[0])


def test_why_names_the_operator_of_a_stop_and_the_reason(robot):
    robot.vornctl("stop", "--reason", "new lens", "camera", check=True)
    status, line = why(robot, "camera")
    assert status == 0
    assert line.startswith("camera is stopped: stop by root: new lens, ")


def test_why_names_a_missing_executable(machine):
    machine.start({"vornnode": {"gone": {"path": "/tmp/bin/gone"}}})
    assert why(machine, "gone") == (
        1, "gone is disabled: its executable /tmp/bin/gone does not exist")


def test_why_names_a_replaced_executable(machine):
    machine.file("bin/planner", pathlib.Path("/bin/sleep").read_bytes(), mode=0o755)
    machine.start({"vornnode": {
        "planner": {"path": "/tmp/bin/planner", "argv": "1000"}}})
    machine.child("planner", ["/tmp/bin/planner", "1000"])
    machine.file("bin/new", pathlib.Path("/bin/sleep").read_bytes(), mode=0o755)
    (machine.tmp / "bin/new").rename(machine.tmp / "bin/planner")
    status, line = why(machine, "planner")
    assert status == 1
    assert line.endswith(" with an executable that was replaced after its start")


def test_why_names_a_full_disk(machine):
    machine.script("stay", "exec sleep 1000")
    machine.file("launch.yaml", '{"vornnode": {"a": {"path": "/tmp/bin/stay"}}}')
    machine.start(arguments=["/tmp/launch.yaml"], wrapper=[
        "sh", "-c", "mkdir /tmp/disk; mount -t tmpfs -o size=64k none /tmp/disk; "
        'exec "$@" 2>/tmp/disk/log', "sh"], wait_until_up=False)
    machine.wait_until_up()
    machine.wait_for_state("a", State.RUNNING)
    machine.run("sh", "-c", "cat /dev/zero >/tmp/disk/fill", check=False)
    status, line = why(machine, "a")
    assert status == 1
    assert line.endswith("; the file system of the log /tmp/disk/log is full")


def test_why_names_the_death_of_the_launcher(robot):
    robot.signal(9)
    robot.wait()
    assert why(robot, "camera") == (
        1, "camera runs without a launcher: its launcher was killed or has crashed")


def test_why_names_the_process_that_an_earlier_launcher_left(robot):
    earlier = robot.status("camera").pid
    robot.signal(9)
    robot.wait()
    robot.start_again()
    status, line = why(robot, "camera")
    assert status == 1
    assert line.endswith(
        f"; process {earlier} of an earlier run is alive without a launcher")
