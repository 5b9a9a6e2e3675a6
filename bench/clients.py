"""The start of control clients, and their status of all nodes."""

import shutil
import subprocess
import time

from harness.figures import Table
from harness.sandbox import NEXT_TO_SANDBOX, Sandbox
from harness.subjects import LAUNCHER, RUNIT, S6, SUPERVISORD, Subject, node_name
from status import Served, asked_nodes
from support.process_tree import children_of

STARTS, QUICK_STARTS = 301, 21
COUNTS = (10, 100, 1000)
ROUNDS, QUICK_ROUNDS = 15, 3
WITH_VORNCTL = Subject("vornctl", LAUNCHER.prepare, ("vornlaunch", "vornctl"))


def starts(build):
    """Commands that only start a client, if it is installed; the first is the base."""
    commands = {
        "true": ["/bin/true"],
        "vornctl": [build / "bin/vornctl", "--version"],
        "systemctl": ["systemctl", "--version"],
        "supervisorctl": ["supervisorctl", "--help"],
    }
    return {name: [shutil.which(command[0]), *command[1:]]
            for name, command in commands.items() if shutil.which(command[0])}


def _enter(sandbox, *command):
    """The command, in the sandbox, on the processor of its other clients."""
    [init] = children_of(sandbox.process_id)
    return [*NEXT_TO_SANDBOX, "nsenter", f"--target={init}", "--mount", "--root", "--pid", "--net", *command]


def _seconds(command):
    begin = time.perf_counter()
    subprocess.run(command, stdout=subprocess.DEVNULL, check=True)
    return time.perf_counter() - begin


def measure_starts(build, rounds):
    lasted = Table("s")
    for _ in range(rounds):
        for name, command in starts(build).items():
            lasted.add(name, _seconds(command))
    return lasted.as_json("true", "true")


def status_commands(count):
    """The command of each peer that prints the status of all nodes."""
    services = [f"/tmp/bench/services/{node_name(i)}" for i in range(count)]
    return {
        SUPERVISORD: ["supervisorctl", "-s", "unix:///tmp/bench/socket", "status"],
        RUNIT: ["sv", "status", *services],
        S6: ["/bin/sh", "-c", "for each; do s6-svstat $each; done", "sh", *services],
    }


def measure_status(build, count, rounds):
    """The duration of the status of all nodes, by client. The base is a loop in C with
    the same requests."""
    lasted = Table("s")
    with Sandbox(build, WITH_VORNCTL, count) as sandbox:
        sandbox.start()
        served = Served(build, sandbox, LAUNCHER, asked_nodes(count))
        vornctl = _enter(sandbox, "/tmp/bench/vornctl", "status")
        for _ in range(rounds):
            lasted.add("floor", served.ask(count)[0] / 1e9)
            lasted.add("vornctl status", _seconds(vornctl))
    for peer, command in status_commands(count).items():
        if not shutil.which(command[0]):
            continue
        with Sandbox(build, peer, count) as sandbox:
            sandbox.start()
            for _ in range(rounds):
                lasted.add(peer.name, _seconds(_enter(sandbox, *command)))
    return lasted.as_json("floor", "vornctl status")


def measure(build, quick):
    """The seconds of each start, and of each status by number of nodes, with their
    ratios to the lower bound."""
    rounds = QUICK_ROUNDS if quick else ROUNDS
    return {"starts": measure_starts(build, QUICK_STARTS if quick else STARTS),
            "status": {str(count): measure_status(build, count, rounds)
                       for count in (COUNTS[:2] if quick else COUNTS)}}
