"""vornctl starts, stops, restarts, enables and disables nodes."""

import re

import pytest

from support import log_texts
from support.control import Cmd, State
from support.vornctl import VORNCTL, on_terminal
from support.waiting import eventually

NAMES = ["camera", "lidar", "planner"]


@pytest.fixture(name="robot")
def fixture_robot(machine):
    """A machine with three running nodes."""
    path = machine.script("stay", "exec sleep 1000")
    return machine.start({"vornnode": {name: {"path": path} for name in NAMES}})


def missing(machine):
    """A launcher with a node whose program does not exist."""
    return machine.start({"vornnode": {"camera": {"path": "/tmp/bin/none"}}})


def slow_to_stop(machine):
    """A launcher with a node that exits two seconds after SIGTERM."""
    path = machine.script(
        "slow", "trap 'sleep 2; exit 0' TERM\n"
        "touch /tmp/ready\nwhile :; do sleep 0.1; done")
    machine.start({"vornnode": {"camera": {"path": path}}})
    eventually((machine.tmp / "ready").exists, "the node handles its signals")


def states(machine):
    return [machine.status(name).state for name in NAMES]


def order(machine, pattern):
    """The nodes in the matching log lines, in their order."""
    found = [re.fullmatch(pattern, line.text) for line in machine.log()]
    return [match[1] for match in found if match]


def commands(machine):
    """The numbers of the commands that the launcher has received, except status
    requests."""
    texts = order(machine, r"control cmd: (\d)")
    return [int(number) for number in texts if int(number) != Cmd.STATUS]


# -- Results.


def test_stop_and_start_print_their_results(robot):
    done = robot.vornctl("stop", "lidar")
    assert (done.returncode, done.stdout, done.stderr) == (
        0, "lidar: stopped\n", "")
    assert states(robot) == [State.RUNNING, State.STOPPED, State.RUNNING]
    done = robot.vornctl("start", "lidar")
    assert (done.returncode, done.stdout, done.stderr) == (
        0, "lidar: started\n", "")
    assert states(robot) == [State.RUNNING] * 3
    assert commands(robot) == [Cmd.STOP, Cmd.START]


def test_restart_gives_a_node_another_process(robot):
    before = robot.status("lidar").pid
    done = robot.vornctl("restart", "lidar")
    assert (done.returncode, done.stdout) == (0, "lidar: restarted\n")
    assert robot.status("lidar").pid not in (0, before)
    assert commands(robot) == [Cmd.RESTART]


def test_a_state_that_is_already_reached_is_reported(robot):
    pid = robot.status("lidar").pid
    assert robot.vornctl("start", "lidar").stdout == (
        f"lidar: already running (pid {pid})\n")
    assert robot.vornctl("enable", "lidar").stdout == (
        f"lidar: already enabled and running (pid {pid})\n")
    for command, said in [
            ("stop", "stopped"), ("stop", "already stopped"),
            ("enable", "already enabled; start it with: vornctl start lidar"),
            ("disable", "disabled"), ("disable", "already disabled"),
            ("stop", "already stopped")]:
        done = robot.vornctl(command, "lidar")
        assert (done.returncode, done.stdout) == (0, f"lidar: {said}\n")
    # Each command is sent nevertheless: the node may have changed in the meantime.
    assert commands(robot) == [
        Cmd.START, Cmd.ENABLE, Cmd.STOP, Cmd.STOP, Cmd.ENABLE, Cmd.DISABLE,
        Cmd.DISABLE, Cmd.STOP]


def test_a_node_that_restarts_by_itself_is_enabled_already(machine):
    path = machine.script("crasher", "exit 1")
    machine.start({"vornnode": {"crasher": {"path": path}}})

    def said():
        before = machine.status("crasher")
        text = machine.vornctl("enable", "crasher").stdout
        is_same = machine.status("crasher") == before
        return text if is_same and before.state == State.RESTARTING else None

    assert eventually(said, "the node waits for its restart") == (
        "crasher: already enabled; it restarts by itself\n")


def test_a_node_that_the_launch_file_disables_is_enabled(machine):
    machine.start({"vornnode": {"off": {"path": "/bin/true", "disabled": True}}})
    assert machine.vornctl("enable", "off").stdout == (
        "off: enabled; start it with: vornctl start off\n")


@pytest.mark.parametrize("name, argument", [
    ("--all", "-- --all"), ("a b", "'a b'"), ("$(touch x)", "'$(touch x)'")])
def test_the_printed_command_starts_only_that_node(machine, name, argument):
    path = machine.script("stay", "exec sleep 1000")
    machine.start({"vornnode": {
        each: {"path": path, "disabled": True} for each in (name, "other")}})
    failed = machine.vornctl("start", "--", name)
    command = failed.stderr.split("; start it with: vornctl ")[1].rstrip("\n")
    assert command == f"enable --now {argument}"
    done = machine.execute("sh", "-c", f"{VORNCTL} {command}")
    assert (done.returncode, done.stderr) == (0, "")
    assert machine.status(name).state is State.RUNNING
    assert machine.status("other").state is not State.RUNNING


def test_enable_says_how_to_start(robot):
    done = robot.vornctl("disable", "lidar")
    assert (done.returncode, done.stdout) == (0, "lidar: disabled\n")
    assert robot.status("lidar").state == State.DISABLED
    done = robot.vornctl("enable", "lidar")
    assert (done.returncode, done.stdout) == (0, "lidar: enabled; start it with: vornctl start lidar\n")
    assert robot.status("lidar").state != State.RUNNING
    assert commands(robot) == [Cmd.DISABLE, Cmd.ENABLE]


def test_enable_now_starts_as_well(robot):
    robot.request(Cmd.DISABLE, "lidar")
    done = robot.vornctl("enable", "--now", "lidar")
    assert (done.returncode, done.stdout) == (
        0, "lidar: enabled\nlidar: started\n")
    assert robot.status("lidar").state == State.RUNNING


def test_quiet_suppresses_the_results(robot):
    done = robot.vornctl("stop", "-q", "lidar")
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    assert robot.status("lidar").state == State.STOPPED


# -- Several nodes.


@pytest.mark.parametrize("command, word", [
    ("stop", "stopped"), ("disable", "disabled")])
def test_stops_go_through_the_file_backwards(machine, command, word):
    # The launcher logs the exits in the order in which it collects them.
    path = machine.script("prints", "trap 'echo $1 stops; exit 0' TERM\n"
                          "echo $1 is ready\nwhile :; do sleep 0.05; done")
    machine.start({"vornnode": {name: {"path": path, "argv": name}
                                for name in NAMES}})
    eventually(lambda: machine.stdout().count("is ready") == 3, "all are ready")
    done = machine.vornctl(command, "--all", "--yes")
    assert done.stdout.splitlines() == [f"{x}: {word}" for x in NAMES[::-1]]
    assert re.findall(r"(\w+) stops", machine.stdout()) == NAMES[::-1]


def test_starts_go_through_the_file_forwards(robot):
    started = log_texts.started(r"(\w+)")
    robot.vornctl("stop", "--all", "--yes")
    done = robot.vornctl("start", "planner", "cam*", "lidar")
    assert done.stdout.splitlines() == [f"{x}: started" for x in NAMES]
    assert order(robot, started)[3:] == NAMES
    robot.vornctl("restart", "--all")
    assert order(robot, started)[6:] == NAMES
    assert robot.vornctl("enable", "--all").stdout.splitlines() == [
        f"{name}: already enabled and running (pid {robot.status(name).pid})"
        for name in NAMES]


def test_a_failure_sets_the_exit_status_and_the_other_nodes_follow(robot):
    robot.request(Cmd.DISABLE, "camera")
    robot.request(Cmd.STOP, "lidar")
    done = robot.vornctl("start", "camera", "unknown", "lidar")
    assert (done.returncode, done.stdout) == (1, "lidar: started\n")
    assert [line.split(": ")[1] for line in done.stderr.splitlines()] == [
        "camera", "unknown"]
    assert robot.vornctl("stop", "unknown", "lidar").returncode == 4
    assert robot.status("lidar").state == State.STOPPED


def test_a_closed_output_does_not_stop_the_remaining_nodes(robot):
    done = robot.execute("bash", "-c", f"{VORNCTL} stop --all --yes | true; "
                         "exit ${PIPESTATUS[0]}")
    assert (done.returncode, done.stderr) == (
        1, "vornctl: cannot write to standard output\n")
    assert states(robot) == [State.STOPPED] * 3


@pytest.mark.parametrize("command", ["stop", "disable"])
def test_all_needs_yes_without_a_terminal(robot, command):
    done = robot.vornctl(command, "--all", stdin="y\n")
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr == (
        f"vornctl: refusing to {command} all 3 nodes without confirmation; add --yes\n")
    assert commands(robot) == []


@pytest.mark.parametrize("answer, status", [
    ("y\n", 0), ("yes\n", 0), ("n\n", 2), ("\n", 2), ("\x04", 2)])
def test_all_asks_for_confirmation_on_a_terminal(robot, answer, status):
    returned, shown = on_terminal(
        robot, "stop", "--all", question="stop all 3 nodes? [y/N] ", answer=answer)
    assert returned == status
    assert commands(robot) == ([Cmd.STOP] * 3 if status == 0 else [])
    assert shown.count(": stopped") == (3 if status == 0 else 0)


def test_starting_all_needs_no_confirmation(robot):
    status, shown = on_terminal(robot, "start", "--all")
    assert (status, shown.splitlines()) == (
        0, [f"{x}: already running (pid {robot.status(x).pid})" for x in NAMES])


@pytest.mark.parametrize("arguments", [
    ["stop"], ["stop", "camera", "--all"], ["start"], ["restart", "-y"],
    ["stop", "camera", "--now"], ["wait", "camera"], ["wait", "--state", "running"],
    ["wait", "camera", "--state", "well"], ["stop", "camera", "--timeout", "soon"],
    ["status", "--json", "--plain"], ["stop", "--color", "red", "camera"],
    ["nothing"], [], ["stop", "n" * 128],
], ids=" ".join)
def test_wrong_usage_is_exit_status_2_and_does_nothing(robot, arguments):
    done = robot.vornctl(*arguments)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr.startswith("vornctl: ")
    assert commands(robot) == []


# -- Reasons for failures.


def why(done):
    """The explanation in the only line on standard error."""
    assert (done.returncode, done.stdout) == (1, "")
    match = re.fullmatch(r"vornctl: camera: \w+ failed: (.*)\n", done.stderr)
    assert match, done.stderr
    return match[1]


@pytest.mark.parametrize("command", ["start", "restart"])
def test_a_missing_executable_is_reported(machine, command):
    missing(machine)
    assert why(machine.vornctl(command, "camera")) == (
        "its executable /tmp/bin/none is missing, so it was disabled; install "
        "it, then run: vornctl enable --now camera")
    machine.script("none", "exec sleep 1000")
    assert machine.vornctl("enable", "--now", "camera").returncode == 0


def test_a_oneshot_that_has_run_is_reported(machine):
    machine.start({"vornnode": {"camera": {"path": "/bin/true", "oneshot": True}}})
    machine.wait_for_state("camera", State.DISABLED)
    assert why(machine.vornctl("start", "camera")) == (
        "it is a oneshot and has run; run it again with: vornctl enable --now "
        "camera")


def test_the_start_that_autostart_false_skips_is_reported(machine):
    path = machine.script("stay", "exec sleep 1000")
    machine.start({"vornnode": {"camera": {
        "path": path, "autostart": False, "disabled": True}}})
    machine.request(Cmd.ENABLE, "camera")
    assert why(machine.vornctl("start", "camera")) == (
        "its first start is skipped by 'autostart: false'; start it again")
    assert machine.vornctl("start", "camera").returncode == 0


def test_a_disabled_node_is_reported(robot):
    robot.request(Cmd.DISABLE, "camera")
    assert why(robot.vornctl("start", "camera")) == (
        "it is disabled; start it with: vornctl enable --now camera")


def test_enable_now_of_a_node_that_cannot_start_fails(machine):
    missing(machine)
    done = machine.vornctl("enable", "--now", "camera")
    assert (done.returncode, done.stdout) == (1, "camera: enabled\n")
    assert "its executable /tmp/bin/none is missing" in done.stderr


# -- Progress.


def test_a_terminal_shows_the_progress(machine):
    slow_to_stop(machine)
    status, shown = on_terminal(
        machine, "stop", "camera", question="stopping camera 1s", answer="")
    assert status == 0
    turns = re.findall(r"\r\x1b\[K([|/\\-]) stopping camera (\d+)s", shown)
    assert {turn for turn, _ in turns} == set("|/-\\")
    seconds = [int(second) for _, second in turns]
    assert seconds == sorted(seconds) and seconds[0] == 0
    # The progress line is erased.
    assert shown.endswith("s\r\x1b[Kcamera: stopped\r\n")


def test_a_pipe_gets_no_progress(machine):
    slow_to_stop(machine)
    done = machine.vornctl("stop", "camera")
    assert (done.returncode, done.stdout, done.stderr) == (
        0, "camera: stopped\n", "")


def test_a_quiet_stop_shows_nothing_on_a_terminal(machine):
    slow_to_stop(machine)
    assert on_terminal(machine, "stop", "-q", "camera") == (0, "")
