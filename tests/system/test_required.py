"""Nodes that are tied to others by `required`."""

import signal

from support.control import Cmd, Result, State, pack_request
from support.blocking import wait_until_blocked, wait_until_idle
from support.trace import injected
from support.waiting import eventually


def launch(machine, **descriptions):
    """A launch file of these nodes, which run until they are told to end unless
    they have a path of their own."""
    path = machine.script("worker", "exec sleep 1000")
    return {"vornnode": {name: {"path": path, **keys}
                         for name, keys in descriptions.items()}}


def crash(machine, name):
    machine.find_process(machine.status(name).pid).signal(signal.SIGKILL)


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


def test_a_disable_restarts_the_required_running_node(machine):
    machine.start(launch(machine, a={"required": ["b"]}, b={}))
    old = machine.status("b")
    assert machine.request(Cmd.DISABLE, "a").result == Result.SUCCESS
    new = machine.status("b")
    assert new.state == State.RUNNING and new.pid != old.pid


def test_a_restart_restarts_the_required_node_first(machine):
    machine.start(launch(machine, a={"required": ["b"]}, b={}))
    assert machine.request(Cmd.RESTART, "a").result == Result.SUCCESS
    assert starts(machine) == ["a", "b", "b", "a"]


def test_a_stopped_required_node_stays_stopped(machine):
    machine.start(launch(machine, a={"required": ["b"]}, b={"autostart": False}))
    assert machine.request(Cmd.STOP, "a").result == Result.SUCCESS
    assert machine.status("b").state == State.STOPPED
    assert starts(machine) == ["a"]


def test_a_required_node_that_awaits_its_own_restart_is_left_alone(machine):
    machine.start(launch(machine, a={"required": ["b"]}, b={}))
    crash(machine, "b")
    machine.wait_for_log("Node 'b' ready to restarting")
    assert machine.request(Cmd.STOP, "a").result == Result.SUCCESS
    assert machine.log_lines("Node 'b' is restarting, set stopped.") == []
    machine.wait_for_log("Node start 'b' ok", 2)
    assert starts(machine) == ["a", "b", "b"]


def test_required_nodes_are_restarted_in_the_order_of_the_list(machine):
    machine.start(launch(machine, a={"required": ["d", "b", "c"]}, b={}, c={}, d={}))
    assert machine.request(Cmd.STOP, "a").result == Result.SUCCESS
    assert starts(machine) == ["a", "b", "c", "d", "d", "b", "c"]


def test_required_nodes_of_required_nodes_are_restarted_too(machine):
    machine.start(launch(machine, a={"required": ["b"]}, b={"required": ["c"]}, c={}))
    assert machine.request(Cmd.STOP, "a").result == Result.SUCCESS
    # c within the stop of b, so before b is started again.
    assert starts(machine) == ["a", "b", "c", "c", "b"]


def test_a_required_oneshot_ends_disabled(machine):
    machine.start(launch(machine, a={"required": ["b"]}, b={"oneshot": True}))
    assert machine.request(Cmd.STOP, "a").result == Result.SUCCESS
    assert len(machine.log_lines("Node 'b' disabled")) == 1
    assert machine.status("b").state == State.DISABLED
    machine.wait_for_log("Node 'b' disabled - oneshot!")
    machine.wait_for_log("Node 'b' disabled!")
    assert starts(machine) == ["a", "b"]


def test_a_failed_stop_of_a_required_node_does_not_start_it(machine):
    machine.start(launch(machine, a={"required": ["b"]}, b={}),
                  strace=injected("kill:error=EPERM:when=3"))
    pid = machine.status("b").pid
    # SIGTERM and SIGKILL for a's child, then SIGTERM for b's.
    assert machine.request(Cmd.STOP, "a").result == Result.SUCCESS
    assert len(machine.log_lines(
        "kill service 'b' failed, error: Operation not permitted")) == 1
    status = machine.status("b")
    assert (status.state, status.pid) == (State.RUNNING, pid)
    assert starts(machine) == ["a", "b"]


def test_unknown_names_and_the_own_name_are_ignored_by_a_stop(machine):
    machine.start(launch(machine, a={"required": ["a", "nobody", "b"]}, b={}))
    assert machine.request(Cmd.STOP, "a").result == Result.SUCCESS
    machine.wait_for_log("Node 'a' stoped")
    assert machine.status("a").state == State.STOPPED
    assert starts(machine) == ["a", "b", "b"]


def test_the_registry_restarts_the_required_node_before_the_node(machine):
    machine.start(launch(machine, a={"required": ["b"]}, b={}))
    old = machine.status("b").pid
    crash(machine, "a")
    machine.wait_for_log("Node start 'a' ok", 2)
    assert starts(machine) == ["a", "b", "b", "a"]
    assert machine.status("b").pid != old


def test_unknown_names_and_the_own_name_are_ignored_by_a_restart(machine):
    machine.start(launch(machine, a={"required": ["nobody", "a"]}))
    crash(machine, "a")
    machine.wait_for_log("Node start 'a' ok", 2)
    assert machine.status("a").state == State.RUNNING
    wait_until_idle(machine)


def test_a_cycle_blocks_the_launcher_for_good(machine):
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
