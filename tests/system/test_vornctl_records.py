"""vornctl records the actions of operators."""

import fcntl
import json
import os
import re
import signal
import stat

import pytest

from support import log_texts
from support.control import Cmd, State
from support.machine import PYTHON
from support.terminal import Terminal
from support.vornctl import VORNCTL, on_terminal, running
from support.waiting import eventually

AS_NOBODY = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
needs_root = pytest.mark.skipif(
    os.geteuid() != 0, reason="no right to become another user")
UTC = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z"
# Prints the messages that arrive at /dev/log, in a directory that only this machine has.
SYSTEM_LOG = """
import ctypes, os, socket
libc = ctypes.CDLL(None, use_errno=True)
assert libc.mount(b"none", b"/dev", b"tmpfs", 0, None) == 0
log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
log.bind("/dev/log")
os.chmod("/dev/log", 0o666)
while True:
    with open("/tmp/system-log", "ab") as file:
        file.write(log.recv(65536) + b"\\n")
"""
# Fills the queue of /dev/log, which is not read.
FILL_SYSTEM_LOG = """
import socket
log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
log.connect("/dev/log")
try:
    while True:
        log.send(b"full")
except BlockingIOError:
    pass
"""


@pytest.fixture(name="robot")
def fixture_robot(machine):
    """A machine with two running nodes."""
    path = machine.script("stay", "exec sleep 1000")
    return machine.start({"vornnode": {
        name: {"path": path} for name in ("camera", "lidar")}})


def directory(machine):
    return machine.tmp / ".run/vornctl"


def records(machine):
    file = directory(machine) / "actions.jsonl"
    return [json.loads(line) for line in file.read_text("ascii").splitlines()]


def start_system_log(machine):
    """Starts a system log; returns a function that reads its messages."""
    script = machine.file("system-log.py", SYSTEM_LOG)
    machine.execute("sh", "-c", f"{PYTHON} {script} >/dev/null 2>&1 &")
    eventually(lambda: machine.execute("test", "-S", "/dev/log").returncode == 0,
               "the system log listens")
    file = machine.tmp / "system-log"
    return lambda: file.read_text() if file.exists() else ""


# -- The record.


def test_an_action_is_recorded_with_its_user_and_reason(robot):
    done = robot.vornctl("stop", "lidar", "camera", "--reason", "a new lens: größer",
                         environment={"SUDO_USER": "alice"})
    assert (done.returncode, done.stderr) == (0, "")
    [record] = records(robot)
    assert re.fullmatch(UTC, record["time"]) and re.fullmatch(UTC, record["end"])
    assert record.pop("time") < record.pop("end")
    assert record == {
        "schema": 1, "command": "stop", "outcome": "done",
        "nodes": ["lidar", "camera"], "failures": {}, "omittedNodes": 0,
        "uid": 0, "user": "root", "sudoUser": "alice", "tty": "",
        "launcherPid": robot.pid, "reason": "a new lens: größer"}


def test_the_record_contains_the_outcome_of_each_node(robot):
    robot.vornctl("disable", "lidar")
    robot.vornctl("start", "camera", "unknown", "lidar")
    [_, record] = records(robot)
    assert (record["outcome"], record["nodes"], record["failures"]) == (
        "failed", ["camera", "lidar", "unknown"],
        {"lidar": "failed", "unknown": "no such node"})


def test_an_enable_with_a_start_is_one_record(robot):
    robot.vornctl("enable", "--now", "camera")
    [record] = records(robot)
    assert (record["command"], record["nodes"]) == ("enable --now", ["camera"])


def test_an_action_on_a_terminal_names_it(robot):
    on_terminal(robot, "restart", "camera")
    [record] = records(robot)
    assert re.fullmatch(r"pts/\d+", record["tty"])


def test_an_interrupted_action_is_recorded_as_unknown(machine):
    path = machine.script("ignores", "trap '' TERM; touch /tmp/ready\n"
                          "while :; do sleep 0.1; done")
    machine.start({"vornnode": {"camera": {"path": path}}})
    eventually((machine.tmp / "ready").exists, "the node ignores SIGTERM")
    with running(machine, "stop", "camera") as client:
        machine.wait_for_log(log_texts.command(Cmd.STOP))
        client.signal(signal.SIGINT)
        assert client.end()[0] == 7
    [record] = records(machine)
    assert (record["outcome"], record["failures"]) == (
        "unknown", {"camera": "unknown"})


def test_nothing_is_recorded_if_no_request_was_sent(robot):
    for arguments in (["stop", "--all"], ["stop", "no*"], ["status", "camera"]):
        robot.vornctl(*arguments)
    assert not directory(robot).exists()


def test_the_actions_of_top_are_recorded(robot):
    terminal = Terminal(robot, VORNCTL, "top")
    terminal.wait_for_text("POLICY")
    terminal.press("r", "y")
    terminal.wait_for_text("camera: restarted")
    [record] = records(robot)
    assert (record["command"], record["nodes"]) == ("restart", ["camera"])


@pytest.mark.parametrize("reason", ["two\nlines", "\x1b[2J", "a" * 257, "\u202e"],
                         ids=["lines", "escape", "long", "direction"])
def test_a_reason_that_is_not_one_short_line_is_wrong_usage(robot, reason):
    done = robot.vornctl("stop", "camera", "--reason", reason)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr.startswith("vornctl: the reason ")
    assert robot.status("camera").state == State.RUNNING


# -- The file.


def test_other_users_can_read_the_records_whatever_the_umask_is(robot):
    robot.execute("sh", "-c", f"umask 077; {VORNCTL} stop camera", check=True)
    modes = [stat.S_IMODE(path.stat().st_mode)
             for path in (directory(robot), directory(robot) / "actions.jsonl")]
    assert modes == [0o755, 0o644]


def test_concurrent_actions_do_not_tear_records(robot):
    script = f"for i in 1 2 3 4 5; do {VORNCTL} enable camera lidar & done; wait"
    robot.execute("sh", "-c", script, check=True)
    assert [record["nodes"] for record in records(robot)] == [["camera", "lidar"]] * 5


def test_a_full_file_is_replaced_and_kept_once(robot):
    directory(robot).mkdir(mode=0o755)
    full = "x" * (1024 * 1024 - 10)
    (directory(robot) / "actions.jsonl").write_text(full)
    (directory(robot) / "actions.jsonl.1").write_text("older")
    robot.vornctl("stop", "camera")
    assert len(records(robot)) == 1
    assert (directory(robot) / "actions.jsonl.1").read_text() == full


# States of the directory in which nothing must be written, and what the note says.
CANNOT_WRITE = {
    "symlink": ("touch target && ln -s ../../tmp/target actions.jsonl",
                "Too many levels of symbolic links"),
    "hard link": ("touch /run/target && ln /run/target actions.jsonl", "other than root"),
    "pipe": ("mkfifo actions.jsonl", "No such device or address"),
    "directory": ("mkdir actions.jsonl", "Is a directory"),
    "lock is a symlink": ("ln -s /tmp/target lock", "Too many levels"),
    "open directory": ("chmod 777 .", "other than root"),
    "open file": ("touch actions.jsonl && chmod 666 actions.jsonl", "other than root"),
    "symlink to a directory": (
        "mkdir /run/elsewhere && rmdir /run/vornctl && ln -s elsewhere /run/vornctl",
        "Not a directory"),
    "no space": ("mount -t tmpfs -o size=4k,mode=755 none /run/vornctl && cd . && "
                 "cd /run/vornctl && head -c 4000 /dev/zero >actions.jsonl",
                 "No space left on device"),
}


@pytest.mark.parametrize("state", CANNOT_WRITE)
def test_an_action_that_cannot_be_recorded_succeeds(robot, state):
    commands, reason = CANNOT_WRITE[state]
    robot.execute("sh", "-ec", f"mkdir /run/vornctl; cd /run/vornctl; {commands}",
                  check=True)
    listing = ["find", "/run", "-not", "-type", "d", "-printf", r"%p %y %s\n"]
    before = robot.run(*listing)
    done = robot.vornctl("stop", "camera")
    assert (done.returncode, done.stderr) == (0, "")
    done = robot.vornctl("stop", "camera", "--reason", "a new lens")
    assert done.returncode == 0
    assert done.stderr.startswith("vornctl: the reason was not recorded: cannot write "
                                  "/run/vornctl/actions.jsonl: ")
    assert reason in done.stderr and done.stderr.count("\n") == 1
    after = robot.run(*listing)
    # The lock is a file that has no content.
    assert after.replace("/run/vornctl/lock f 0\n", "") == before


def test_a_limit_of_file_sizes_does_not_terminate_an_action(robot):
    done = robot.execute("sh", "-c", f"ulimit -f 0; exec {VORNCTL} stop camera")
    assert (done.returncode, done.stdout) == (0, "camera: stopped\n")


def test_a_suspended_writer_delays_an_action_by_a_limited_time(robot):
    robot.vornctl("stop", "camera")
    with open(directory(robot) / "lock", "rb") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        done = robot.vornctl("start", "camera", "--reason", "repaired")
    assert done.returncode == 0
    assert "another process has locked it" in done.stderr


# -- The system log.


def test_the_system_log_receives_a_sentence(robot):
    messages = start_system_log(robot)
    robot.vornctl("disable", "lidar")
    robot.vornctl("start", "camera", "lidar", "--reason", "a new lens")
    eventually(lambda: messages().count("\n") == 2, "two messages arrived")
    assert re.fullmatch(
        r"<85>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d vornctl\[\d+\]: start camera "
        r"lidar: failed \(1 not done\); user root \(uid 0\), terminal none, "
        rf"launcher {robot.pid}, reason: a new lens",
        messages().splitlines()[1])


@needs_root
def test_other_users_record_in_the_system_log_only(robot):
    robot.tmp.chmod(0o1777)
    stop = [*AS_NOBODY, VORNCTL, "stop", "camera", "--reason", "a new lens"]
    done = robot.execute(*stop)
    assert done.returncode == 0
    assert done.stderr == (
        "vornctl: the reason was not recorded: cannot write "
        "/run/vornctl/actions.jsonl: only root can write it; no system log reads "
        "/dev/log\n")
    messages = start_system_log(robot)
    done = robot.execute(*stop)
    assert (done.returncode, done.stderr) == (0, "")
    eventually(lambda: "uid 65534" in messages(), "the message arrived")
    assert not directory(robot).exists()


def test_a_suspended_system_log_does_not_block_an_action(robot):
    start_system_log(robot)
    [log] = [process for process in robot.processes()
             if "/tmp/system-log.py" in process.argv]
    log.signal(signal.SIGSTOP)
    eventually(lambda: robot.find_process(log.pid).state == "T", "the log is suspended")
    robot.execute(PYTHON, "-c", FILL_SYSTEM_LOG, check=True)
    done = robot.vornctl("stop", "camera", timeout=30)
    assert done.returncode == 0
