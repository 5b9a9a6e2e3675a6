"""Real children: how they are started, stopped, restarted and disabled."""

import signal

import pytest
from support import log_texts
from support.control import Cmd, Result, State, pack_request, read_exactly
from support.trace import QUICK, calls
from support.waiting import eventually

WORKER_ARGV = ["sleep", "1000"]


def worker(machine, **keys):
    """A launch file with a node that runs until it is stopped."""
    path = machine.script("worker", "exec sleep 1000")
    return {"vornnode": {"worker": {"path": path, **keys}}}


def test_a_child_inherits_no_descriptor_mask_or_signal_setting(machine):
    machine.start(worker(machine))
    process = machine.child("worker", WORKER_ARGV)
    eventually(lambda: sorted(process.descriptors) == [0, 1, 2],
               "only its standard streams are open")
    fields = dict(
        line.split(":\t") for line in process.read("status").decode().splitlines()
    )
    assert fields["Umask"] == "0077"
    routed = 1 << (signal.SIGTERM - 1) | 1 << (signal.SIGCHLD - 1)
    for mask in ("SigBlk", "SigIgn", "SigCgt"):
        assert not int(fields[mask], 16) & routed, mask


@pytest.mark.parametrize("kind", ["file without execute permission", "directory"])
def test_a_non_executable_file_exits_with_127_and_is_tried_again(machine, kind):
    if kind == "directory":
        (machine.tmp / "program").mkdir()
    else:
        machine.file("program", "#!/bin/sh\n", mode=0o644)
    machine.start({"vornnode": {"worker": {"path": "/tmp/program"}}})
    machine.wait_for_log(log_texts.ready_to_restart("worker"))
    [exited] = machine.log_lines(log_texts.exited("worker", 127))
    assert exited.head[:3] == ("INFO", False, "reapOneProcess")
    [started] = machine.log_lines(log_texts.started("worker"))
    assert started.head[:3] == ("INFO", True, "startInternal")
    [failed] = machine.log_lines("Can't execv /tmp/program")
    assert (failed.level, failed.event) == ("ERROR", True)
    [ended] = machine.log_lines(f"Child {failed.pid} exited")
    assert (ended.level, ended.event, ended.pid) == ("INFO", True, failed.pid)
    assert failed.pid != started.pid
    status = machine.status("worker")
    assert (status.state, status.pid) == (State.RESTARTING, 0)


def test_a_child_that_obeys_sigterm_is_sent_sigkill_as_a_zombie(machine):
    machine.start(worker(machine), strace=[QUICK, "-e", "trace=kill"])
    pid = machine.status("worker").pid
    assert machine.request(Cmd.STOP, "worker").result == Result.SUCCESS
    machine.wait_for_log(log_texts.stopped("worker"))
    assert ("WARN", True, "reap", log_texts.stopped("worker")) in machine.heads()
    assert ("INFO", False, "reapOneProcess",
            log_texts.killed("worker", 15)) in machine.heads()
    # The second one succeeded: the child had not been collected yet.
    assert calls(machine, "kill") == [
        f"kill({pid}, SIGTERM) = 0", f"kill({pid}, SIGKILL) = 0"]
    status = machine.status("worker")
    assert (status.state, status.pid) == (State.STOPPED, 0)


# Until its exec the child is a copy of the launcher. The many variables that it
# exports before widen this window.
def test_a_stop_right_after_the_start_never_needs_sigkill(machine):
    environment = {f"VARIABLE_{i}": "" for i in range(1500)}
    machine.start(worker(machine, environment=environment, autostart=False))
    rounds = 200
    for _ in range(rounds):
        with machine.connect() as start, machine.connect() as stop:
            start.sendall(pack_request(Cmd.START, "worker"))
            stop.sendall(pack_request(Cmd.STOP, "worker"))
            assert read_exactly(start, 24) == bytes(24)
            start.close()
            assert read_exactly(stop, 24) == bytes(24)
        assert "si_status: 9" not in machine.stderr()

    def exits():
        return [x.text for x in machine.log() if x.text.startswith("si_pid: ")]

    eventually(lambda: len(exits()) == rounds, "every child is collected")
    assert {text.split(", ", 1)[1] for text in exits()} == {
        "si_code: 2, si_status: 15"}


def test_a_restart_gives_a_new_pid_and_collects_the_old_child_silently(machine):
    machine.start(worker(machine))
    old = machine.status("worker").pid
    assert machine.request(Cmd.RESTART, "worker").result == Result.SUCCESS
    assert machine.log_lines("Node 'worker' success")[0].head[:3] == (
        "INFO", True, "restart")
    machine.wait_for_log(f"si_pid: {old}, si_code: 2, si_status: 15")
    eventually(lambda: machine.find_process(old) is None, "the zombie is collected")
    status = machine.status("worker")
    assert status.state == State.RUNNING and status.pid != old
    assert machine.is_alive(status.pid)
    assert not [x for x in machine.log() if x.func == "reap"]
    reaped = [x.text for x in machine.log() if x.func == "reapOneProcess"]
    assert f"si_pid: {old}, si_code: 2, si_status: 15" in reaped
    assert not [text for text in reaped if "worker" in text or "killed" in text]


def test_a_disabled_node_starts_again_only_after_an_enable(machine):
    machine.start(worker(machine))
    machine.request(Cmd.DISABLE, "worker")
    machine.wait_for_log(log_texts.disabled("worker"))
    assert machine.request(Cmd.START, "worker").result == Result.FAILED
    assert machine.status("worker").state == State.DISABLED

    assert machine.request(Cmd.ENABLE, "worker").result == Result.SUCCESS
    status = machine.status("worker")
    assert (status.state, status.pid) == (State.DISABLED, 0)
    assert machine.request(Cmd.START, "worker").result == Result.SUCCESS
    assert machine.status("worker").state == State.RUNNING
