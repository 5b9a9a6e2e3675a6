"""The log as the launcher writes it."""

import datetime
import os
import pty
import re

import pytest

from support.control import Cmd, State
from support.log import parse_log
from support.trace import read_trace
from support.waiting import eventually

STAY = "exec sleep 1000"


def with_node(machine, name, body=STAY):
    """A launch file with one node."""
    machine.script("worker", body)
    return {"vornnode": {name: {"path": "/tmp/bin/worker"}}}


# -- One line per message.


def test_every_line_is_one_write(machine):
    machine.start(
        with_node(machine, "worker"), strace=["-s", "9999", "-e", "trace=write"]
    )
    machine.request(Cmd.STOP, "worker")
    machine.wait_for_log("waitid failed")  # no child is left: the last line
    lines = machine.stderr().splitlines()

    def written():
        return [
            re.match(r'2, "(.*)", (\d+)', call.arguments)
            for call in read_trace(machine)
            if call.pid == machine.pid and call.text.startswith("write(2, ")
        ]

    writes = eventually(
        lambda: len(written()) >= len(lines) and written(), "strace has seen them all"
    )
    assert [write[1] for write in writes] == [line + "\\n" for line in lines]
    assert [int(write[2]) for write in writes] == [len(line) + 1 for line in lines]


def test_a_long_line_arrives_whole_in_one_write(machine):
    value = "v" * 30000
    machine.start(
        {"configure": {"environment": {"LONG": value}}},
        strace=["-s", "0", "-e", "trace=write"],
    )
    line = next(x for x in machine.stderr().splitlines() if "parseSetenv" in x)
    assert line.endswith(f" parseSetenv: setenv LONG: {value}")
    size = len(line) + 1
    calls = [c for c in read_trace(machine) if c.text == f'write(2, ""..., {size})']
    assert [call.number for call in calls] == [size]


# -- What a line says.


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


def test_nothing_but_whole_lines_is_written(machine):
    machine.start(with_node(machine, "worker"))
    assert len(machine.log()) == machine.stderr().count("\n") > 0
    assert machine.stdout() == ""


def test_a_node_s_own_turns_are_marked_and_other_lines_are_not(machine):
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


def test_a_child_logs_under_its_own_pid(machine):
    path = machine.file("not-executable", "")
    machine.start({"vornnode": {"worker": {"path": path}}})
    (exited,) = machine.wait_for_log("'worker' exited with status: 127.")
    (refused,) = machine.log_lines(f"Can't execv {path}")
    child = refused.pid
    assert refused.head[:3] == ("ERROR", True, "runChild")
    (gone,) = machine.log_lines(f"Child {child} exited")
    assert (gone.pid, gone.level, gone.event) == (child, "INFO", True)
    assert exited.pid == machine.pid != child


# -- Names that would do harm.

FORGED = "2026-01-01T00:00:00.000000Z ERROR vornlaunch[1] x.cpp:1 main: forged"


@pytest.mark.parametrize(
    "name, shown",
    [
        (f"a\n{FORGED}", f"a\\n{FORGED}"),
        ("a\r\tb", "a\\r\\tb"),
        ("\x1b[2J\x1b]0;title\x07", "\\x1b[2J\\x1b]0;title\\x07"),
        ("\x01\x7f", "\\x01\\x7f"),
        ("Grüße ☃ 漢字", "Grüße ☃ 漢字"),
        ("100%s%n%d", "100%s%n%d"),
    ],
    ids=["line-end", "white-space", "escape-sequence", "control", "utf-8", "percent"],
)
def test_a_name_can_neither_forge_a_line_nor_drive_a_terminal(machine, name, shown):
    machine.start(with_node(machine, name))
    assert machine.log_lines(f"name: {shown}")
    assert machine.log_lines(f"Node start '{shown}' ok")
    assert len(machine.log()) == machine.stderr().count("\n")
    assert not machine.log_lines("forged")
    assert not re.search(r"[\x00-\x09\x0b-\x1f\x7f]", machine.stderr())
    assert machine.status(name).state == State.RUNNING, "the name itself is kept"


# -- Where the log goes.


def journal_stream(machine, *, matching):
    """JOURNAL_STREAM as it names the file behind standard error, or another."""
    machine.file("stderr", "")
    stat = (machine.tmp / ("stderr" if matching else "install")).stat()
    return {"JOURNAL_STREAM": f"{stat.st_dev}:{stat.st_ino}"}


def test_lines_for_the_journal_begin_with_their_priority(machine):
    content = with_node(machine, "worker")
    content["vornnode"] |= {"no path": {}, "lost": {"path": "/tmp/nothing"}}
    machine.start(content, environment=journal_stream(machine, matching=True))
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


@pytest.mark.parametrize("value", [None, "", "nonsense", "1"])
def test_a_journal_that_is_not_standard_error_changes_nothing(machine, value):
    environment = journal_stream(machine, matching=False)
    if value is not None:
        environment = {"JOURNAL_STREAM": value}
    machine.start(with_node(machine, "worker"), environment=environment)
    assert machine.log_lines("Node start 'worker' ok")


@pytest.fixture(name="terminal")
def fixture_terminal():
    """A terminal: the side to read and the side to write."""
    sides = pty.openpty()
    yield sides
    for side in sides:
        os.close(side)


def read_terminal(terminal, *wanted):
    """What has been written, once all the wanted texts are there."""
    os.set_blocking(terminal[0], False)
    text = ""

    def complete():
        nonlocal text
        try:
            text += os.read(terminal[0], 4096).decode()
        except BlockingIOError:
            pass
        return all(part in text for part in wanted)

    eventually(complete, f"{wanted} on the terminal")
    return text


LEVELS_CONTENT = {
    "vornnode": {"no path": {}, "lost": {"path": "/tmp/nothing"}},
}
LEVELS_TEXTS = ("No node's path!", "name: lost", "Can't find file: /tmp/nothing")


def test_levels_are_coloured_on_a_terminal(machine, terminal):
    machine.start(LEVELS_CONTENT, stderr=terminal[1])
    text = read_terminal(terminal, *LEVELS_TEXTS)
    assert re.search(r"Z \x1b\[33mWARN\x1b\[0m  vornlaunch\[.*No node's path!", text)
    assert re.search(r"Z \x1b\[32mINFO\x1b\[0m  vornlaunch\[.*name: lost", text)
    assert re.search(r"Z \*\x1b\[31mERROR\x1b\[0m vornlaunch\[.*Can't find file", text)


def test_no_color_leaves_the_terminal_plain(machine, terminal):
    machine.start(LEVELS_CONTENT, stderr=terminal[1], environment={"NO_COLOR": "1"})
    text = read_terminal(terminal, *LEVELS_TEXTS)
    assert "\x1b" not in text
    assert len(parse_log(text.replace("\r\n", "\n"))) == text.count("\n") > 0


# -- A log that cannot be written.


def pipe_without_reader():
    reader, writer = os.pipe()
    os.close(reader)
    return writer


def unwritable(how):
    """Options of a start whose standard error takes nothing."""
    if how == "closed":
        return {"wrapper": ["sh", "-c", 'exec "$@" 2>&-', "sh"]}
    if how == "all-closed":
        return {"wrapper": ["sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh"]}
    if how == "full":
        return {"stderr": os.open("/dev/full", os.O_WRONLY)}
    return {"stderr": pipe_without_reader()}


@pytest.mark.parametrize("how", ["closed", "all-closed", "full", "pipe-without-reader"])
def test_a_log_that_takes_nothing_leaves_the_launcher_working(machine, how):
    machine.script("worker", STAY)
    options = unwritable(how)
    machine.start(
        {
            "vornnode": {
                "worker": {"path": "/tmp/bin/worker"},
                "broken": {"path": machine.file("not-executable", "")},
            }
        },
        **options,
    )
    if "stderr" in options:
        os.close(options["stderr"])
    machine.wait_for_state("broken", State.RESTARTING)
    first = machine.status("worker")
    assert first.state == State.RUNNING
    machine.request(Cmd.RESTART, "worker")
    second = machine.status("worker")
    assert second.state == State.RUNNING and second.pid != first.pid
    assert machine.is_alive(second.pid)
    assert machine.stderr() == "", "nothing has been written elsewhere"
    assert not machine.has_ended
