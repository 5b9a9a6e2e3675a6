"""Signals to the launcher, and the collection of its children."""

import os
import platform
import pty
import signal

import pytest
from support.control import Cmd, Result, State, pack_request, read_exactly
from support.control import unpack_response
from support.blocking import held, start_signalled_while_reading
from support.blocking import wait_until_blocked, wait_until_idle
from support.machine import Machine
from support.trace import QUICK, calls, injected
from support.waiting import eventually

FATAL = [signal.SIGQUIT, signal.SIGHUP, signal.SIGSEGV, signal.SIGBUS, signal.SIGABRT,
         signal.SIGILL, signal.SIGFPE, signal.SIGINT, signal.SIGTRAP]

# Runs the launcher with a child that no node claims.
WITH_STRAY = ["sh", "-c", 'sleep 1234 & exec "$@"', "sh"]


def workers(machine, *names, **keys):
    """A launch file with nodes that run until they are told to end."""
    path = machine.script("worker", "exec sleep 1000")
    return {"vornnode": {name: {"path": path, **keys} for name in names}}


def handled_with(number):
    """What the launcher prints for the signal that ends it."""
    return f"vornlaunch handle with {signal.strsignal(number)}({int(number)})\n"


def reaps(machine):
    """The functions and texts of the lines about exited children."""
    functions = ("handleSignalFd", "reapOneProcess", "reap")
    return [x.text for x in machine.log() if x.func in functions]


def send_and_wait_until_handled(machine, number):
    """Sends a signal to the blocked launcher and waits until it has taken it."""
    bit = 1 << (number - 1)
    machine.signal(number)

    def is_handled():
        lines = machine.process.read("status").decode().splitlines()
        fields = dict(line.split(":\t") for line in lines)
        return not int(fields["ShdPnd"], 16) & bit

    eventually(is_handled, f"signal {int(number)} is handled")


def stray(machine):
    """The child that no node claims."""
    return eventually(
        lambda: [p for p in machine.processes() if p.argv == ["sleep", "1234"]],
        "the stray child runs")[0]


# -- SIGTERM.


def test_sigterm_stops_every_node_in_order_and_exits_0(machine):
    path = machine.script(
        "worker",
        """trap 'echo "$__VORN_NODE_NAME__" >>/tmp/order; exit 0' TERM\n"""
        'touch "/tmp/ready-$__VORN_NODE_NAME__"\n'
        "while :; do sleep 0.1; done")
    names = ["first", "second", "third"]
    machine.start({"vornnode": {name: {"path": path} for name in names}})
    for name in names:
        eventually((machine.tmp / f"ready-{name}(vornlaunch)").exists, f"{name} is up")
    children = [machine.status(name).pid for name in names]
    machine.signal(signal.SIGTERM)
    assert machine.wait() == 0
    assert (machine.tmp / "order").read_text(encoding="ascii").split() == [
        f"{name}(vornlaunch)" for name in names]
    assert not [pid for pid in children if machine.is_alive(pid)]
    assert machine.stdout() == ""
    # It leaves without collecting the children.
    assert machine.heads()[-1] == ("INFO", False, "handleSignalFd", "ssi_signo: 15")


def test_sigterm_is_heeded_while_nodes_are_restarting(machine):
    path = machine.script("crasher", "exit 1")
    content = workers(machine, "last")
    content["vornnode"] = {"crasher": {"path": path}, **content["vornnode"]}
    machine.start(content)
    child = machine.status("last").pid
    machine.wait_for_log("Node 'crasher' ready to restarting")
    machine.signal(signal.SIGTERM)
    assert machine.wait() == 0
    assert machine.log()[-1].text == "Node 'crasher' is restarting, set stopped."
    assert not machine.is_alive(child)


def test_sigterm_during_start_up_waits_for_its_end(machine):
    machine.start(workers(machine, "worker", sleep=700), wait_until_up=False)
    machine.wait_for_log("worker sleep 700ms")
    machine.signal(signal.SIGTERM)
    assert machine.wait() == 0
    texts = [x.text for x in machine.log()]
    assert texts[-2:] == ["Node start 'worker' ok", "ssi_signo: 15"]
    assert not [p for p in machine.processes() if p.argv == ["sleep", "1000"]]


def test_sigterm_before_the_signals_are_routed_leaves_the_children(machine):
    workers(machine, "worker")
    start_signalled_while_reading(
        machine, "vornnode: {worker: {path: /tmp/bin/worker}}\n", signal.SIGTERM)
    assert machine.wait() == 0
    # The nodes are started, then the loop is not entered.
    assert machine.heads()[-1] == (
        "INFO", True, "startInternal", "Node start 'worker' ok")
    assert machine.stdout() == handled_with(signal.SIGTERM)
    eventually(lambda: [p for p in machine.processes() if p.argv == ["sleep", "1000"]],
               "the child runs on")


# -- Fatal signals.


def test_sigint_ends_with_status_0_and_leaves_children(machine):
    machine.start(workers(machine, "worker"))
    child = machine.status("worker").pid
    machine.signal(signal.SIGINT)
    assert machine.wait() == 0
    assert machine.stdout() == handled_with(signal.SIGINT)
    assert machine.is_alive(child)


@pytest.mark.parametrize("number", FATAL, ids=lambda number: number.name)
def test_a_fatal_signal_interrupts_the_wait_and_ends_the_loop(machine, number):
    machine.start(workers(machine, "worker"))
    child = machine.status("worker").pid
    wait_until_idle(machine)
    machine.signal(number)
    assert machine.wait() == 0
    assert machine.stdout() == handled_with(number)
    assert machine.heads()[-1] == ("ERROR", False, "wait", "epoll_wait failed.")
    assert machine.is_alive(child)


def test_a_log_at_its_size_limit_makes_no_other_end_of_sigint(machine):
    log = machine.tmp / "log"
    with open(log, "ab") as file:
        machine.start({}, stdout=file, stderr=file,
                      wrapper=["prlimit", "--fsize=2000"])
    while log.stat().st_size < 2000:
        machine.status("nobody")
    # What is printed now is written at the exit, and refused.
    machine.signal(signal.SIGINT)
    assert machine.wait() == 0
    assert log.stat().st_size == 2000


def test_only_the_first_fatal_signal_prints(machine):
    machine.start({})
    with held(machine):
        send_and_wait_until_handled(machine, signal.SIGHUP)
        send_and_wait_until_handled(machine, signal.SIGINT)
    assert machine.wait() == 0
    assert machine.stdout() == handled_with(signal.SIGHUP)


def test_a_fatal_signal_during_a_command_lets_it_finish(machine):
    machine.start(workers(machine, "worker"))
    with held(machine) as client:
        send_and_wait_until_handled(machine, signal.SIGINT)
        # The interrupted reception is taken up again.
        client.sendall(pack_request(Cmd.STATUS, "worker"))
        assert unpack_response(read_exactly(client, 24)).state == State.RUNNING
    assert machine.wait() == 0


def test_a_fatal_signal_is_heeded_after_the_whole_batch(machine):
    machine.start(workers(machine, "worker"))
    child = machine.find_process(machine.status("worker").pid)
    wait_until_idle(machine)
    machine.signal(signal.SIGSTOP)
    eventually(lambda: machine.process.state == "T", "the launcher is stopped")
    with machine.connect() as client:
        child.signal(signal.SIGKILL)
        eventually(lambda: machine.find_process(child.pid).state == "Z", "it is dead")
        machine.signal(signal.SIGCONT)
        wait_until_blocked(machine, "unix_stream")
        send_and_wait_until_handled(machine, signal.SIGINT)
        client.close()
        assert machine.wait() == 0
    # Both descriptors were ready at once, so both handlers have run. The failed
    # wait is the one that the stop had interrupted.
    assert "'worker' receive signal: 9." in reaps(machine)
    assert len(machine.log_lines("epoll_wait failed.")) == 1


@pytest.mark.parametrize("first", ["exit", "connection"])
def test_a_batch_is_served_in_the_order_of_its_events(machine, first):
    machine.start(workers(machine, "worker"))
    child = machine.find_process(machine.status("worker").pid)
    wait_until_idle(machine)
    machine.signal(signal.SIGSTOP)
    eventually(lambda: machine.process.state == "T", "the launcher is stopped")

    def end_child():
        child.signal(signal.SIGKILL)
        eventually(lambda: machine.find_process(child.pid).state == "Z", "it is dead")

    if first == "exit":
        end_child()
    with machine.connect():
        if first == "connection":
            end_child()
        machine.signal(signal.SIGCONT)
        # The silent client holds what comes after it.
        wait_until_blocked(machine, "unix_stream")
        is_reaped = "'worker' receive signal: 9." in reaps(machine)
        assert is_reaped == (first == "exit")
    machine.wait_for_log("Node 'worker' ready to restarting")


def test_sigint_during_the_sleep_of_a_node_cuts_it_short(machine):
    machine.start(workers(machine, "worker", sleep=600_000), wait_until_up=False)
    machine.wait_for_log("worker sleep 600000ms")
    wait_until_blocked(machine, "nanosleep")
    machine.signal(signal.SIGINT)
    assert machine.wait() == 0
    assert machine.heads()[-1] == (
        "INFO", True, "startInternal", "Node start 'worker' ok")
    eventually(lambda: [p for p in machine.processes() if p.argv == ["sleep", "1000"]],
               "the child runs on")


def test_sigpipe_neither_ends_the_launcher_nor_prints(machine):
    machine.start({})
    wait_until_idle(machine)
    machine.signal(signal.SIGPIPE)
    machine.wait_for_log("epoll_wait failed.")
    assert machine.request(Cmd.STATUS, "nobody").result == Result.NOT_FOUND
    machine.signal(signal.SIGINT)
    assert machine.wait() == 0
    # The handler was not spent on SIGPIPE.
    assert machine.stdout() == handled_with(signal.SIGINT)


# Code that reads the byte at the address 0, by the kind of machine.
FAULTS = {
    "x86_64": b"\x31\xc0\x8a\x00",  # xor %eax,%eax; mov (%rax),%al
    "aarch64": b"\x00\x00\x80\xd2\x00\x00\x40\x39",  # mov x0,#0; ldrb w0,[x0]
}


@pytest.mark.native
def test_a_genuine_fault_spins_after_one_line(machine):
    terminal, end = pty.openpty()
    machine.start({}, stdout=end)
    wait_until_idle(machine)
    process = machine.process
    # Where epoll_wait returns.
    fault = FAULTS[platform.machine()]
    resumes_at = int(process.read("syscall").split()[-1], 16)
    memory = os.open(f"/proc/{process.host_pid}/mem", os.O_WRONLY)
    assert os.pwrite(memory, fault, resumes_at) == len(fault)
    os.close(memory)

    def processor_time():
        fields = process.read("stat").rpartition(b")")[2].split()
        return int(fields[11]) + int(fields[12])

    machine.signal(signal.SIGPIPE)  # ends the wait
    line = handled_with(signal.SIGSEGV).replace("\n", "\r\n").encode()
    assert os.read(terminal, 4096) == line
    before = processor_time()
    eventually(lambda: processor_time() > before + 20, "the launcher spins")
    assert not machine.has_ended
    os.set_blocking(terminal, False)
    with pytest.raises(BlockingIOError):
        os.read(terminal, 4096)
    os.close(terminal)
    os.close(end)


# -- Collecting children.


def test_children_that_end_together_are_reaped_in_one_go(machine):
    names = ["one", "two", "three"]
    machine.start(workers(machine, *names),
                  strace=[QUICK, "-e", "trace=clock_nanosleep,waitid"])
    children = [machine.find_process(machine.status(name).pid) for name in names]
    with held(machine):
        for child in children:
            child.signal(signal.SIGKILL)
        eventually(lambda: all(machine.find_process(child.pid).state == "Z"
                               for child in children), "all are dead")
    machine.wait_for_log("ssi_signo: 17")
    for name in names:
        machine.wait_for_log(f"Node '{name}' ready to restarting")
    eventually(lambda: len(calls(machine, "waitid")) == 4, "the last look")
    assert len(machine.log_lines("ssi_signo: 17")) == 1
    # A pause of a millisecond after each, then nobody is left.
    done = [call.split("(")[0] for call in calls(machine)]
    assert done == ["waitid", "clock_nanosleep"] * 3 + ["waitid"]
    assert len([x for x in calls(machine) if "{tv_sec=0, tv_nsec=1000000}" in x]) == 3


@pytest.mark.native
def test_a_child_is_collected_after_its_node_has_been_told(machine):
    path = machine.script("crasher", "exit 7")
    machine.start({"vornnode": {"crasher": {"path": path}}}, wait_until_up=False,
                  strace=["-s", "200", "-e", "trace=waitid,wait4,write"])
    machine.wait_for_log("Node 'crasher' ready to restarting")
    eventually(lambda: len(calls(machine, "waitid")) == 2, "the last look")
    done = calls(machine)
    look = next(i for i, x in enumerate(done) if x.startswith("waitid("))
    pid = done[look].split("si_pid=")[1].split(",")[0]
    assert done[look].startswith("waitid(P_ALL, 0, {")
    assert ", WNOHANG|WEXITED|WNOWAIT, NULL) = 0" in done[look]
    for call, text in zip(done[look + 1:], [
            f"si_pid: {pid}, ", "exited with status: 7.", "ready to restarting"]):
        assert call.startswith("write(2, ") and text in call
    assert done[look + 4] == f"wait4({pid}, NULL, WNOHANG, NULL) = {pid}"


def test_with_no_child_left_the_last_look_is_a_failed_one(machine):
    machine.start({"vornnode": {"crasher": {"path": machine.script("crasher", "")}}})
    [line] = machine.wait_for_log("waitid failed")
    assert line.head[:3] == ("ERROR", False, "reapOneProcess")
    assert reaps(machine)[-2] == "Node 'crasher' ready to restarting"


def test_reaping_logs_the_exit_before_the_turn_of_the_node(machine):
    path = machine.script("crasher", "exit 7")
    content = workers(machine, "keeper")
    content["vornnode"]["crasher"] = {"path": path}
    machine.start(content)
    machine.wait_for_log("Node 'crasher' ready to restarting")
    lines = [x.head for x in machine.log()
             if x.func in ("handleSignalFd", "reapOneProcess", "reap")]
    assert lines[0] == ("INFO", False, "handleSignalFd", "ssi_signo: 17")
    assert lines[1][:3] == ("INFO", False, "reapOneProcess")
    assert lines[1][3].endswith(", si_code: 1, si_status: 7")
    assert lines[2:] == [
        ("INFO", False, "reapOneProcess", "'crasher' exited with status: 7."),
        ("INFO", True, "reap", "Node 'crasher' ready to restarting")]


def test_a_stray_child_killed_by_sigkill_is_mentioned_and_collected(machine):
    machine.start({}, wrapper=WITH_STRAY)
    child = stray(machine)
    child.signal(signal.SIGKILL)
    [line] = machine.wait_for_log("node is killed.")
    assert line.head[:3] == ("INFO", False, "reapOneProcess")
    eventually(lambda: machine.find_process(child.pid) is None, "it is collected")


def test_a_stray_child_that_ends_otherwise_is_collected_silently(machine):
    machine.start(workers(machine, "keeper"), wrapper=WITH_STRAY)
    child = stray(machine)
    child.signal(signal.SIGTERM)
    eventually(lambda: machine.find_process(child.pid) is None, "it is collected")
    assert reaps(machine) == [
        "ssi_signo: 17", f"si_pid: {child.pid}, si_code: 2, si_status: 15"]


def test_an_interrupted_waitid_is_repeated(machine):
    machine.start(workers(machine, "worker", "keeper"),
                  strace=injected("waitid:error=EINTR:when=1"))
    machine.find_process(machine.status("worker").pid).signal(signal.SIGKILL)
    machine.wait_for_log("Node 'worker' ready to restarting")
    assert machine.log_lines("waitid failed") == []
    assert len(machine.log_lines("ssi_signo: 17")) == 1
    assert "(INJECTED)" in calls(machine, "waitid")[0]


def test_after_a_failed_waitid_the_next_exit_makes_good(machine):
    machine.start(workers(machine, "one", "two"),
                  strace=injected("waitid:error=ECHILD:when=1"))
    children = [machine.find_process(machine.status(name).pid)
                for name in ("one", "two")]
    children[0].signal(signal.SIGKILL)
    [line] = machine.wait_for_log("waitid failed")
    assert line.head[:3] == ("ERROR", False, "reapOneProcess")
    assert machine.status("one").state == State.RUNNING
    children[1].signal(signal.SIGKILL)
    machine.wait_for_log("Node 'one' ready to restarting")
    machine.wait_for_log("Node 'two' ready to restarting")


def test_an_interrupted_collection_is_repeated(machine):
    machine.start({}, wrapper=WITH_STRAY,
                  strace=injected("wait4:error=EINTR:when=1"))
    child = stray(machine)
    child.signal(signal.SIGKILL)
    machine.wait_for_log("node is killed.")

    def collections():
        return [x for x in calls(machine, "wait4") if f"wait4({child.pid}," in x]

    eventually(lambda: len(collections()) == 2, "it is collected")
    # At once, not after another look at the same exit.
    assert len(machine.log_lines("node is killed.")) == 1
    first, second = collections()
    assert first.endswith("(INJECTED)") and second.endswith(f" = {child.pid}")


def test_a_failed_read_of_the_signal_descriptor_is_made_good(machine):
    path = machine.script("crasher", "exit 1")
    machine.start({"vornnode": {"crasher": {"path": path}}}, wait_until_up=False,
                  strace=["-P", "anon_inode:[signalfd]", "-e", "trace=read",
                          "-e", "inject=read:error=EIO:when=1"])
    machine.wait_for_log("Node 'crasher' ready to restarting")
    assert reaps(machine)[:2] == [
        "Failed to read siginfo from signal_fd.", "ssi_signo: 17"]
    [line] = machine.log_lines("Failed to read siginfo from signal_fd.")
    assert line.head[:3] == ("ERROR", False, "handleSignalFd")


def test_without_a_signal_descriptor_the_launcher_runs_without_supervision(machine):
    machine.start(workers(machine, "worker"),
                  strace=injected("signalfd4:error=EMFILE"))
    assert ("ERROR", False, "installSignalHandler",
            "Failed to create signalfd") in machine.heads()
    child = machine.find_process(machine.status("worker").pid)
    child.signal(signal.SIGKILL)
    eventually(lambda: machine.find_process(child.pid).state == "Z", "it is dead")
    assert machine.status("worker").state == State.RUNNING
    assert reaps(machine) == []


@pytest.fixture(name="blocking_call")
def fixture_blocking_call(tmp_path_factory, program, namespaces):
    # pylint: disable=unused-argument
    """Which of the launcher's rt_sigprocmask calls blocks the routed signals."""
    probe = Machine(tmp_path_factory.mktemp("probe"), program)
    try:
        probe.start({}, strace=[QUICK, "-e", "trace=rt_sigprocmask"])
        found = [call.startswith("rt_sigprocmask(SIG_BLOCK, [TERM CHLD], ")
                 for call in calls(probe)]
        return found.index(True) + 1
    finally:
        probe.shut_down()


@pytest.mark.native
def test_without_blocked_signals_sigterm_ends_the_launcher_alone(
        machine, blocking_call):
    machine.start(workers(machine, "worker"), strace=injected(
        f"rt_sigprocmask:error=EINVAL:when={blocking_call}"))
    assert ("ERROR", False, "installSignalHandler",
            "Failed to block signals") in machine.heads()
    child = machine.status("worker").pid
    machine.signal(signal.SIGTERM)
    assert machine.wait() == 0
    assert machine.stdout() == handled_with(signal.SIGTERM)
    assert machine.is_alive(child)
