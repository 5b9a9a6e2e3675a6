"""The life of nodes."""

import datetime
import signal

import pytest
from support.control import Cmd, Result, State, pack_request, read_exactly
from support.control import unpack_response
from support.blocking import held, wait_until_idle
from support.trace import QUICK, calls, injected
from support.waiting import eventually


def nodes(**descriptions):
    """A launch file of these nodes."""
    return {"vornnode": descriptions}


WORKER_ARGV = ["sleep", "1000"]


def worker(machine, **keys):
    """A launch file with a node that runs until it is told to end."""
    path = machine.script("worker", "exec sleep 1000")
    return nodes(worker={"path": path, **keys})


def starts(machine, name):
    """The log lines of the node's starts."""
    return machine.log_lines(f"Node start '{name}' ok")


def seconds_between(earlier, later):
    """From one log line to another."""
    moments = [datetime.datetime.fromisoformat(line.time[:-1])
               for line in (earlier, later)]
    return (moments[1] - moments[0]).total_seconds()


def delay(nanoseconds):
    """How the trace shows a sleep of this length."""
    return f"{{tv_sec=0, tv_nsec={nanoseconds}}}"


PAUSE_200_MS = delay(200_000_000)


# -- Starting.


def test_a_started_node_is_running_with_its_own_pid(machine):
    machine.script("worker", "exec sleep 1000")
    machine.start({"vornnode": {"worker": {"path": "/tmp/bin/worker"}}})
    status = machine.status("worker")
    assert status.result == Result.SUCCESS
    assert status.state == State.RUNNING
    assert machine.child("worker", WORKER_ARGV).pid == status.pid


def test_a_child_gets_its_path_and_words_as_arguments(machine):
    machine.start(nodes(worker={"path": "/bin/sleep", "argv": "900  100"}))
    assert machine.child("worker", ["/bin/sleep", "900", "100"])


def test_a_child_gets_no_descriptor_but_the_standard_ones(machine):
    machine.start(worker(machine))
    process = machine.child("worker", WORKER_ARGV)
    assert sorted(process.descriptors) == [0, 1, 2]


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGCHLD])
def test_a_child_gets_the_routed_signals_unblocked_and_default(machine, number):
    machine.start(worker(machine))
    process = machine.child("worker", WORKER_ARGV)
    fields = dict(
        line.split(":\t") for line in process.read("status").decode().splitlines()
    )
    bit = 1 << (number - 1)
    for mask in ("SigBlk", "SigIgn", "SigCgt"):
        assert not int(fields[mask], 16) & bit, mask


def test_a_child_gets_the_file_creation_mask_077(machine):
    machine.start(worker(machine))
    process = machine.child("worker", WORKER_ARGV)
    assert b"\nUmask:\t0077\n" in process.read("status")


def test_a_child_gets_the_global_and_its_own_environment(machine):
    content = worker(machine, environment={"BOTH": "node", "OWN": "1"})
    content["configure"] = {"environment": {"BOTH": "global", "SHARED": "2"}}
    machine.start(content)
    environment = machine.child("worker", WORKER_ARGV).environment
    assert environment["__VORN_NODE_NAME__"] == "worker(vornlaunch)"
    assert environment["BOTH"] == "node"
    assert environment["OWN"] == "1"
    assert environment["SHARED"] == "2"


def test_starting_a_running_node_succeeds_without_a_fork(machine):
    machine.start(worker(machine))
    pid = machine.status("worker").pid
    assert machine.request(Cmd.START, "worker").result == Result.SUCCESS
    assert machine.status("worker").pid == pid
    assert machine.heads()[-3][3] == "control cmd: 0"
    assert machine.heads()[-2] == (
        "INFO", True, "startInternal", "Node 'worker' already running")
    assert len(starts(machine, "worker")) == 1


def test_autostart_false_skips_the_start_up_pass_only(machine):
    machine.start(worker(machine, autostart=False))
    assert machine.status("worker").state == State.STOPPED
    assert machine.request(Cmd.START, "worker").result == Result.SUCCESS
    assert machine.status("worker").state == State.RUNNING
    lines = machine.log_lines("Node 'worker' is not autostart")
    assert [line.head[:3] for line in lines] == [("WARN", True, "startInternal")]


@pytest.mark.parametrize("cmd", [Cmd.START, Cmd.RESTART], ids=lambda c: c.name)
def test_autostart_false_refuses_a_first_attempt_made_by_request(machine, cmd):
    machine.start(worker(machine, autostart=False, disabled=True))
    assert machine.log_lines("Node 'worker' is not autostart") == []
    machine.request(Cmd.ENABLE, "worker")
    assert machine.request(cmd, "worker").result == Result.FAILED
    assert len(machine.log_lines("Node 'worker' is not autostart")) == 1
    assert machine.status("worker").state == State.STOPPED
    assert machine.request(cmd, "worker").result == Result.SUCCESS
    assert machine.status("worker").state == State.RUNNING


def test_a_disabled_node_is_stopped_and_silent_until_a_start_is_tried(machine):
    machine.start(worker(machine, disabled=True))
    assert machine.status("worker").state == State.STOPPED
    assert [line.text for line in machine.log() if "worker" in line.text] == [
        "name: worker"]
    assert machine.request(Cmd.START, "worker").result == Result.FAILED
    assert machine.status("worker").state == State.DISABLED
    assert ("WARN", True, "startInternal", "Node 'worker' disabled") in machine.heads()


def test_a_missing_executable_disables_the_node_until_it_is_enabled(machine):
    machine.start(nodes(worker={"path": "/tmp/bin/late"}))
    assert ("ERROR", True, "startInternal",
            "Can't find file: /tmp/bin/late") in machine.heads()
    assert machine.status("worker").state == State.DISABLED

    machine.script("late", "exec sleep 1000")
    assert machine.request(Cmd.START, "worker").result == Result.FAILED
    assert len(machine.log_lines("Node 'worker' disabled")) == 1
    assert len(machine.log_lines("Can't find file: /tmp/bin/late")) == 1

    assert machine.request(Cmd.ENABLE, "worker").result == Result.SUCCESS
    assert machine.status("worker").state == State.DISABLED
    assert machine.request(Cmd.START, "worker").result == Result.SUCCESS
    assert machine.status("worker").state == State.RUNNING


@pytest.mark.parametrize("kind", ["file without execute permission", "directory"])
def test_what_cannot_be_executed_exits_with_127_and_is_tried_again(machine, kind):
    if kind == "directory":
        (machine.tmp / "program").mkdir()
    else:
        machine.file("program", "#!/bin/sh\n", mode=0o644)
    machine.start(nodes(worker={"path": "/tmp/program"}))
    machine.wait_for_log("Node 'worker' ready to restarting")
    [exited] = machine.log_lines("'worker' exited with status: 127.")
    assert exited.head[:3] == ("INFO", False, "reapOneProcess")
    [started] = starts(machine, "worker")
    assert started.head[:3] == ("INFO", True, "startInternal")
    [failed] = machine.log_lines("Can't execv /tmp/program")
    assert (failed.level, failed.event) == ("ERROR", True)
    [ended] = machine.log_lines(f"Child {failed.pid} exited")
    assert (ended.level, ended.event, ended.pid) == ("INFO", True, failed.pid)
    assert failed.pid != started.pid
    status = machine.status("worker")
    assert (status.state, status.pid) == (State.RESTARTING, 0)


# 4294968 ms in microseconds are 704 more than 32 bits hold.
@pytest.mark.parametrize("sleep,nanoseconds", [(500, 500_000_000),
                                               (4294968, 704_000)])
def test_sleep_is_taken_after_the_existence_check_and_before_the_fork(
        machine, sleep, nanoseconds):
    content = worker(machine, sleep=sleep)
    machine.start(content, strace=[QUICK, "-e", "trace=%%stat,clock_nanosleep,clone"])
    [line] = machine.log_lines(f"worker sleep {sleep}ms")
    assert line.head[:3] == ("INFO", False, "startInternal")
    trace = calls(machine)
    [nap] = [i for i, call in enumerate(trace) if delay(nanoseconds) in call]
    assert '"/tmp/bin/worker"' in trace[nap - 1] and trace[nap - 1].endswith(" = 0")
    assert trace[nap + 1].startswith("clone(")


def test_sleep_blocks_the_whole_launcher(machine):
    machine.start(worker(machine, sleep=700, autostart=False))
    with machine.connect() as client:
        client.sendall(pack_request(Cmd.START, "worker"))
        machine.wait_for_log("worker sleep 700ms")
        # Asked during the sleep, answered after the start.
        assert machine.status("worker").state == State.RUNNING


def test_a_failed_fork_leaves_the_node_stopped_and_startable(machine):
    machine.start(worker(machine),
                  strace=injected("clone:error=EAGAIN:when=1"))
    assert ("ERROR", True, "startInternal",
            "name: worker fork failed.") in machine.heads()
    status = machine.status("worker")
    assert (status.state, status.pid, status.start_seconds) == (State.STOPPED, 0, 0)
    assert machine.request(Cmd.START, "worker").result == Result.SUCCESS
    assert machine.status("worker").state == State.RUNNING


def test_of_two_nodes_with_one_name_commands_reach_the_first_only(machine):
    path = machine.script("worker", "exec sleep $1")
    machine.start(
        "vornnode:\n"
        f"  twin: {{path: {path}, argv: 1001}}\n"
        f"  twin: {{path: {path}, argv: 1002}}\n"
    )
    assert len(starts(machine, "twin")) == 2
    second = eventually(
        lambda: [p for p in machine.processes() if p.argv == ["sleep", "1002"]],
        "the second one runs")[0]
    first = machine.status("twin")
    assert first.pid != second.pid
    assert machine.request(Cmd.STOP, "twin").result == Result.SUCCESS
    machine.wait_for_log("Node 'twin' stoped")
    assert not machine.is_alive(first.pid)
    assert machine.is_alive(second.pid)
    assert machine.request(Cmd.DISABLE, "twin").result == Result.SUCCESS
    assert machine.status("twin").state == State.DISABLED
    assert machine.is_alive(second.pid)


# -- Exits that nobody asked for.


def test_a_crashed_node_is_back_not_before_5_seconds_after_its_start(machine):
    machine.start(nodes(crasher={"path": machine.script("crasher", "exit 3")}))
    machine.wait_for_log("Node 'crasher' ready to restarting")
    assert ("INFO", False, "reapOneProcess",
            "'crasher' exited with status: 3.") in machine.heads()
    assert ("INFO", True, "reap",
            "Node 'crasher' ready to restarting") in machine.heads()
    status = machine.status("crasher")
    assert (status.state, status.pid) == (State.RESTARTING, 0)

    # The last line before the start, so that the interval is not cut short.
    [before] = [x for x in machine.log() if x.text.startswith("Created socket")]
    second = machine.wait_for_log("Node start 'crasher' ok", 2)[1]
    assert seconds_between(before, second) >= 5
    assert machine.status("crasher").start_seconds >= status.start_seconds + 5


def test_the_restart_interval_counts_from_the_start_not_from_the_exit(machine):
    path = machine.script("crasher", "sleep 3")
    machine.start(nodes(crasher={"path": path}),
                  strace=[QUICK, "-e", "trace=epoll_wait"])
    machine.wait_for_log("Node start 'crasher' ok", 2)
    polls = [x for x in calls(machine) if x.endswith(", 1000) = 0")]
    # Each takes a second or more; five would fit between the exit and five
    # seconds after it. A busy machine makes them fewer.
    assert len(polls) <= 3


def test_a_node_that_ran_longer_than_5_seconds_is_restarted_at_once(machine):
    path = machine.script("crasher", "sleep 6")
    machine.start(nodes(crasher={"path": path}),
                  strace=[QUICK, "-e", "trace=epoll_wait"])
    machine.wait_for_log("Node start 'crasher' ok", 2)
    assert not [x for x in calls(machine) if ", 1000)" in x]


def test_a_node_killed_by_a_signal_is_restarted(machine):
    machine.start(worker(machine))
    pid = machine.status("worker").pid
    machine.find_process(pid).signal(signal.SIGKILL)
    machine.wait_for_log("Node 'worker' ready to restarting")
    assert ("INFO", False, "reapOneProcess",
            f"si_pid: {pid}, si_code: 2, si_status: 9") in machine.heads()
    assert ("INFO", False, "reapOneProcess",
            "'worker' receive signal: 9.") in machine.heads()
    machine.wait_for_log("Node start 'worker' ok", 2)
    status = machine.status("worker")
    assert status.state == State.RUNNING and status.pid != pid


def test_a_oneshot_ends_disabled_with_both_lines_and_is_not_restarted(machine):
    path = machine.script("task", "exit 0")
    machine.start(nodes(task={"path": path, "oneshot": True}),
                  strace=[QUICK, "-e", "trace=epoll_wait"])
    machine.wait_for_log("Node 'task' disabled!")
    lines = [x.head for x in machine.log() if x.func == "reap"]
    assert lines == [("WARN", True, "reap", "Node 'task' disabled - oneshot!"),
                     ("WARN", True, "reap", "Node 'task' disabled!")]
    wait_until_idle(machine)
    status = machine.status("task")
    assert (status.state, status.pid) == (State.DISABLED, 0)
    assert machine.request(Cmd.START, "task").result == Result.FAILED
    assert len(starts(machine, "task")) == 1


def test_without_a_pending_restart_the_launcher_waits_without_limit(machine):
    machine.start({}, strace=[QUICK, "-e", "trace=epoll_wait"])
    wait_until_idle(machine)
    assert not [x for x in calls(machine) if ", 1000)" in x]


# -- Stopping.


def test_a_polite_child_is_stopped_and_sent_sigkill_while_a_zombie(machine):
    machine.start(worker(machine), strace=[QUICK, "-e", "trace=kill"])
    pid = machine.status("worker").pid
    assert machine.request(Cmd.STOP, "worker").result == Result.SUCCESS
    machine.wait_for_log("Node 'worker' stoped")
    assert ("WARN", True, "reap", "Node 'worker' stoped") in machine.heads()
    assert ("INFO", False, "reapOneProcess",
            "'worker' receive signal: 15.") in machine.heads()
    # 0 for the second one: the child had not been collected yet.
    assert calls(machine, "kill") == [
        f"kill({pid}, SIGTERM) = 0", f"kill({pid}, SIGKILL) = 0"]
    status = machine.status("worker")
    assert (status.state, status.pid) == (State.STOPPED, 0)


def test_a_stopped_node_is_not_restarted(machine):
    machine.start(worker(machine), strace=[QUICK, "-e", "trace=epoll_wait"])
    machine.request(Cmd.STOP, "worker")
    machine.wait_for_log("Node 'worker' stoped")
    wait_until_idle(machine)
    assert machine.status("worker").state == State.STOPPED
    assert not [x for x in calls(machine) if ", 1000)" in x]


def test_a_child_that_ignores_sigterm_is_killed_after_50_passes(machine):
    path = machine.script("stubborn", "trap '' TERM; touch /tmp/ready; sleep 1000")
    machine.start(nodes(worker={"path": path}),
                  strace=[QUICK, "-e", "trace=kill,clock_nanosleep"])
    eventually((machine.tmp / "ready").exists, "the child ignores SIGTERM")
    pid = machine.status("worker").pid
    assert machine.request(Cmd.STOP, "worker").result == Result.SUCCESS
    machine.wait_for_log("'worker' receive signal: 9.")
    machine.wait_for_log("Node 'worker' stoped")
    trace = calls(machine)
    term = trace.index(f"kill({pid}, SIGTERM) = 0")
    kill = trace.index(f"kill({pid}, SIGKILL) = 0")
    naps = [x for x in trace[term:kill] if PAUSE_200_MS in x]
    assert len(naps) == 50
    [asked] = machine.log_lines("control cmd: 1")
    [reaped] = machine.log_lines("Node 'worker' stoped")
    assert seconds_between(asked, reaped) >= 10


def test_between_stop_and_reap_the_status_shows_the_old_pid_and_state_0(machine):
    machine.start(worker(machine))
    pid = machine.status("worker").pid
    # Both wait in the backlog, so the second is served right after the first.
    with held(machine):
        stop, status = machine.connect(), machine.connect()
        stop.sendall(pack_request(Cmd.STOP, "worker"))
        status.sendall(pack_request(Cmd.STATUS, "worker"))
    with stop, status:
        reply = unpack_response(read_exactly(status, 24))
    assert (reply.state, reply.pid) == (State.STOPPED, pid)
    machine.wait_for_log("Node 'worker' stoped")
    assert machine.status("worker").pid == 0


def test_a_failed_kill_leaves_the_node_running_and_the_stop_failed(machine):
    machine.start(worker(machine), strace=injected("kill:error=EPERM"))
    before = machine.status("worker")
    assert machine.request(Cmd.STOP, "worker").result == Result.FAILED
    assert machine.status("worker") == before
    assert ("ERROR", True, "stopInternal", "kill service 'worker' failed, error: "
            "Operation not permitted") in machine.heads()


def test_a_failed_stop_still_keeps_the_exited_node_down(machine):
    machine.start(worker(machine), strace=injected("kill:error=EPERM"))
    assert machine.request(Cmd.STOP, "worker").result == Result.FAILED
    machine.find_process(machine.status("worker").pid).signal(signal.SIGKILL)
    machine.wait_for_log("Node 'worker' stoped")
    assert machine.status("worker").state == State.STOPPED


def test_a_failed_stop_makes_a_restart_fail_without_a_start(machine):
    machine.start(worker(machine), strace=injected("kill:error=EPERM"))
    before = machine.status("worker")
    assert machine.request(Cmd.RESTART, "worker").result == Result.FAILED
    assert machine.log_lines("Node 'worker' failed")[0].head[:3] == (
        "INFO", True, "restart")
    assert machine.status("worker") == before
    assert len(starts(machine, "worker")) == 1


def test_a_failed_stop_makes_a_disable_fail_but_disables(machine):
    machine.start(worker(machine), strace=injected("kill:error=EPERM"))
    pid = machine.status("worker").pid
    assert machine.request(Cmd.DISABLE, "worker").result == Result.FAILED
    status = machine.status("worker")
    assert (status.state, status.pid) == (State.DISABLED, pid)
    assert machine.is_alive(pid)


@pytest.mark.native  # the emulator makes no process by clone3()
def test_a_check_that_cannot_be_started_is_skipped_for_its_pass(machine):
    machine.start(worker(machine),
                  strace=injected("clone3:error=EAGAIN:when=1..2",
                                  also="kill,clock_nanosleep"))
    pid = machine.status("worker").pid
    assert machine.request(Cmd.STOP, "worker").result == Result.SUCCESS
    machine.wait_for_log("'worker' receive signal: 15.")
    trace = calls(machine)
    term = trace.index(f"kill({pid}, SIGTERM) = 0")
    kill = trace.index(f"kill({pid}, SIGKILL) = 0")
    stop = trace[term:kill]
    assert len([x for x in stop if "(INJECTED)" in x]) == 2
    # The second pass ran its check, found the zombie, and no third was needed.
    assert len([x for x in stop if x.startswith("clock_nanosleep")]) == 1


def test_stopping_a_stopped_node_succeeds_and_sends_no_signal(machine):
    machine.start(worker(machine, autostart=False),
                  strace=[QUICK, "-e", "trace=kill"])
    before = machine.status("worker")
    assert machine.request(Cmd.STOP, "worker").result == Result.SUCCESS
    assert machine.status("worker") == before
    assert calls(machine, "kill") == []


def test_stopping_a_disabled_node_succeeds_and_leaves_it_disabled(machine):
    machine.start(worker(machine), strace=[QUICK, "-e", "trace=kill"])
    machine.request(Cmd.DISABLE, "worker")
    machine.wait_for_log("Node 'worker' disabled!")
    count = len(calls(machine, "kill"))
    assert machine.request(Cmd.STOP, "worker").result == Result.SUCCESS
    assert machine.status("worker").state == State.DISABLED
    assert len(calls(machine, "kill")) == count


def test_stopping_a_restarting_node_calls_the_restart_off(machine):
    path = machine.script("crasher", "exit 1")
    machine.start(nodes(crasher={"path": path}),
                  strace=[QUICK, "-e", "trace=epoll_wait,kill"])
    machine.wait_for_log("Node 'crasher' ready to restarting")
    assert machine.request(Cmd.STOP, "crasher").result == Result.SUCCESS
    assert ("INFO", True, "stopInternal",
            "Node 'crasher' is restarting, set stopped.") in machine.heads()
    assert machine.status("crasher").state == State.STOPPED
    wait_until_idle(machine)
    assert calls(machine, "kill") == []
    assert len(starts(machine, "crasher")) == 1


# The widened window: until its exec a child is the launcher's copy, and what it
# exports before takes the longer the more there is.
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


# -- Restarting, disabling, enabling.


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


def test_restarting_a_stopped_node_starts_it_after_200_ms(machine):
    machine.start(worker(machine, autostart=False),
                  strace=[QUICK, "-e", "trace=clock_nanosleep,clone"])
    assert machine.request(Cmd.RESTART, "worker").result == Result.SUCCESS
    assert machine.status("worker").state == State.RUNNING
    assert len(machine.log_lines("Node 'worker' success")) == 1
    pause, fork = calls(machine)
    assert PAUSE_200_MS in pause
    assert fork.startswith("clone(")


def test_restarting_a_disabled_node_fails(machine):
    machine.start(worker(machine))
    machine.request(Cmd.DISABLE, "worker")
    assert machine.request(Cmd.RESTART, "worker").result == Result.FAILED
    assert machine.status("worker").state == State.DISABLED
    texts = [x.text for x in machine.log() if x.func in ("startInternal", "restart")]
    assert texts[-2:] == ["Node 'worker' disabled", "Node 'worker' failed"]


def test_disabling_a_running_node_ends_its_child(machine):
    machine.start(worker(machine))
    pid = machine.status("worker").pid
    assert machine.request(Cmd.DISABLE, "worker").result == Result.SUCCESS
    machine.wait_for_log("Node 'worker' disabled!")
    assert not machine.is_alive(pid)
    status = machine.status("worker")
    assert (status.state, status.pid) == (State.DISABLED, 0)


def test_disabling_a_stopped_node_succeeds_and_marks_it(machine):
    machine.start(worker(machine, autostart=False))
    assert machine.request(Cmd.DISABLE, "worker").result == Result.SUCCESS
    assert machine.status("worker").state == State.DISABLED


def test_disabling_a_restarting_node_calls_the_restart_off(machine):
    path = machine.script("crasher", "exit 1")
    machine.start(nodes(crasher={"path": path}),
                  strace=[QUICK, "-e", "trace=epoll_wait"])
    machine.wait_for_log("Node 'crasher' ready to restarting")
    assert machine.request(Cmd.DISABLE, "crasher").result == Result.SUCCESS
    assert machine.status("crasher").state == State.DISABLED
    wait_until_idle(machine)
    assert len(starts(machine, "crasher")) == 1


def test_a_disabled_node_starts_again_only_after_an_enable(machine):
    machine.start(worker(machine))
    machine.request(Cmd.DISABLE, "worker")
    machine.wait_for_log("Node 'worker' disabled!")
    assert machine.request(Cmd.START, "worker").result == Result.FAILED
    assert machine.status("worker").state == State.DISABLED

    assert machine.request(Cmd.ENABLE, "worker").result == Result.SUCCESS
    status = machine.status("worker")
    assert (status.state, status.pid) == (State.DISABLED, 0)
    assert machine.request(Cmd.START, "worker").result == Result.SUCCESS
    assert machine.status("worker").state == State.RUNNING
