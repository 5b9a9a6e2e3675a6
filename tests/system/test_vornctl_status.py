"""vornctl shows the status of nodes, and finds their names by itself."""

import json
import os
import re
import signal
import time

import pytest

from support import log_texts
from support.control import Cmd, State
from support.trace import injected
from support.vornctl import VORNCTL, on_terminal
from support.waiting import eventually

UNPRIVILEGED = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
AS_A_COMMAND = ["unshare", "--mount", "sh", "-c"]


def stay(machine, **nodes):
    """A launch file with these nodes, which run until they are stopped."""
    path = machine.script("stay", "exec sleep 1000")
    return {"vornnode": {name: {"path": path, **keys}
                         for name, keys in nodes.items()}}


@pytest.fixture(name="robot")
def fixture_robot(machine):
    """A machine with three running nodes."""
    return machine.start(stay(
        machine, camera={"required": ["lidar"]}, lidar={}, planner={}))


def rows(text):
    """The words in each line."""
    return [line.split() for line in text.splitlines()]


def plain(machine, *arguments, **options):
    """The lines of `status --plain`, each as a list of its columns."""
    text = machine.vornctl("status", "--plain", *arguments, **options).stdout
    return [line.split("\t") for line in text.splitlines()]


def start_of(machine):
    """The start time of the launcher in seconds since the epoch."""
    fields = machine.process.read("stat").rpartition(b")")[2].split()
    since_boot = int(fields[19]) / os.sysconf("SC_CLK_TCK")
    now = time.clock_gettime(time.CLOCK_BOOTTIME)
    return int(time.time() - now + since_boot)


def condition(machine, name):
    """The word for the state of a node."""
    done = machine.vornctl("status", name, "--plain", "-o", "state",
                           "--no-header")
    assert done.stderr == ""
    return done.stdout.rstrip("\n")


def test_without_names_all_nodes_are_shown_in_the_order_of_the_file(robot):
    shown = robot.vornctl("status")
    assert (shown.returncode, shown.stderr) == (0, "")
    launcher, header, *lines = rows(shown.stdout)
    assert launcher[:5] == [
        "launcher", f"{robot.pid},", "launch", "file", "/tmp/launch.yaml,"]
    assert header == [
        "NODE", "STATE", "PID", "UPTIME", "STARTED", "POLICY", "REQUIRED"]
    assert [line[:3] for line in lines] == [
        [name, "running", str(robot.status(name).pid)]
        for name in ("camera", "lidar", "planner")]
    assert [line[-2:] for line in lines] == [
        ["restart", "lidar"], ["restart", "-"], ["restart", "-"]]


def test_names_and_patterns_select_each_node_once_in_file_order(robot):
    shown = plain(robot, "planner", "*a*", "camera", "--no-header", "-o", "node")
    assert shown == [["camera"], ["lidar"], ["planner"]]
    assert plain(robot, "[lp]*", "--no-header", "-o", "node") == [
        ["lidar"], ["planner"]]


def test_a_pattern_may_consist_of_brackets(machine):
    machine.start(stay(machine, a={}, b={}, c={}, ab={}))
    assert plain(machine, "[ab]", "--no-header", "-o", "node") == [["a"], ["b"]]
    done = machine.vornctl("status", "[x,y]")
    assert (done.returncode, done.stdout) == (4, "")
    assert machine.vornctl("stop", "[]").returncode == 4
    assert machine.vornctl("stop", "[c]").stdout == "c: stopped\n"


@pytest.mark.parametrize("name", [
    "status", "stop", "a,b", "[x]", "{}", " lead", "trail ", "a b", "%%", "null",
    "'q'", '"dq"', "x=y", "*", "näme", ""])
def test_any_name_is_accepted(machine, name):
    machine.start(stay(machine, first={}, **{name: {}}))
    assert machine.vornctl("stop", name).stdout == f"{name}: stopped\n"
    assert machine.status(name).state == State.STOPPED
    assert machine.status("first").state == State.RUNNING
    shown = machine.vornctl("status", "--json", name).stdout
    assert [node["name"] for node in json.loads(shown)["nodes"]] == [name]


@pytest.mark.parametrize("name", ["-q", "--all", "--"])
def test_a_name_like_an_option_follows_two_dashes(machine, name):
    machine.start(stay(machine, first={}, **{name: {}}))
    done = machine.vornctl("stop", "--", name)
    assert (done.returncode, done.stdout) == (0, f"{name}: stopped\n")
    assert machine.status("first").state == State.RUNNING


def test_a_name_that_is_not_text_is_shown_escaped(robot):
    for option in [[], ["--json"]]:
        done = robot.vornctl("status", *option, b"\xff\xfe")
        assert (done.returncode, done.stderr) == (
            4, "vornctl: \\xff\\xfe: no such node\n")


def test_json_contains_the_launcher_and_every_node(robot):
    document = json.loads(robot.vornctl("status", "camera", "--json").stdout)
    camera = robot.status("camera")
    [node] = document["nodes"]
    assert 0 <= node.pop("uptimeSeconds") <= time.time() - camera.start_seconds + 1
    assert node.pop("cpuPercent") >= 0 and node.pop("memoryBytes") > 0
    assert document == {
        "schema": 1,
        "launcher": {"pid": robot.pid, "startSeconds": pytest.approx(start_of(robot), abs=1),
                     "launchFile": "/tmp/launch.yaml",
                     "launchFileChanged": False},
        "nodes": [{
            "name": "camera", "state": "running", "condition": "running",
            "pid": camera.pid, "startSeconds": camera.start_seconds,
            "restartInSeconds": None,
            "failed": False, "crashLoop": False, "restarts": 0, "lastExit": None,
            "stale": False, "run": None,
            "policy": {"oneshot": False, "autostart": True, "disabled": False},
            "required": ["lidar"], "executable": "/tmp/bin/stay"}],
    }


def test_plain_has_tabs_and_bare_numbers(robot):
    header, camera = plain(robot, "camera")
    status = robot.status("camera")
    assert header == [
        "NODE", "STATE", "PID", "UPTIME", "STARTED", "POLICY", "REQUIRED"]
    assert camera[:3] == ["camera", "running", str(status.pid)]
    assert camera[3].isdigit()
    assert camera[4:] == [str(status.start_seconds), "restart", "lidar"]


def test_the_requested_columns_are_shown(robot):
    shown = robot.vornctl("status", "lidar", "-o", "executable,node,pid")
    assert rows(shown.stdout) == [
        ["EXECUTABLE", "NODE", "PID"],
        ["/tmp/bin/stay", "lidar", str(robot.status("lidar").pid)]]
    # The word after the columns is a node.
    shown = robot.vornctl("status", "-o", "node", "lidar")
    assert shown.stdout == "NODE\nlidar\n"
    unknown = robot.vornctl("status", "-o", "node,colour")
    assert (unknown.returncode, unknown.stdout) == (2, "")
    assert "colour" in unknown.stderr


def test_quiet_prints_nothing_and_sets_the_exit_status(robot):
    robot.request(Cmd.STOP, "lidar")
    for names, status in [(["camera"], 0), (["lidar"], 3), ([], 0)]:
        done = robot.vornctl("status", "-q", *names)
        assert (done.returncode, done.stdout, done.stderr) == (status, "", "")


def test_a_named_node_that_does_not_run_is_exit_status_3(robot):
    robot.request(Cmd.STOP, "lidar")
    assert robot.vornctl("status", "camera", "lidar").returncode == 3
    assert robot.vornctl("status", "camera", "planner").returncode == 0
    assert robot.vornctl("status").returncode == 0


def test_an_unknown_name_is_reported_with_the_nearest_and_the_others_are_shown(robot):
    done = robot.vornctl("status", "camrea", "lidar", "-o", "node", "--no-header")
    assert (done.returncode, done.stdout) == (4, "lidar\n")
    assert done.stderr == (
        "vornctl: camrea: no such node; did you mean 'camera'?\n")
    done = robot.vornctl("status", "something else")
    assert done.returncode == 4
    assert done.stderr == "vornctl: something else: no such node\n"


def test_a_pattern_that_matches_nothing_is_an_error_that_says_to_quote(robot):
    for command in ["status", "stop", "enable", "monitor"]:
        done = robot.vornctl(command, "camera", "x*")
        assert (done.returncode, done.stdout) == (4, "")
        assert done.stderr == (
            "vornctl: no node matches 'x*'; quote patterns so that the shell does not expand them\n")
    assert robot.status("camera").state == State.RUNNING


# -- States.


def test_the_states_without_a_process_have_a_word_each(machine):
    machine.start(stay(machine, manual={"autostart": False}, stopped={},
                       disabled={}, refused={"disabled": True}))
    machine.request(Cmd.STOP, "stopped")
    machine.request(Cmd.DISABLE, "disabled")
    # Both are collected right after the replies.
    eventually(lambda: machine.status("stopped").pid == 0, "it is collected")
    eventually(lambda: machine.status("disabled").pid == 0, "it is collected")
    shown = plain(machine, "--no-header", "-o", "node,state,pid,uptime,policy")
    assert shown == [
        ["manual", "never-started", "-", "-", "manual"],
        ["stopped", "stopped", "-", "-", "restart"],
        ["disabled", "disabled", "-", "-", "restart"],
        ["refused", "never-started", "-", "-", "restart"]]
    lines = machine.vornctl("status", "manual", "-o", "state,started,node")
    assert lines.stdout.splitlines()[1] == "never started  never    manual"


def test_a_restarting_node_shows_the_seconds_until_its_restart(machine):
    path = machine.script("crasher", "exit 1")
    machine.start({"vornnode": {"crasher": {"path": path}}})

    def shown():
        status = machine.status("crasher")
        done = machine.vornctl("status", "--json", "crasher")
        now = time.time()
        [node] = json.loads(done.stdout)["nodes"]
        text = machine.vornctl("status", "crasher", "-o", "state").stdout
        same = machine.status("crasher") == status
        if not same or status.state != State.RESTARTING:
            return None  # it was started in the meantime
        return status.start_seconds, node, now, text

    start, node, now, text = eventually(shown, "the node waits for its restart")
    assert (node["state"], node["condition"]) == ("restarting", "restarting")
    assert 0 <= node["restartInSeconds"] <= 5
    assert start + 5 - now - 1 <= node["restartInSeconds"]
    assert text.splitlines()[1].rstrip() in [
        f"restarting in {left}s" for left in range(6)]


def test_a_stopped_node_whose_process_is_not_collected_is_stopping(machine):
    machine.start(stay(machine, camera={}),
                  strace=injected("waitid:error=ECHILD:when=1+"))
    machine.request(Cmd.STOP, "camera")
    assert machine.status("camera").pid != 0
    assert condition(machine, "camera") == "stopping"


def test_a_running_node_whose_process_is_dead_is_exiting(machine):
    machine.start(stay(machine, camera={}),
                  strace=injected("waitid:error=ECHILD:when=1+"))
    assert condition(machine, "camera") == "running"
    machine.child("camera", ["sleep", "1000"]).signal(signal.SIGKILL)
    eventually(lambda: condition(machine, "camera") == "exiting",
               "the dead node is exiting")
    assert machine.status("camera").state == State.RUNNING


# -- A narrow terminal.


@pytest.mark.parametrize("columns, titles", [
    (200, ["NODE", "STATE", "PID", "UPTIME", "STARTED", "POLICY", "REQUIRED"]),
    (60, ["NODE", "STATE", "PID", "UPTIME", "POLICY", "REQUIRED"]),
    (40, ["NODE", "STATE", "PID", "UPTIME", "POLICY"]),
    (38, ["NODE", "STATE", "PID", "UPTIME"]), (25, ["NODE", "STATE", "PID"]),
    (20, ["NODE", "STATE"]), (12, ["NO…", "STATE"])])
def test_a_narrow_terminal_shows_fewer_columns(robot, columns, titles):
    status, shown = on_terminal(robot, "status", "--color=never", columns=columns)
    lines = shown.splitlines()
    assert status == 0
    assert all(len(line) <= columns for line in lines)
    assert titles in [line.split() for line in lines]
    name = "camera" if columns > 15 else "ca…"
    assert any(line.split()[:2] == [name, "running"] for line in lines)


def test_chosen_columns_are_shown_on_a_narrow_terminal_too(robot):
    shown = on_terminal(robot, "status", "-o", "started,executable,node", columns=20)
    assert "STARTED" in shown[1] and "NODE" in shown[1]


# -- Colours.


def is_coloured(text):
    return "\x1b[32mrunning\x1b[0m" in text


def test_colours_are_for_terminals(robot):
    assert is_coloured(on_terminal(robot, "status")[1])
    assert "\x1b" not in robot.vornctl("status").stdout


@pytest.mark.parametrize("environment", [
    {"NO_COLOR": "1"}, {"TERM": "dumb"}, {"TERM": None}], ids=str)
def test_a_terminal_without_colours_gets_none(robot, environment):
    status, shown = on_terminal(robot, "status", environment=environment)
    assert status == 0 and "running" in shown
    assert "\x1b" not in shown


def test_colours_can_be_forced_and_disabled(robot):
    assert is_coloured(robot.vornctl("status", "--color=always").stdout)
    shown = on_terminal(robot, "status", "--color=never")[1]
    assert "running" in shown and "\x1b" not in shown


def test_only_a_failure_is_red(machine):
    machine.start({"vornnode": {
        "once": {"path": "/bin/true", "oneshot": True},
        "missing": {"path": "/tmp/bin/none"}, "off": stay(machine, x={})[
            "vornnode"]["x"]}})
    machine.request(Cmd.DISABLE, "off")
    machine.wait_for_state("once", State.DISABLED)
    shown = machine.vornctl("status", "--color=always", "-o", "state", "--no-header")
    assert shown.stdout.splitlines() == [
        "\x1b[2mdisabled\x1b[0m", "\x1b[31mdisabled\x1b[0m",
        "\x1b[2mdisabled\x1b[0m"]


def test_a_name_cannot_control_the_terminal(machine):
    name = "bell\x07\nline"
    machine.start(stay(machine, **{name: {}}))
    assert plain(machine, "-o", "node", "--no-header") == [["bell\\x07\\nline"]]
    assert machine.vornctl("stop", name + "x").stderr == (
        "vornctl: bell\\x07\\nlinex: no such node; did you mean "
        "'bell\\x07\\nline'?\n")
    assert machine.vornctl("names", "-0").stdout == name + "\0"


def test_a_name_that_looks_like_an_option_is_used_as_a_name(machine):
    machine.start(stay(machine, **{
        "--all": {}, "-y": {}, "x --version": {}, "camera": {}}))
    assert machine.vornctl("names").stdout == (
        "\\x2d-all\n\\x2dy\nx \\x2d-version\ncamera\n")
    done = machine.execute(
        "sh", "-c", f"{VORNCTL} names | grep -v camera | xargs {VORNCTL} stop")
    assert (done.returncode, done.stdout) == (123, "")
    done = machine.execute(
        "sh", "-c", f"{VORNCTL} names -0 | xargs -0 {VORNCTL} stop --")
    assert (done.returncode, done.stdout) == (
        0, "camera: stopped\nx --version: stopped\n-y: stopped\n--all: stopped\n")


# -- The source of the names.


def test_standard_input_is_not_the_launch_file_of_a_launcher(machine):
    machine.start_without_launcher()
    done = machine.vornctl("--launch-file", "-", "names")
    assert (done.returncode, done.stdout, done.stderr) == (
        2, "", "vornctl: --launch-file: standard input cannot be the launch file "
        "of a running launcher; name the file\n")


def names(machine, *arguments, **options):
    done = machine.vornctl("names", *arguments, **options)
    assert (done.returncode, done.stderr) == (0, "")
    return done.stdout.split()


def test_names_come_from_the_file_that_the_launcher_was_started_with(machine):
    # A duplicate name is listed once; a node without a path is not listed.
    machine.start(
        "vornnode:\n  b: {path: /bin/true}\n  a: {path: /bin/true}\n"
        "  none: {argv: x}\n  b: {path: /bin/false}\n")
    assert names(machine) == ["b", "a"]
    assert machine.vornctl("names", "--null").stdout == "b\0a\0"


def test_a_relative_launch_file_is_found_in_the_launchers_directory(machine):
    machine.launch_file(stay(machine, camera={}))
    machine.start(arguments=["./bin/../launch.yaml"])
    assert names(machine) == ["camera"]


def test_a_relative_launch_file_is_shown_with_its_whole_path(machine):
    machine.launch_file(stay(machine, camera={}))
    machine.start(arguments=["launch.yaml"], wrapper=["env", "-C", "/tmp"])
    done = machine.vornctl("status", "--json")
    assert json.loads(done.stdout)["launcher"]["launchFile"] == "/tmp/launch.yaml"
    for command in ("status", "ping"):
        assert ", launch file /tmp/launch.yaml, since 20" in (
            machine.vornctl(command).stdout)
    machine.file("launch.yaml", "vornnode: {")
    assert machine.vornctl("names").stderr.startswith(
        "vornctl: the launch file /tmp/launch.yaml is invalid: ")
    (machine.tmp / "launch.yaml").unlink()
    assert machine.vornctl("names").stderr.startswith(
        "vornctl: cannot read the launch file /tmp/launch.yaml: ")
    # The launcher is named nevertheless.
    done = machine.vornctl("status", "camera")
    assert ", launch file /tmp/launch.yaml, since 20" in done.stdout


def test_a_launch_file_named_relatively_is_shown_with_its_whole_path(robot):
    done = robot.execute("sh", "-c", f"cd /tmp && {VORNCTL} status --json "
                         "--launch-file ./launch.yaml")
    assert json.loads(done.stdout)["launcher"]["launchFile"] == "/tmp/launch.yaml"


def test_without_titles_and_with_chosen_columns_the_launcher_is_omitted(robot):
    for options in (["--plain"], ["--no-header"], ["-o", "node"], ["-q"]):
        assert "launcher" not in robot.vornctl("status", *options).stdout


def test_a_relative_executable_is_searched_for_in_the_launchers_directory(machine):
    machine.script("stay", "exec sleep 1000")
    machine.start({"vornnode": {"there": {"path": "bin/stay"},
                                "missing": {"path": "bin/none"}}})
    done = machine.vornctl("start", "missing")
    assert done.returncode == 1
    assert "its executable bin/none is missing" in done.stderr
    machine.request(Cmd.DISABLE, "there")
    assert "it is disabled" in machine.vornctl("start", "there").stderr


def test_another_launch_file_can_be_named(robot):
    other = robot.file("other.yaml", "vornnode: {lidar: {path: /bin/x}}")
    third = robot.file("third.yaml", "vornnode: {planner: {path: /bin/x}}")
    environment = {"VORNCTL_LAUNCH_FILE": other}
    assert names(robot, "--launch-file", other) == ["lidar"]
    assert names(robot, environment=environment) == ["lidar"]
    assert names(robot, "--launch-file", third, environment=environment) == [
        "planner"]
    assert plain(robot, "-o", "node,state", "--no-header",
                 environment=environment) == [["lidar", "running"]]


def test_names_of_a_named_launch_file_need_no_launcher(machine):
    # The launcher exits at once, so that only the machine remains.
    machine.start(arguments=[], wait_until_up=False)
    machine.wait()
    other = machine.file("other.yaml", "vornnode: {lidar: {path: /bin/x}}")
    assert names(machine, "--launch-file", other) == ["lidar"]


def test_a_file_changed_after_the_start_is_reported_once(robot):
    path = robot.tmp / "launch.yaml"
    os.utime(path, (time.time() + 5, time.time() + 5))
    for command in [["status", "camera", "lidar"], ["stop", "*a*"]]:
        done = robot.vornctl(*command)
        assert done.returncode == 0
        assert done.stderr == (
            "vornctl: the launch file /tmp/launch.yaml was changed after the "
            "launcher started; its nodes may differ from those that run\n")
    shown = robot.vornctl("status", "--json").stdout
    assert json.loads(shown)["launcher"]["launchFileChanged"] is True


def test_without_the_launch_file_it_says_how_to_give_it(robot):
    (robot.tmp / "launch.yaml").unlink()
    for command in [["status"], ["names"], ["stop", "cam*"], ["start", "--all"],
                    ["monitor"]]:
        done = robot.vornctl(*command)
        assert (done.returncode, done.stdout) == (2, "")
        assert done.stderr == (
            "vornctl: cannot read the launch file /tmp/launch.yaml: No such file "
            "or directory; name it with --launch-file or VORNCTL_LAUNCH_FILE\n")


def test_without_the_launch_file_nodes_can_be_named(robot):
    (robot.tmp / "launch.yaml").unlink()
    assert condition(robot, "camera") == "running"
    done = robot.vornctl("stop", "lidar")
    assert (done.returncode, done.stdout, done.stderr) == (
        0, "lidar: stopped\n", "")
    assert robot.vornctl("stop", "lidra").stderr == (
        "vornctl: lidra: no such node\n")


def test_a_directory_is_not_a_launch_file(robot):
    (robot.tmp / "[directory]").mkdir()
    done = robot.vornctl("names", "--launch-file", "/tmp/[directory]")
    assert (done.returncode, done.stderr) == (
        2, "vornctl: cannot read /tmp/[directory]: Is a directory\n")


def test_the_launch_file_is_the_launchers_last_argument(machine):
    machine.launch_file(stay(machine, camera={}))
    program = (machine.install / "bin/vornctl").read_bytes()
    loader = re.search(rb"/lib\d*/ld-linux[\w.-]+", program)[0].decode()
    machine.start(arguments=["/tmp/launch.yaml"], wrapper=[loader])
    assert names(machine) == ["camera"]


def test_thousands_of_nodes_are_shown(machine):
    count = 3000
    machine.start({"vornnode": {
        f"n{i}": {"path": "/bin/none", "required": [f"n{i + 1}"]}
        for i in range(count)}})
    done = machine.vornctl("status")
    assert (done.returncode, done.stderr) == (0, "")
    assert [line[0] for line in rows(done.stdout)[2:]] == [
        f"n{i}" for i in range(count)]
    assert machine.vornctl("stop", "n0").stdout == "n0: already stopped\n"


def test_an_invalid_launch_file_is_reported_with_its_line(robot):
    other = robot.file("other.yaml", "vornnode: {\n")
    done = robot.vornctl("names", "--launch-file", other)
    assert done.returncode == 2
    assert "the launch file /tmp/other.yaml is invalid: " in done.stderr
    assert "line 2" in done.stderr


def test_a_launcher_in_another_mount_namespace_shows_its_own_files(machine):
    machine.script("inner/stay", "exec sleep 1000")
    machine.file("inner/launch.yaml", json.dumps({"vornnode": {
        "camera": {"path": "/mnt/stay"}, "gone": {"path": "/mnt/none"}}}))
    mount = "mount --bind /tmp/inner /mnt && exec \"$@\""
    (machine.tmp / "bin/inner/stay").rename(machine.tmp / "inner/stay")
    machine.start(arguments=["/mnt/launch.yaml"],
                  wrapper=[*AS_A_COMMAND, mount, "sh"])
    assert machine.execute("test", "-e", "/mnt/launch.yaml").returncode == 1
    assert names(machine) == ["camera", "gone"]
    assert "/mnt/none is missing" in machine.vornctl("start", "gone").stderr
    machine.request(Cmd.DISABLE, "camera")
    assert "it is disabled" in machine.vornctl("start", "camera").stderr


def test_a_relative_file_in_another_mount_namespace_is_found(machine):
    machine.file("inner/launch.yaml", json.dumps(stay(machine, camera={})))
    mount = "mount --bind /tmp/inner /mnt && cd /mnt && exec \"$@\""
    machine.start(arguments=["launch.yaml"],
                  wrapper=[*AS_A_COMMAND, mount, "sh"])
    assert names(machine) == ["camera"]


NOT_REGULAR = "it is not a regular file"


@pytest.fixture(name="container")
def fixture_container(machine):
    """A machine whose launcher has its root directory in /mnt, with the launch file
    /tmp/work/launch.yaml. The host's file with the same path has other nodes."""
    machine.file("work/real.yaml", json.dumps(stay(machine, secret={})))
    inside = machine.file("inside.yaml", json.dumps(stay(machine, camera={})))
    machine.script("enter", f"""
        mount -t tmpfs none /mnt
        for name in bin lib lib64 usr dev proc tmp/bin tmp/install tmp/vornlaunch; do
          test -e /$name || mkdir -m 1777 /$name
          mkdir -p /mnt/$name && mount --rbind /$name /mnt/$name
        done
        mkdir /mnt/tmp/work /mnt/secret
        cp {inside} /mnt/tmp/work/real.yaml
        cp {inside} /mnt/tmp/work/launch.yaml
        exec chroot /mnt sh -c 'cd /tmp/work; exec "$@"' sh "$@"
        """)

    def start(argument):
        return machine.start(arguments=[argument], wrapper=["/tmp/bin/enter"])

    return start


@pytest.mark.skipif(os.geteuid() != 0, reason="no right to another root directory")
@pytest.mark.parametrize("argument", [
    "/tmp/work/launch.yaml", "launch.yaml", "../../tmp/work/launch.yaml"])
class TestAnotherRootDirectory:
    """A launcher in a container, where an attacker changes the launch file so that
    root's vornctl reads another file."""

    @pytest.mark.parametrize("link", [
        "/tmp/work/real.yaml", "../../../../../../tmp/work/real.yaml"])
    def test_symbolic_links_stay_inside(self, container, argument, link):
        machine = container(argument)
        machine.run("ln", "-sf", link, "/mnt/tmp/work/launch.yaml")
        assert machine.vornctl("names").stdout == "camera\n"

    @pytest.mark.parametrize("change, reason", [
        ("ln -sf /dev/zero $file", NOT_REGULAR),
        ("rm $file; mkfifo $file", NOT_REGULAR),
        ("ln -sf /proc/self/fd/0 $file", "it is a link to a descriptor"),
        ("ln -sf /proc/1/root/tmp/work/real.yaml $file", "it is a link"),
        ("truncate -s 1G $file", "it is larger than"),
    ], ids=["zero", "fifo", "stdin", "magic", "size"])
    def test_other_files_are_refused(self, container, argument, change, reason):
        machine = container(argument)
        machine.run("sh", "-c", "file=/mnt/tmp/work/launch.yaml; " + change)
        done = machine.vornctl(
            "names", stdin=(machine.tmp / "work/real.yaml").read_text())
        assert (done.returncode, done.stdout) == (2, "")
        path = argument if argument.startswith("/") else f"/tmp/work/{argument}"
        assert done.stderr.startswith(
            f"vornctl: cannot read the launch file {path}: {reason}")
        assert done.stderr.endswith(
            "; name it with --launch-file or VORNCTL_LAUNCH_FILE\n")


def names_without_openat2(machine, error):
    """Runs "vornctl names" with an openat2(2) that fails with this error."""
    return machine.execute(
        "strace", "-f", "-o", "/dev/null", "-e", f"inject=openat2:error={error}",
        VORNCTL, "names")


@pytest.mark.parametrize("system", ["ENOSYS", "EPERM"])
def test_without_openat2_only_files_in_another_root_are_refused(
        container, system):
    machine = container("/tmp/work/launch.yaml")
    done = names_without_openat2(machine, system)
    assert done.returncode == 2
    assert "this system lacks openat2(2)" in done.stderr


@pytest.mark.parametrize("system", ["ENOSYS", "EPERM"])
def test_without_openat2_a_file_in_the_same_root_is_read(robot, system):
    done = names_without_openat2(robot, system)
    assert (done.returncode, done.stdout) == (0, "camera\nlidar\nplanner\n")


def test_the_launchers_standard_input_is_not_read(machine):
    machine.file("input.yaml", json.dumps(stay(machine, camera={})))
    machine.start(arguments=["/dev/stdin"], wrapper=[
        "sh", "-c", 'exec "$@" < /tmp/input.yaml', "sh"])
    done = machine.vornctl("names", stdin="vornnode: {mine: {path: /bin/x}}")
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr == (
        "vornctl: cannot read the launch file /dev/stdin: it is a link to a "
        "descriptor of the launcher, or in a loop of links; name it with --launch-file or VORNCTL_LAUNCH_FILE\n")


@pytest.mark.parametrize("configure, environment, expected", [
    ({}, {"VORN_BIN_PATH": "/opt/a"}, "/opt/a/prog"),
    ({"VORN_BIN_PATH": "/opt/b"}, {"VORN_BIN_PATH": "/opt/a"}, "/opt/b/prog"),
    # vornctl inspects the launcher's own program.
    pytest.param({"VORN_BIN_PATH": "install://bin"}, {}, "/tmp/install/bin/prog",
                 marks=pytest.mark.native),
    ({"VORN_BIN_PATH": "install://x"}, {"VORN_ROOT": "/opt/r/"}, "/opt/r/x/prog"),
    ({"VORN_BIN_PATH": ""}, {"VORN_BIN_PATH": "/opt/a"}, "prog"),
], ids=["environment", "file", "install", "root", "empty"])
def test_executables_are_resolved_as_the_launcher_does(
        machine, configure, environment, expected):
    machine.start({"configure": {"environment": configure},
                   "vornnode": {"relative": {"path": "prog"},
                                "absolute": {"path": "/opt/prog"}}},
                  environment=environment)
    # The launcher logs the path that it searches for.
    machine.wait_for_log(log_texts.executable_missing(expected))
    assert plain(machine, "-o", "executable", "--no-header") == [
        [expected], ["/opt/prog"]]


def test_an_inaccessible_launcher_needs_the_launch_file(robot):
    """In a pid namespace of its own, vornctl gets no pid."""
    inner = ["unshare", "--pid", "--fork", "--mount-proc", VORNCTL]
    done = robot.execute(*inner, "status")
    assert done.returncode == 2
    assert done.stderr == (
        "vornctl: cannot determine the launch file: the launcher is in another pid "
        "namespace; name it with --launch-file or VORNCTL_LAUNCH_FILE\n")
    done = robot.execute(*inner, "--launch-file", "/tmp/launch.yaml", "status",
                         "-o", "node,state", "--no-header")
    assert (done.returncode, done.stderr) == (0, "")
    assert rows(done.stdout) == [
        [name, "running"] for name in ("camera", "lidar", "planner")]


@pytest.mark.skipif(os.geteuid() != 0, reason="no right to become another user")
class TestAnotherUser:
    """A user without access to the launcher's process."""

    @staticmethod
    def vornctl(machine, *arguments):
        machine.tmp.chmod(0o1777)
        return machine.execute(*UNPRIVILEGED, VORNCTL, *arguments)

    def test_sees_the_nodes_of_roots_launcher(self, robot):
        done = self.vornctl(robot, "status", "-o", "node,state", "--no-header")
        assert (done.returncode, done.stderr) == (0, "")
        assert rows(done.stdout) == [
            [name, "running"] for name in ("camera", "lidar", "planner")]

    def test_is_told_why_a_relative_launch_file_is_not_found(self, machine):
        machine.launch_file(stay(machine, camera={}))
        machine.start(arguments=["launch.yaml"])
        done = self.vornctl(machine, "names")
        assert done.returncode == 2
        assert done.stderr == (
            "vornctl: cannot access the launcher's working directory "
            f"(process {machine.pid}), where its launch file launch.yaml is; name it with --launch-file or VORNCTL_LAUNCH_FILE\n")

    def test_sees_living_nodes_where_proc_hides_them(self, robot):
        robot.run("mount", "-o", "remount,hidepid=2", "/proc")
        done = self.vornctl(robot, "status", "camera", "-o", "state",
                            "--no-header")
        assert (done.returncode, done.stdout) == (0, "running\n")

    @pytest.fixture(name="container")
    def fixture_container(self, machine):
        """A machine whose launcher is in mount and pid namespaces of its own."""
        return machine.start(stay(machine, camera={}), wrapper=[
            "unshare", "--mount", "--pid", "--fork", "--kill-child",
            "--mount-proc"])

    def test_does_not_look_for_a_containers_processes_among_his_own(self, container):
        assert container.find_process(container.status("camera").pid) is None
        done = self.vornctl(container, "status", "camera", "-o", "state",
                            "--no-header")
        assert (done.returncode, done.stdout) == (0, "running\n")

    def test_does_not_take_his_own_file_for_a_containers_launch_file(self, container):
        pid = container.vornctl("ping").stdout.split()[1]
        done = self.vornctl(container, "names")
        assert (done.returncode, done.stdout) == (2, "")
        assert done.stderr == (
            "vornctl: cannot access the launcher's root directory (process "
            f"{pid} in another pid namespace), where its launch file "
            "/tmp/launch.yaml is; name it with --launch-file or VORNCTL_LAUNCH_FILE\n")


# -- The small commands.


def test_ping_prints_the_launchers_pid(robot):
    done = robot.vornctl("ping")
    assert (done.returncode, done.stderr) == (0, "")
    pid = robot.pid
    assert rows(done.stdout)[0][:4] == ["launcher", str(pid), "answers", "in"]
    assert robot.vornctl("ping", "-q").stdout == ""


def test_version_and_help_need_no_launcher(machine):
    machine.start(arguments=[], wait_until_up=False)
    machine.wait()
    version = machine.vornctl("--version")
    assert (version.returncode, version.stderr) == (0, "")
    assert version.stdout.startswith("vornctl ")
    texts = [machine.vornctl(word) for word in ("help", "--help", "-h")]
    assert [text.returncode for text in texts] == [0, 0, 0]
    assert texts[0].stdout == texts[1].stdout == texts[2].stdout
    for command in ["status", "start", "stop", "restart", "enable", "disable",
                    "wait", "monitor", "ping", "names"]:
        assert f"  {command} " in texts[0].stdout
        text = machine.vornctl(command, "--help")
        assert text.returncode == 0
        assert machine.vornctl("help", command).stdout == text.stdout


@pytest.mark.parametrize("arguments, said", [
    (["statsu"], "unknown command 'statsu'; did you mean 'status'?"),
    (["help", "statsu"], "unknown command 'statsu'; did you mean 'status'?"),
    (["-q", "--timeout", "1s", "Status"],
     "unknown command 'Status'; did you mean 'status'?"),
    (["reload"], "unknown command 'reload'"),
    (["help", "reload"], "unknown command 'reload'"),
    (["[fly]"], "unknown command '[fly]'"), (["\x1b"], "unknown command '\\x1b'"),
    ([], "no command given"), (["-q"], "no command given"),
    (["--json"], "no command given for '--json'"),
    (["--bogus"], "unknown option '--bogus'"),
    (["--json", "--bogus=1"], "unknown option '--bogus=1'"),
    (["--timeout", "5x"],
     "'5x' is not a duration; write 10s, 500ms, 1.5m or 2h"),
], ids=str)
def test_an_invalid_command_line_is_explained(
        machine, arguments, said):
    machine.start_without_launcher()
    done = machine.vornctl(*arguments)
    assert (done.returncode, done.stdout, done.stderr) == (
        2, "", f"vornctl: {said}\nTry 'vornctl --help'.\n")


@pytest.mark.parametrize("before", [
    ["--json"], ["-q", "--json", "--timeout", "10s"], ["--color", "never", "--json"],
    ["--socket=/tmp/vornlaunch/vornlaunch.sock", "--json"]], ids=" ".join)
def test_options_may_precede_the_command(robot, before):
    def status(*arguments):
        done = robot.vornctl(*arguments)
        # These values can change between the two calls.
        text, values = re.subn(
            r'("(uptimeSeconds|cpuPercent|memoryBytes)": )[\d.e-]+', r"\1N", done.stdout)
        assert values == (0 if "-q" in arguments else 3)
        return done.returncode, text

    assert status(*before, "status", "lidar") == status("status", *before, "lidar")
    shown = robot.vornctl("-qo", "node", "status", "lidar")
    assert (shown.returncode, shown.stdout) == (0, "")
    shown = robot.vornctl("--no-header", "-o", "node,state", "status", "lidar")
    assert shown.stdout == "lidar  running\n"
