"""Nodes that require others."""

import signal

from support.control import Cmd, Result, State, pack_request
from support.blocking import wait_until_blocked
from support.waiting import eventually


def launch(machine, **descriptions):
    """A launch file of these nodes, which run until they are stopped."""
    path = machine.script("worker", "exec sleep 1000")
    return {"vornnode": {name: {"path": path, **keys}
                         for name, keys in descriptions.items()}}


def starts(machine):
    """The names of the started nodes, in order."""
    lines = [x.text for x in machine.log() if x.text.startswith("Node start")]
    return [text.split("'")[1] for text in lines]


def test_a_stop_restarts_the_required_running_node(machine):
    machine.start(launch(machine, a={"required": ["b"]}, b={}))
    old = machine.status("b")
    assert machine.request(Cmd.STOP, "a").result == Result.SUCCESS
    new = machine.status("b")
    assert new.state == State.RUNNING and new.pid != old.pid
    machine.wait_for_log(f"si_pid: {old.pid}, si_code: 2, si_status: 15")
    assert machine.is_alive(new.pid)
    assert machine.wait_for_state("a", State.STOPPED)
    assert starts(machine) == ["a", "b", "b"]


def test_a_cycle_blocks_the_launcher_permanently(machine):
    machine.start(launch(machine, a={"required": ["b"]}, b={"required": ["a"]}))
    child = machine.status("b").pid
    with machine.connect() as client:
        client.sendall(pack_request(Cmd.STOP, "a"))
        eventually(lambda: not machine.is_alive(child), "the child of b is ended")
        wait_until_blocked(machine, "futex")
        # Neither a signal nor the exit of a child wakes it.
        machine.signal(signal.SIGTERM)
        machine.signal(signal.SIGINT)
        eventually(lambda: b"\nShdPnd:\t0000000000014000\n"
                   in machine.process.read("status"),
                   "SIGTERM and SIGCHLD are pending, SIGINT is not")
        wait_until_blocked(machine, "futex")
        assert machine.find_process(child).state == "Z"
        assert starts(machine) == ["a", "b"]
    assert not machine.has_ended
