"""The launcher and the clients of its control socket."""

import signal
import time

import pytest
from support import log_texts
from support.control import TIMEOUT, Cmd, Result, State
from support.control import pack_request, read_exactly, read_until_end
from support.control import unpack_response
from support.blocking import held, wait_until_blocked
from support.waiting import eventually


def worker(machine, **keys):
    """A launch file with a node that runs until it is stopped."""
    path = machine.script("worker", "exec sleep 1000")
    return {"vornnode": {"worker": {"path": path, **keys}}}


def test_status_right_after_a_start_shows_state_pid_and_time(machine):
    machine.start(worker(machine, autostart=False))
    before = int(time.time())
    assert machine.request(Cmd.START, "worker").result == Result.SUCCESS
    after = int(time.time())
    status = machine.status("worker")
    assert status.state == State.RUNNING
    assert machine.child("worker", ["sleep", "1000"]).pid == status.pid
    assert before <= status.start_seconds <= after
    assert status.padding == 0


@pytest.mark.parametrize("cmd", [x for x in Cmd if x != Cmd.STATUS], ids=lambda cmd: cmd.name)
def test_a_reply_contains_only_the_result(machine, cmd):
    machine.start(worker(machine))
    with machine.connect() as client:
        client.sendall(pack_request(cmd, "worker"))
        assert read_exactly(client, 24) == bytes(24)
    [line] = machine.log_lines(log_texts.command(cmd))
    assert line.head[:3] == ("INFO", False, "controlHandler")


def test_a_silent_client_blocks_the_launcher_until_it_disconnects(machine):
    machine.start(worker(machine))
    child = machine.find_process(machine.status("worker").pid)
    with held(machine):
        second = machine.connect()
        second.sendall(pack_request(Cmd.STATUS, "worker"))
        child.signal(signal.SIGKILL)
        eventually(lambda: machine.find_process(child.pid).state == "Z", "death")
        # It neither collects the child nor answers the other client.
        wait_until_blocked(machine, "unix_stream")
        assert machine.find_process(child.pid).state == "Z"
        lines = len(machine.log())
    with second:
        assert unpack_response(read_exactly(second, 24)).pid == child.pid
    machine.wait_for_log(log_texts.ready_to_restart("worker"))
    texts = [x.text for x in machine.log()[lines:]]
    assert texts[0].startswith("received: 0 expected: 132 errno: ")
    assert texts[1] == log_texts.command(Cmd.STATUS)


def test_a_child_started_by_start_keeps_the_connection_open(machine):
    machine.start(worker(machine, autostart=False))
    with machine.connect() as client:
        client.sendall(pack_request(Cmd.START, "worker"))
        assert read_exactly(client, 24) == bytes(24)
        # The next request is served after the launcher has closed its end.
        child = machine.child("worker", ["sleep", "1000"])
        eventually(lambda: [what.partition(":")[0] for fd, what in
                            child.descriptors.items() if fd > 2] == ["socket"],
                   "it has the connection and nothing else")
        client.setblocking(False)
        with pytest.raises(BlockingIOError):
            client.recv(1)
        client.settimeout(TIMEOUT)
        child.signal(signal.SIGKILL)
        assert read_until_end(client) == b""
