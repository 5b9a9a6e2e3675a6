"""The life of nodes."""

from support.control import Cmd, Result, State


def test_a_started_node_is_running_with_its_own_pid(machine):
    machine.script("worker", "exec sleep 1000")
    machine.start({"vornnode": {"worker": {"path": "/tmp/bin/worker"}}})
    status = machine.status("worker")
    assert status.result == Result.SUCCESS
    assert status.state == State.RUNNING
    assert machine.find_process(status.pid).argv == ["sleep", "1000"]
