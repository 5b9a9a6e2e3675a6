"""vornctl ps shows the processes of nodes."""

import json
import os

import pytest

from support.vornctl import VORNCTL, on_terminal
from support.waiting import eventually

UNPRIVILEGED = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
# Starts a process in the background, which outlives its parent.
DAEMON = "(sleep 1003 & :)"
PYTHON = "/usr/bin/python3"
LISTENER = f"""exec {PYTHON} -c '
import socket, time
tcp = socket.create_server(("127.0.0.1", 7001))
udp = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
udp.bind(("::1", 7002))
unix = socket.socket(socket.AF_UNIX)
unix.bind("/tmp/listener.sock")
unix.listen()
client = socket.create_connection(("127.0.0.1", 7001))
open("/tmp/ready", "w").close()
time.sleep(1000)'"""


def processes(machine, *arguments):
    """The processes in the JSON document, by node."""
    done = machine.vornctl("ps", "--json", *arguments)
    assert done.stderr == ""
    return {node["name"]: node["processes"]
            for node in json.loads(done.stdout)["nodes"]}


def commands(machine, count):
    """Waits for this number of processes of the node; returns the depth and the
    command of each."""

    def found():
        rows = [(each["depth"], each["command"])
                for each in processes(machine)["node"]]
        programs = [command for _, command in rows
                    if command and command[0] in ("sleep", "/bin/sh")]
        return rows if len(programs) == count else None

    return eventually(found, f"{count} processes")


def start(machine, body):
    path = machine.script("program", body)
    return machine.start({"vornnode": {"node": {"path": path},
                                       "off": {"path": path, "disabled": True}}})


def test_the_processes_of_a_node_are_an_indented_tree(machine):
    start(machine, "sleep 1001 & sleep 1002 & wait")
    commands(machine, 3)
    launcher, header, *lines = machine.vornctl("ps").stdout.splitlines()
    assert launcher.startswith(f"launcher {machine.pid}, launch file ")
    assert header.split() == ["NODE", "PID", "CPU%", "MEMORY", "THREADS", "AGE", "COMMAND"]
    assert [line[header.index("COMMAND"):] for line in lines] == [
        "/bin/sh /tmp/bin/program", "  sleep 1001", "  sleep 1002"]
    words = lines[0].split()
    assert words[:2] == ["node", str(machine.status("node").pid)]
    assert words[4] == "1"


def test_json_has_the_facts_of_each_process(machine):
    start(machine, "sleep 1001 & wait")
    commands(machine, 2)
    document = json.loads(machine.vornctl("ps", "--json").stdout)
    assert (document["schema"], document["launcher"]["pid"]) == (1, machine.pid)
    nodes = {node["name"]: node["processes"] for node in document["nodes"]}
    assert nodes["off"] == []
    first, second = nodes["node"]
    status = machine.status("node")
    assert (first["pid"], first["parent"]) == (status.pid, machine.pid)
    assert second["parent"] == first["pid"]
    assert abs(first["startSeconds"] - status.start_seconds) <= 2
    assert first["memoryBytes"] > 0 and first["threads"] == 1
    assert first["cpuPercent"] >= 0 and first["cpuSeconds"] >= 0
    assert "listening" not in first


def test_a_process_in_the_background_follows_those_of_its_node(machine):
    start(machine, DAEMON + "; sleep 1001 & wait")
    assert commands(machine, 3) == [
        (0, ["/bin/sh", "/tmp/bin/program"]), (1, ["sleep", "1001"]),
        (0, ["sleep", "1003"])]


def test_a_named_node_without_a_process_is_exit_status_3(machine):
    start(machine, "exec sleep 1001")
    commands(machine, 1)
    assert [machine.vornctl("ps", "-q", *names).returncode
            for names in (["node"], ["off"], ["o*"], [])] == [0, 3, 3, 0]
    done = machine.vornctl("ps", "-q", "nide", "off")
    assert (done.returncode, done.stderr) == (
        4, "vornctl: nide: no such node; did you mean 'node'?\n")


def test_a_command_line_cannot_control_the_terminal(machine):
    start(machine, f"exec {PYTHON} -c 'import time; time.sleep(1000)' "
                   "\"$(printf '\\033[31m')\"")
    eventually(lambda: [each["command"][0] for each in processes(machine)["node"]]
               == [PYTHON], "the program runs")
    assert machine.vornctl("ps").stdout.endswith(" \\x1b[31m\n")


def test_a_narrow_terminal_truncates_the_command(machine):
    start(machine, "exec sleep 1000000000000000000000000000000000000001")
    commands(machine, 1)
    shown = on_terminal(machine, "ps", "--color=never", columns=60)[1]
    assert all(len(line) <= 60 for line in shown.splitlines())
    assert shown.splitlines()[-1].endswith("…")


def test_ports_shows_the_sockets_on_which_a_process_listens(machine):
    start(machine, LISTENER)
    eventually((machine.tmp / "ready").exists, "it listens")
    [process] = processes(machine, "--ports", "node")["node"]
    assert sorted(process["listening"], key=lambda each: each["protocol"]) == [
        {"protocol": "tcp", "address": "127.0.0.1", "port": 7001},
        {"protocol": "udp", "address": "[::1]", "port": 7002},
        {"protocol": "unix", "address": "/tmp/listener.sock", "port": None}]
    shown = machine.vornctl("ps", "--ports").stdout
    for text in ("tcp 127.0.0.1:7001", "udp [::1]:7002", "unix /tmp/listener.sock"):
        assert text in shown


def test_ports_are_those_of_the_network_namespace_of_the_process(machine):
    start(machine, f"""exec unshare --net {PYTHON} -c '
import socket, time
server = socket.create_server(("0.0.0.0", 7003))
open("/tmp/ready", "w").close()
time.sleep(1000)'""")
    eventually((machine.tmp / "ready").exists, "it listens")
    [process] = processes(machine, "--ports", "node")["node"]
    assert process["listening"] == [
        {"protocol": "tcp", "address": "0.0.0.0", "port": 7003}]


def test_the_processes_in_a_container_are_visible_from_outside(machine):
    path = machine.script("program", "exec sleep 1001")
    machine.start({"vornnode": {"node": {"path": path}}}, wrapper=[
        "unshare", "--pid", "--fork", "--kill-child", "--mount-proc"])
    commands(machine, 1)
    [process] = processes(machine)["node"]
    assert machine.run("cat", f"/proc/{process['pid']}/cmdline") == "sleep\x001001\x00"


def test_a_launcher_outside_of_the_pid_namespace_is_reported(machine):
    start(machine, "exec sleep 1001")
    done = machine.execute("unshare", "--pid", "--fork", "--mount-proc", VORNCTL,
                           "--launch-file=/tmp/launch.yaml", "ps")
    assert (done.returncode, done.stdout, done.stderr) == (
        2, "", "vornctl: cannot see the processes of a launcher in another pid "
        "namespace; run vornctl there\n")


@pytest.mark.skipif(os.geteuid() != 0, reason="no right to become another user")
def test_a_user_without_permission_gets_an_error(machine):
    machine.tmp.chmod(0o1777)
    start(machine, "exec sleep 1001")
    done = machine.execute(*UNPRIVILEGED, VORNCTL, "ps")
    assert (done.returncode, done.stdout, done.stderr) == (
        1, "", "vornctl: no permission to examine the processes of launcher "
        f"{machine.pid}; run vornctl as root or as their user\n")
