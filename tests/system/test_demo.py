"""The demo in examples/demo, controlled by examples/control.py."""

import pathlib
import re
import shutil
import signal

import pytest

from support import log_texts
from support.control import REQUEST, RESPONSE, State
from support.start_time import RESTART_TICKS, wait_for_start
from support.waiting import eventually

pytestmark = pytest.mark.plain  # it tests the scripts of the demo

EXAMPLES = pathlib.Path(__file__).resolve().parents[2] / "examples"
NODES = ["prepare", "camera", "detector", "lamp", "recorder", "diagnostics"]


@pytest.fixture(name="demo")
def fixture_demo(machine):
    """A machine in which the demo runs."""
    machine.wrapped("")  # installs vornrun
    shutil.copytree(EXAMPLES / "demo", machine.tmp / "demo")
    shutil.copy2(EXAMPLES / "control.py", machine.tmp / "control.py")
    return machine.start(
        arguments=["/tmp/demo/launch.yaml"], environment={"VORN_ROOT": "/tmp/demo"}
    )


def control(machine, *arguments):
    """Runs control.py; returns its exit status and output."""
    script = 'python3 /tmp/control.py "$@" 2>&1; echo "status $?"'
    output = machine.run("sh", "-c", script, "sh", *arguments, timeout=300)
    text, _, status = output.rpartition("status ")
    return int(status), text


def wait_for_line(machine, line, count=1):
    """Waits until the nodes have printed `line` `count` times."""
    eventually(
        lambda: machine.stdout().splitlines().count(line) >= count,
        f"the demo says '{line}'",
    )


def frames(machine, pattern):
    """The frame numbers in the complete lines that match."""
    text = machine.stdout().rpartition("\n")[0]
    return [int(n) for n in re.findall(f"^{pattern}", text, re.MULTILINE)]


def test_the_nodes_with_autostart_start(demo):
    wait_for_line(demo, "camera: looking, a frame every 2 s")
    wait_for_line(demo, "detector: waiting for frames, limit 7")
    wait_for_line(demo, "lamp: on")
    assert demo.status("camera").state == State.RUNNING
    assert demo.status("detector").state == State.RUNNING


@pytest.mark.parametrize("node", ["recorder", "diagnostics"])
def test_a_node_that_waits_for_an_operator_is_not_started(demo, node):
    wait_for_line(demo, "lamp: on")
    assert demo.status(node).state == State.STOPPED
    assert demo.status(node).start_seconds == 0


def test_every_line_begins_with_the_name_of_its_node(demo):
    assert control(demo, "start", "recorder")[0] == 0
    assert control(demo, "enable", "diagnostics")[0] == 0
    assert control(demo, "start", "diagnostics")[0] == 0
    lines = eventually(
        lambda: demo.stdout().endswith("\n")
        and {line.split(":")[0] for line in demo.stdout().splitlines()} >= {*NODES}
        and demo.stdout().splitlines(),
        "every node has said something",
    )
    assert {line.split(": ")[0] for line in lines} == {*NODES}


def test_prepare_runs_once_and_is_disabled(demo):
    demo.wait_for_state("prepare", State.DISABLED)
    # While the lamp is restarted, prepare is not.
    lamp, _ = wait_for_start(demo, "lamp")
    wait_for_start(demo, "lamp", other_than=lamp)
    assert demo.stdout().count("prepare: /tmp/vornlaunch-demo is ready\n") == 1
    assert len(demo.log_lines(log_texts.started("prepare"))) == 1
    assert demo.status("prepare").state == State.DISABLED


def test_the_lamp_fails_and_restarts_at_the_earliest_5_s_after_its_start(demo):
    broken, first_start = wait_for_start(demo, "lamp")
    demo.wait_for_log(log_texts.exited("lamp", 3))
    _, next_start = wait_for_start(demo, "lamp", other_than=broken)
    assert next_start - first_start >= RESTART_TICKS
    wait_for_line(demo, "lamp: on", count=2)
    assert demo.stdout().count("lamp: broken\n") >= 1


def test_the_detector_judges_every_frame_that_the_camera_takes(demo):
    wait_for_line(demo, "detector: frame 3: 4 parts, fine")
    judged = frames(demo, r"detector: frame (\d+): \d+ parts")
    assert judged == list(range(1, len(judged) + 1))
    taken = frames(demo, r"camera: frame (\d+) taken$")
    assert taken == list(range(1, len(taken) + 1))
    assert "detector: frame 1: 5 parts, fine\n" in demo.stdout()
    assert "detector: frame 2: 10 parts, too many\n" in demo.stdout()


def test_the_camera_waits_while_the_detector_is_stopped(demo):
    wait_for_line(demo, "camera: frame 1 taken")
    assert control(demo, "stop", "detector") == (0, "detector: stop done\n")
    taken = max(frames(demo, r"camera: frame (\d+) taken$"))
    lamp, _ = wait_for_start(demo, "lamp")
    again, _ = wait_for_start(demo, "lamp", other_than=lamp)
    wait_for_start(demo, "lamp", other_than=again)
    # More than two frames' time has passed; one may have been on its way.
    assert max(frames(demo, r"camera: frame (\d+) taken$")) <= taken + 1
    assert control(demo, "start", "detector") == (0, "detector: start done\n")
    eventually(
        lambda: max(frames(demo, r"detector: frame (\d+):")) > taken,
        "the detector is fed again",
    )


def test_a_restart_of_the_camera_restarts_the_detector_that_it_requires(demo):
    camera, _ = wait_for_start(demo, "camera")
    detector, _ = wait_for_start(demo, "detector")
    wait_for_line(demo, "detector: frame 1: 5 parts, fine")
    assert control(demo, "restart", "camera") == (0, "camera: restart done\n")
    wait_for_start(demo, "camera", other_than=camera)
    wait_for_start(demo, "detector", other_than=detector)
    wait_for_line(demo, "camera: stopping")
    wait_for_line(demo, "detector: stopping")
    # Camera and detector start again.
    wait_for_line(demo, "detector: frame 1: 5 parts, fine", count=2)


def test_the_recorder_starts_on_request_with_its_own_interval(demo):
    assert control(demo, "start", "recorder") == (0, "recorder: start done\n")
    wait_for_line(
        demo, "recorder: recording every 4 s to /tmp/vornlaunch-demo/record"
    )
    # vornrun has executed it, with a low priority.
    pid = str(demo.status("recorder").pid)
    assert demo.run("ps", "-o", "ni=", "-p", pid).strip() == "10"
    said = "recorder: recorded: "
    # The frame that it affects depends on the load of the machine.
    line = eventually(
        lambda: next((x for x in demo.stdout().splitlines() if x.startswith(said)), None),
        "the recorder has recorded a frame",
    )
    record = (demo.tmp / "vornlaunch-demo/record").read_text(encoding="utf-8")
    assert line.removeprefix(said) + "\n" in record


def test_diagnostics_starts_only_after_it_has_been_enabled(demo):
    status, text = control(demo, "start", "diagnostics")
    assert status == 1 and "diagnostics: start failed" in text
    assert control(demo, "enable", "diagnostics") == (0, "diagnostics: enable done\n")
    assert control(demo, "start", "diagnostics") == (0, "diagnostics: start done\n")
    wait_for_start(demo, "diagnostics")


def test_sigterm_stops_the_whole_demo_with_status_0(demo):
    wait_for_line(demo, "camera: frame 1 taken")
    camera = demo.status("camera").pid
    demo.signal(signal.SIGTERM)
    assert demo.wait() == 0
    assert not demo.is_alive(camera)
    assert "camera: stopping\n" in demo.stdout()
    assert "detector: stopping\n" in demo.stdout()
    eventually(lambda: not demo.processes(), "no process of the demo is left")


# -- control.py itself


def test_control_py_prints_the_state_the_pid_and_the_last_start(demo):
    wait_for_line(demo, "camera: looking, a frame every 2 s")
    pid = demo.status("camera").pid
    status, text = control(demo, "status", "camera")
    assert status == 0
    assert re.fullmatch(
        rf"camera: running, pid {pid}, last started "
        r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\n",
        text,
    )
    assert control(demo, "status", "recorder") == (
        0,
        "recorder: stopped, pid 0, last started never\n",
    )


@pytest.mark.parametrize(
    "arguments", [[], ["status"], ["status", "a", "b"], ["reboot", "camera"]],
    ids=["none", "no node", "two nodes", "unknown command"],
)
def test_control_py_prints_its_usage_and_exits_with_2(demo, arguments):
    status, text = control(demo, *arguments)
    assert status == 2
    assert text.startswith("usage: control.py start|stop|restart|status|")


def test_control_py_refuses_a_name_beyond_127_bytes_with_2(demo):
    assert control(demo, "status", "x" * 127)[0] == 3
    assert control(demo, "status", "x" * 126 + "ä") == (
        2,
        "control.py: a node's name has at most 127 bytes\n",
    )


def test_control_py_exits_with_3_for_an_unknown_node(demo):
    assert control(demo, "stop", "lidar") == (
        3,
        "control.py: lidar: no such node\n",
    )


def test_control_py_exits_with_4_when_no_launcher_runs(demo):
    demo.signal(signal.SIGTERM)
    demo.wait()
    status, text = control(demo, "status", "camera")
    assert status == 4 and "Connection refused" in text
    (demo.tmp / "vornlaunch/vornlaunch.sock").unlink()
    status, text = control(demo, "status", "camera")
    assert status == 4 and "No such file or directory" in text


def trace_control(machine, *arguments):
    """The socket calls of control.py, by system call."""
    calls = "trace=socket,connect,sendto,sendmsg,recvfrom,recvmsg,shutdown"
    machine.run(
        "strace", "-o", "/tmp/control.strace", "-e", calls,
        # Without Python's lookup of the user's directories, which connects to nscd.
        "python3", "-I", "-S", "/tmp/control.py", *arguments, check=False, timeout=300,
    )
    trace = (machine.tmp / "control.strace").read_text(encoding="utf-8")
    return re.findall(r"^(\w+)\(.* = (-?\d+)", trace, re.MULTILINE)


def test_control_py_sends_once_and_reads_only_the_reply(demo):
    calls = [(call, int(result)) for call, result in
             trace_control(demo, "status", "camera")]
    assert calls == [
        ("socket", 3),
        ("connect", 0),
        ("sendto", REQUEST.size),
        ("recvfrom", RESPONSE.size),
    ]


def test_control_py_does_not_connect_without_a_request_to_send(demo):
    assert trace_control(demo, "status") == []
    assert trace_control(demo, "status", "x" * 128) == []
