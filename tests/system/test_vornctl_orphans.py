"""vornctl orphans finds and terminates the processes that no launcher supervises."""

import json
import os
import signal

import pytest

from support.control import Cmd, State
from support.vornctl import VORNCTL, on_terminal
from support.waiting import eventually

UNPRIVILEGED = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
# Starts a process in the background, which outlives the node.
DAEMON = "(exec sleep 1003 & :)"
WARNING = "still running; 'vornctl orphans' lists them\n"


def start(machine, body="exec sleep 1001"):
    path = machine.script("program", body)
    return machine.start({"vornnode": {name: {"path": path}
                                       for name in ("camera", "lidar")}})


def kill_launcher(machine):
    """Kills the launcher, whose nodes continue. Returns their pids in file order."""
    pids = [machine.child(name, ["sleep", "1001"]).pid for name in ("camera", "lidar")]
    machine.signal(signal.SIGKILL)
    machine.wait()
    return pids


def document(machine):
    done = machine.vornctl("orphans", "--json")
    assert done.stderr == ""
    return json.loads(done.stdout)


def orphans(machine):
    """(pid, node, reason) of each orphan."""
    return [(each["pid"], each["node"], each["reason"])
            for each in document(machine)["orphans"]]


def test_a_running_launcher_has_no_orphans(machine):
    start(machine)
    done = machine.vornctl("orphans")
    assert (done.returncode, done.stderr) == (0, "")
    [line] = done.stdout.splitlines()
    assert line.startswith(f"launcher {machine.pid}, launch file /tmp/launch.yaml, since ")


def test_the_nodes_of_a_killed_launcher_are_orphans(machine):
    camera, lidar = kill_launcher(start(machine))
    done = machine.vornctl("orphans")
    assert (done.returncode, done.stderr) == (1, "")
    header, *lines = done.stdout.splitlines()
    assert header.split() == ["PID", "NODE", "STARTED", "REASON", "MEMORY", "COMMAND"]
    assert [line.split()[:2] for line in lines] == [
        [str(camera), "camera"], [str(lidar), "lidar"]]
    assert all("  launcher exited  " in line and line.endswith("  sleep 1001")
               for line in lines)


def test_the_nodes_of_a_killed_launcher_are_orphans_next_to_those_of_the_next(machine):
    camera, lidar = kill_launcher(start(machine))
    machine.start_again()
    assert orphans(machine) == [(camera, "camera", "launcher-exited"),
                                (lidar, "lidar", "launcher-exited")]
    [launcher] = document(machine)["launchers"]
    assert (launcher["pid"], launcher["hasControlSocket"]) == (machine.pid, True)


def test_a_second_launcher_is_listed_and_its_nodes_are_not_orphans(machine):
    first = start(machine).pid
    machine.start_again()
    assert orphans(machine) == []
    assert [(each["pid"], each["hasControlSocket"])
            for each in document(machine)["launchers"]] == [
        (first, False), (machine.pid, True)]
    assert f"launcher {first} (not on this control socket), " in (
        machine.vornctl("orphans").stdout)


def test_a_process_in_the_background_is_an_orphan_after_the_next_start(machine):
    path = machine.script("program", DAEMON + "\nexec sleep 1001")
    machine.start({"vornnode": {"camera": {"path": path}}})
    machine.child("camera", ["sleep", "1001"])
    [daemon] = [p.pid for p in machine.processes() if p.argv == ["sleep", "1003"]]
    assert orphans(machine) == []
    machine.request(Cmd.STOP, "camera")
    machine.wait_for_state("camera", State.STOPPED)
    eventually(lambda: machine.status("camera").pid == 0, "it is collected")
    assert orphans(machine) == [(daemon, "camera", "earlier-run")]
    machine.request(Cmd.START, "camera")
    machine.child("camera", ["sleep", "1001"])
    assert orphans(machine) == [(daemon, "camera", "earlier-run")]


def test_descendants_without_the_name_of_the_node_are_orphans(machine):
    path = machine.script("program", "env -i /bin/sleep 1002 & wait")
    machine.start({"vornnode": {"camera": {"path": path}}})
    eventually(lambda: [p for p in machine.processes()
                        if p.argv == ["/bin/sleep", "1002"]], "the child runs")
    machine.signal(signal.SIGKILL)
    machine.wait()
    lines = machine.vornctl("orphans").stdout.splitlines()
    assert lines[1].endswith("  /bin/sh /tmp/bin/program")
    assert lines[2].endswith("    /bin/sleep 1002") and " camera " in lines[2]


def test_the_processes_in_a_container_are_not_orphans(machine):
    path = machine.script("program", "exec sleep 1001")
    # The container's process 1 outlives the launcher.
    machine.start({"vornnode": {"camera": {"path": path}}}, wrapper=[
        "unshare", "--pid", "--fork", "--kill-child", "--mount-proc",
        "sh", "-c", '"$@" & wait; exec sleep 1004', "sh"])
    machine.run("pkill", "-KILL", "-x", "vornlaunch")
    eventually(lambda: machine.execute("pgrep", "-x", "vornlaunch").returncode == 1,
               "the launcher has exited")
    assert machine.run("pgrep", "-f", "sleep 1001") != ""
    assert document(machine)["orphans"] == []


# -- Killing them.


def test_orphans_are_terminated_and_the_nodes_of_the_launcher_are_not(machine):
    camera, lidar = kill_launcher(start(machine))
    machine.start_again()
    done = machine.vornctl("orphans", "--kill", "--yes")
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.splitlines()[-2:] == [
        f"{camera} (camera): terminated", f"{lidar} (lidar): terminated"]
    assert not machine.is_alive(camera) and not machine.is_alive(lidar)
    for name in ("camera", "lidar"):
        machine.child(name, ["sleep", "1001"])
    assert machine.vornctl("orphans", "--kill", "--yes").returncode == 0


def test_an_orphan_that_ignores_sigterm_is_killed(machine):
    path = machine.script(
        "program", "trap '' TERM; touch /tmp/ready; while :; do sleep 1000; done")
    machine.start({"vornnode": {"camera": {"path": path}}})
    eventually((machine.tmp / "ready").exists, "SIGTERM is ignored")
    pid = machine.status("camera").pid
    machine.signal(signal.SIGKILL)
    machine.wait()
    done = machine.vornctl("orphans", "--kill", "--yes")
    assert (done.returncode, done.stderr) == (0, "")
    assert f"{pid} (camera): killed" in done.stdout.splitlines()
    assert not machine.is_alive(pid)


def test_killing_without_a_terminal_needs_yes(machine):
    camera, lidar = kill_launcher(start(machine))
    done = machine.vornctl("orphans", "--kill")
    assert (done.returncode, done.stderr) == (
        2, "vornctl: refusing to terminate 2 processes without confirmation; add --yes\n")
    assert machine.is_alive(camera) and machine.is_alive(lidar)


@pytest.mark.parametrize("answer, status, remains", [("n\n", 1, True), ("y\n", 0, False)])
def test_killing_on_a_terminal_asks_for_confirmation(machine, answer, status, remains):
    camera, _ = kill_launcher(start(machine))
    done, _ = on_terminal(machine, "orphans", "--kill", answer=answer,
                          question="terminate 2 processes? [y/N] ")
    assert done == status
    assert machine.is_alive(camera) is remains


def test_yes_without_kill_is_an_error(machine):
    machine.start_without_launcher()
    done = machine.vornctl("orphans", "--yes")
    assert done.returncode == 2 and "--kill" in done.stderr


def test_the_shell_of_vornctl_is_not_an_orphan(machine):
    machine.start_without_launcher()
    done = machine.execute("sh", "-c", f"{VORNCTL} orphans --kill --yes; echo alive",
                           environment={"__VORN_NODE_NAME__": "terminal(vornlaunch)"})
    assert (done.stdout, done.stderr) == ("alive\n", "")


@pytest.mark.skipif(os.geteuid() != 0, reason="no right to become another user")
def test_a_user_without_permission_is_told_that_processes_were_not_examined(machine):
    machine.tmp.chmod(0o1777)
    kill_launcher(start(machine))
    done = machine.execute(*UNPRIVILEGED, VORNCTL, "orphans")
    assert (done.returncode, done.stdout) == (0, "")
    assert done.stderr.startswith(
        "vornctl: processes not examined for lack of permission: ")


# -- The warning of other commands.


@pytest.mark.parametrize("command", [
    ["status"], ["status", "--json"], ["ping"], ["check", "--host", "/tmp/launch.yaml"]],
    ids=" ".join)
def test_a_command_warns_of_orphans_with_one_line(machine, command):
    kill_launcher(start(machine))
    machine.start_again()
    before = machine.vornctl("orphans")
    assert before.returncode == 1
    done = machine.vornctl(*command)
    assert (done.returncode, done.stderr) == (
        0, "vornctl: 2 processes of earlier launchers or runs of nodes are " + WARNING)
    assert machine.vornctl("-q", *command).stderr == ""


def test_the_warning_counts_one_process(machine):
    start(machine)
    machine.child("camera", ["sleep", "1001"])
    machine.request(Cmd.STOP, "lidar")
    machine.wait_for_state("lidar", State.STOPPED)
    kill = machine.child("camera", ["sleep", "1001"])
    machine.signal(signal.SIGKILL)
    machine.wait()
    eventually(lambda: orphans(machine) == [(kill.pid, "camera", "launcher-exited")],
               "one orphan")
    machine.start_again()
    assert machine.vornctl("ping").stderr == (
        "vornctl: 1 process of an earlier launcher or run of a node is " + WARNING)
