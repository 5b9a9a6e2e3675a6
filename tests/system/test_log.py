"""The log of the launcher."""

import datetime
import re
import signal

import pytest

from support.control import Cmd, State


def with_node(machine, name):
    """A launch file with one node."""
    machine.script("worker", "exec sleep 1000")
    return {"vornnode": {name: {"path": "/tmp/bin/worker"}}}


def test_a_line_names_time_level_process_place_and_text(machine):
    before = datetime.datetime.now(datetime.timezone.utc)
    machine.start(with_node(machine, "worker"))
    after = datetime.datetime.now(datetime.timezone.utc)
    (line,) = machine.log_lines("Node start 'worker' ok")
    time = datetime.datetime.strptime(line.time, "%Y-%m-%dT%H:%M:%S.%f%z")
    assert before <= time <= after
    assert line.head == ("INFO", True, "startInternal", "Node start 'worker' ok")
    assert (line.name, line.pid, line.file) == ("vornlaunch", machine.pid, "node.cpp")
    assert line.line > 0


def test_the_events_of_a_node_are_marked_and_other_lines_are_not(machine):
    content = with_node(machine, "worker")
    content["vornnode"]["worker"]["sleep"] = 1
    content["vornnode"]["lost"] = {"path": "/tmp/nothing"}
    content["configure"] = {"environment": {"A": "a"}}
    machine.start(content)
    heads = [head for head in machine.heads() if head[2] != "controlHandler"]
    assert heads == [
        ("INFO", False, "parseSetenv", "setenv A: a"),
        ("INFO", False, "addNode", "name: worker"),
        ("INFO", False, "addNode", "name: lost"),
        ("INFO", False, "createSocket",
         "Created socket '/tmp/vornlaunch/vornlaunch.sock' with mode '666'"),
        ("INFO", False, "startInternal", "worker sleep 1ms"),
        ("INFO", True, "startInternal", "Node start 'worker' ok"),
        ("ERROR", True, "startInternal", "Can't find file: /tmp/nothing"),
    ]


def test_lines_for_the_journal_begin_with_their_priority(machine):
    content = with_node(machine, "worker")
    content["vornnode"] |= {"no path": {}, "lost": {"path": "/tmp/nothing"}}
    machine.file("stderr", "")
    stat = (machine.tmp / "stderr").stat()
    machine.start(
        content, environment={"JOURNAL_STREAM": f"{stat.st_dev}:{stat.st_ino}"}
    )
    lines = [
        line for line in machine.stderr().splitlines() if "controlHandler" not in line
    ]
    begin = re.compile(r"(\S+) +vornlaunch\[\d+\] \S+:\d+ \S+: ")
    assert [begin.match(line)[1] for line in lines] == [
        "<6>INFO",  # name: worker
        "<4>WARN",  # No node's path!
        "<6>INFO",  # name: lost
        "<6>INFO",  # Created socket
        "<6>*INFO",  # Node start 'worker' ok
        "<3>*ERROR",  # Can't find file
    ]


@pytest.mark.parametrize("how", ["closed", "full"])
def test_the_launcher_works_without_a_writable_log(machine, how):
    content = with_node(machine, "worker")
    content["vornnode"]["broken"] = {"path": machine.file("not-executable", "")}
    if how == "closed":
        machine.start(content, wrapper=["sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh"])
    else:
        with open("/dev/full", "wb") as full:
            machine.start(content, stderr=full)
    machine.wait_for_state("broken", State.RESTARTING)
    first = machine.status("worker")
    assert first.state == State.RUNNING
    machine.request(Cmd.RESTART, "worker")
    second = machine.status("worker")
    assert second.state == State.RUNNING and second.pid != first.pid
    machine.signal(signal.SIGINT)
    assert machine.wait() == 0
    assert machine.is_alive(second.pid)
    assert machine.stderr() == "", "nothing has been written elsewhere"
