"""The commands and launch-file recipes of docs/operations.md."""

import os
import pathlib

import pytest
from support.control import State
from support.doc_runner import blocks

OPERATIONS = pathlib.Path(__file__).resolve().parents[2] / "docs/operations.md"
STAY = "exec sleep infinity"


def block_with(language, text):
    """The only block of this language that contains the text."""
    [block] = [b for b in blocks(OPERATIONS, language) if text in b.text]
    return block.text


def fields(process, file):
    """The lines "NAME: VALUE" of a file in the process's /proc directory."""
    lines = process.read(file).decode().splitlines()
    return {name: value.split() for name, _, value in
            (line.partition(":") for line in lines)}


@pytest.fixture(name="recipes")
def fixture_recipes(machine):
    """Starts the launcher on the recipes; returns a function that waits for a
    node's own program and returns its process."""
    text = block_with("yaml", "taskset").replace("/opt/robot", "/tmp")
    for name in ("camera", "controller", "recorder", "server"):
        machine.script(name, STAY)
    machine.file("bin/with-umask", block_with("sh", "umask"), mode=0o755)
    machine.tmp.chmod(0o755)
    machine.start(text)
    return lambda name: machine.child(name, ["sleep", "infinity"])


@pytest.mark.native  # the attributes are the emulator's own
def test_a_node_has_the_attributes_that_its_wrapper_commands_set(recipes):
    camera = recipes("camera")
    limits = camera.read("limits").decode()
    assert pathlib.Path(f"/proc/{camera.host_pid}/cwd").readlink() == (
        pathlib.Path("/srv"))
    assert fields(camera, "status")["Cpus_allowed_list"] == ["0"]
    assert next(line.split()[3:5] for line in limits.splitlines()
                if line.startswith("Max open files")) == ["256", "256"]
    nice = camera.read("stat").decode().rpartition(")")[2].split()[16]
    assert int(nice) == min(os.nice(0) + 5, 19)
    policy = recipes("controller").read("stat").decode().rpartition(")")[2].split()
    assert policy[38] == "3"  # SCHED_BATCH
    assert fields(recipes("server"), "status")["Umask"] == ["0022"]


@pytest.mark.native
@pytest.mark.skipif(os.geteuid() != 0, reason="no right to become another user")
def test_a_node_of_root_runs_as_the_user_that_setpriv_names(recipes):
    status = fields(recipes("recorder"), "status")
    assert status["Uid"] == ["65534"] * 4
    assert status["Gid"] == ["65534"] * 4


def test_a_stop_reaches_the_program_after_its_wrapper_commands(machine, recipes):
    pid = recipes("camera").pid
    assert machine.vornctl("stop", "camera").returncode == 0
    assert machine.status("camera").state == State.STOPPED
    assert not machine.is_alive(pid)


@pytest.mark.native  # the commands find the launcher by its name
def test_the_documented_commands_apply_a_changed_file_only_if_it_is_valid(shell):
    def wait_until_running(node):
        shell.type(f"until vornctl status {node} | grep running; do sleep 0.05; done")
        # Before a new node executes its program, it has the launcher's name.
        shell.type("until [ $(pidof vornlaunch | wc -w) = 1 ]; do sleep 0.05; done")

    def pid():
        return shell.run("pidof vornlaunch")[1]

    shell.type("echo 'vornnode: {stay: {path: /bin/sleep, argv: 1000}}' >launch.yaml")
    shell.run("vornlaunch launch.yaml >>nodes.log 2>>launch.log &")
    wait_until_running("stay")
    first = pid()
    commands = block_with("sh", "vornctl check launch.yaml")
    shell.type("echo 'vornnode: [' >launch.yaml")
    shell.run(commands)
    assert pid() == first

    shell.type("echo 'vornnode: {new: {path: /bin/sleep, argv: 2000}}' >launch.yaml")
    shell.run(commands)
    wait_until_running("new")
    assert pid() != first
