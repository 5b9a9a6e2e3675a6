"""vornctl apply replaces the launch file of a unit, restarts it, and undoes that."""

import fcntl
import json
import signal

import pytest

from support.vornctl import VORNCTL, running
from support.waiting import eventually

# Restarts the launcher of the machine. Stops where the test wants to interrupt it.
SYSTEMCTL = """
[ "$1" = restart ] || exit 0
echo "$2" >>/tmp/restarts
[ ! -e /tmp/stop-before ] || { touch /tmp/stopped; exec sleep 1000; }
launcher=$(pidof vornlaunch) && kill $launcher
while pidof vornlaunch >/dev/null; do sleep 0.01; done
setsid /tmp/install/bin/vornlaunch /tmp/launch.yaml </dev/null >>/tmp/stdout 2>>/tmp/stderr &
[ ! -e /tmp/stop-after ] || { touch /tmp/stopped; exec sleep 1000; }
"""
ENVIRONMENT = ["env", "PATH=/tmp/bin:/usr/bin:/bin"]
ARGUMENTS = ["apply", "--launch-file", "/tmp/launch.yaml", "--for", "100ms"]
COMMAND = [*ENVIRONMENT, VORNCTL, *ARGUMENTS]


def text_of(machine, time, path=None):
    path = path or machine.script("camera", 'exec sleep "$1"')
    return json.dumps({"vornnode": {"camera": {"path": path, "argv": str(time)}}})


@pytest.fixture(name="robot")
def fixture_robot(machine):
    machine.script("systemctl", SYSTEMCTL)
    machine.start(text_of(machine, 1001))
    machine.child("camera", ["sleep", "1001"])
    return machine


def apply(machine, text, *options, wrapper=()):
    return machine.execute(*wrapper, *COMMAND, *options, machine.file("new.yaml", text))


def restarts(machine):
    path = machine.tmp / "restarts"
    return path.read_text(encoding="ascii").split() if path.exists() else []


def current(machine):
    return (machine.tmp / "launch.yaml").read_text(encoding="utf-8")


def test_apply_replaces_the_file_once(robot):
    new = text_of(robot, 1002)
    done = apply(robot, new, "--unit", "vornlaunch@robot", "--hook", "true")
    assert (done.returncode, done.stdout, done.stderr) == (0, "applied\n", "")
    assert (current(robot), restarts(robot)) == (new, ["vornlaunch@robot"])
    robot.child("camera", ["sleep", "1002"])
    done = apply(robot, new)
    assert (done.returncode, done.stdout, done.stderr) == (0, "unchanged\n", "")
    assert len(restarts(robot)) == 1


def test_apply_collects_its_commands_even_if_its_caller_ignores_sigchld(robot):
    new = text_of(robot, 1002)
    done = apply(robot, new, wrapper=["env", "--ignore-signal=CHLD"])
    assert (done.returncode, done.stdout, done.stderr) == (0, "applied\n", "")


def test_apply_puts_the_old_file_back_if_a_node_fails(robot):
    old = current(robot)
    failing = robot.script("failing", "exit 3")
    new = json.dumps({"vornnode": {"init": {"path": failing, "oneshot": True}}})
    done = apply(robot, new)
    assert (done.returncode, done.stdout) == (1, "")
    assert "init has failed: it exited with status 3" in done.stderr
    assert "the old launch file is back, and its nodes are healthy\n" in done.stderr
    assert (current(robot), len(restarts(robot))) == (old, 2)
    robot.child("camera", ["sleep", "1001"])


def test_apply_changes_nothing_for_a_wrong_file_a_refusal_or_a_second_apply(robot):
    old = current(robot)
    done = apply(robot, "vornnode: [")
    assert (done.returncode, done.stdout) == (1, "")
    assert "the launch file is unchanged: /tmp/new.yaml has errors" in done.stderr
    done = apply(robot, text_of(robot, 1002), "--hook", "echo moving >&2; exit 7")
    assert done.returncode == 21
    assert done.stderr == ("moving\nvornctl: the hook refuses: it exited with status 7; "
                           "try again later\n")
    with open(robot.tmp / "launch.yaml.lock", "w", encoding="ascii") as lock:
        fcntl.lockf(lock, fcntl.LOCK_EX)
        done = robot.execute(*COMMAND, "/tmp/new.yaml")
    assert done.returncode == 21
    assert "another apply has locked" in done.stderr
    done = robot.vornctl("apply", "/tmp/missing.yaml")
    assert (done.returncode, done.stderr) == (
        2, "vornctl: cannot read /tmp/missing.yaml: No such file or directory\n")
    for unit in ("nginx.service", "vornlaunch@.service"):
        done = robot.vornctl("apply", "--unit", unit, "/tmp/new.yaml")
        assert (done.returncode, done.stderr) == (
            2, f"vornctl: the launch file of {unit} is not known; name it with "
            "--launch-file\n")
    assert (current(robot), restarts(robot)) == (old, [])


def is_reported(machine):
    """Whether `vornctl check` reports that an apply was interrupted."""
    done = machine.execute(VORNCTL, "check", "/tmp/launch.yaml")
    return "[interrupted-apply]" in done.stdout


@pytest.mark.parametrize("place", ["before", "after"])
def test_an_apply_that_was_killed_is_reported_and_completed_by_the_next_one(robot, place):
    (robot.tmp / f"stop-{place}").touch()
    new = robot.file("new.yaml", text_of(robot, 1002))
    with running(robot, *ARGUMENTS, new, wrapper=ENVIRONMENT) as apply_1:
        eventually((robot.tmp / "stopped").exists, "apply restarts the unit")
        assert not is_reported(robot)
        apply_1.signal(signal.SIGKILL)
        eventually(lambda: [each.signal(signal.SIGKILL) for each in robot.processes()
                            if each.argv == ["sleep", "1000"]],
                   "the machine has the orphan of apply")
        assert apply_1.end()[0] == -signal.SIGKILL
    assert is_reported(robot)
    assert current(robot) == text_of(robot, 1002)
    (robot.tmp / f"stop-{place}").unlink()
    done = apply(robot, text_of(robot, 1003))
    assert (done.returncode, done.stdout) == (0, "applied\n")
    assert "was interrupted before its launch file was found to be healthy" in done.stderr
    assert current(robot) == text_of(robot, 1003)
    assert not is_reported(robot)
    robot.child("camera", ["sleep", "1003"])
