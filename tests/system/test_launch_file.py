"""The connection between a launch file and the nodes that the launcher runs."""

import signal

import pytest

from support import log_texts
from support.control import Cmd, Result, State
from support.waiting import eventually

# Runs on, so that its arguments and environment can be read.
STAY = "sleep 1000 &\nwait"


def child_of(machine, name):
    """The node's process, after it has executed its program."""

    def executed():
        process = machine.find_process(machine.status(name).pid)
        argv = process.argv if process else []
        return process if argv[:1] == ["/bin/sh"] else None

    return eventually(executed, f"{name} runs its program")


def arguments_of(machine, name):
    """The node's argument vector, without the interpreter that the kernel puts in
    front."""
    argv = child_of(machine, name).argv
    assert argv[0] == "/bin/sh"
    return argv[1:]


def texts(machine, func):
    """The texts that the function has logged."""
    return [line.text for line in machine.log() if line.func == func]


GOOD_NODE = "vornnode:\n  good: {path: /tmp/bin/good}\n"


@pytest.mark.parametrize(
    "content, text",
    [
        (GOOD_NODE + "  bad: {path: [\n", "yaml-cpp: error at line "),
        (GOOD_NODE + "configure: x\n",
         'operator[] call on a scalar (key: "environment")'),
    ],
    ids=["syntax", "scalar-for-mapping"],
)
def test_an_invalid_document_aborts_the_launcher_before_any_node_is_read(
    machine, content, text
):
    machine.script("good", ": > /tmp/good.ran")
    machine.start(content, wait_until_up=False)
    assert machine.wait() == -signal.SIGABRT
    assert text in machine.stderr()
    assert machine.heads() == []
    assert not (machine.tmp / "good.ran").exists()


def test_a_file_without_nodes_gives_a_launcher_that_runs(machine):
    machine.start("")
    assert {line.func for line in machine.log()} == {"createSocket", "controlHandler"}
    machine.signal(signal.SIGTERM)
    assert machine.wait() == 0


def test_a_global_path_changes_which_ps_and_grep_a_stop_runs(machine):
    for tool in ("ps", "grep"):
        machine.script(
            f"tools/{tool}",
            f'echo {tool} >> /tmp/tools.ran\nexec /usr/bin/{tool} "$@"',
        )
    machine.script("worker", STAY)
    machine.start(
        {
            "configure": {"environment": {"PATH": "/tmp/bin/tools:/usr/bin:/bin"}},
            "vornnode": {"worker": {"path": "/tmp/bin/worker"}},
        }
    )
    assert not (machine.tmp / "tools.ran").exists()
    assert machine.request(Cmd.STOP, "worker").result == Result.SUCCESS
    ran = (machine.tmp / "tools.ran").read_text(encoding="ascii").split()
    assert set(ran) == {"ps", "grep"}


COMPLETE_EXAMPLE = """\
configure:
  environment:
    VORN_BIN_PATH: install://bin
    LD_LIBRARY_PATH: install://lib:/usr/local/lib
vornnode:
  controller:
    path: /tmp/local/controller
    argv: --rate 500 --log-level 2
    required: [planner, monitor]
  planner:
    path: planner
    sleep: 1500
    environment:
      PLANNER_MAPS: install://share/maps
      PLANNER_MODE: fast
  monitor:
    path: monitor
    autostart: false
  calibrate:
    path: calibrate
    oneshot: true
    disabled: false
"""


@pytest.fixture(name="example")
def fixture_example(machine):
    """A machine that runs the complete example."""
    machine.script("../local/controller", STAY)
    for name in ("planner", "monitor"):
        machine.script(f"../install/bin/{name}", STAY)
    machine.script("../install/bin/calibrate", "exit 0")
    machine.start(COMPLETE_EXAMPLE)
    return machine


def test_the_complete_example_starts_as_documented(example):
    assert texts(example, "startInternal") == [
        log_texts.started("controller"),
        "planner sleep 1500ms",
        log_texts.started("planner"),
        log_texts.not_autostart("monitor"),
        log_texts.started("calibrate"),
    ]
    assert arguments_of(example, "controller") == [
        "/tmp/local/controller", "--rate", "500", "--log-level", "2",
    ]
    assert arguments_of(example, "planner") == ["/tmp/install/bin/planner"]
    planner = child_of(example, "planner").environment
    assert planner["VORN_BIN_PATH"] == "/tmp/install/bin"
    assert planner["LD_LIBRARY_PATH"] == "/tmp/install/lib:/usr/local/lib"
    assert planner["PLANNER_MAPS"] == "/tmp/install/share/maps"
    assert planner["PLANNER_MODE"] == "fast"
    assert planner["__VORN_NODE_NAME__"] == "planner(vornlaunch)"
    assert "PLANNER_MODE" not in child_of(example, "controller").environment
    assert example.status("monitor").state == State.STOPPED
    example.wait_for_log(log_texts.disabled_as_oneshot("calibrate"))
    assert example.status("calibrate").state == State.DISABLED


def test_the_complete_example_restarts_the_nodes_that_the_controller_requires(example):
    planner, monitor = example.status("planner"), example.status("monitor")
    assert example.request(Cmd.STOP, "controller").result == Result.SUCCESS
    assert example.status("planner").state == State.RUNNING
    assert example.status("planner").pid != planner.pid
    assert example.status("monitor") == monitor, "was not running, so left alone"
