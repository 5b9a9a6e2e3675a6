"""Signals to the launcher."""

import os
import platform
import pty
import re
import signal
import subprocess

import pytest
from support import log_texts
from support.control import Cmd, Result
from support.blocking import held, start_signalled_while_reading
from support.blocking import wait_until_blocked, wait_until_idle
from support.elf import is_position_independent
from support.waiting import eventually

FATAL = [signal.SIGQUIT, signal.SIGHUP, signal.SIGSEGV, signal.SIGBUS, signal.SIGABRT,
         signal.SIGILL, signal.SIGFPE, signal.SIGINT, signal.SIGTRAP]


def workers(machine, *names, **keys):
    """A launch file with nodes that run until they are stopped."""
    path = machine.script("worker", "exec sleep 1000")
    return {"vornnode": {name: {"path": path, **keys} for name in names}}


def handled_with(number):
    """The launcher's output for the signal that terminates it."""
    return f"vornlaunch handle with {signal.strsignal(number)}({int(number)})\n"


def send_and_wait_until_handled(machine, number):
    """Sends a signal to the blocked launcher and waits until its handler has run."""
    bit = 1 << (number - 1)
    machine.signal(number)

    def is_handled():
        lines = machine.process.read("status").decode().splitlines()
        fields = dict(line.split(":\t") for line in lines)
        return not int(fields["ShdPnd"], 16) & bit

    eventually(is_handled, f"signal {int(number)} is handled")


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
    # It exits without collecting the children.
    assert machine.heads()[-1] == ("INFO", False, "handleSignalFd", "ssi_signo: 15")


def test_sigterm_before_the_signals_are_routed_leaves_the_children(machine):
    workers(machine, "worker")
    start_signalled_while_reading(
        machine, "vornnode: {worker: {path: /tmp/bin/worker}}\n", signal.SIGTERM)
    assert machine.wait() == 0
    # The nodes are started, then the loop is not entered.
    assert machine.heads()[-1] == (
        "INFO", True, "startInternal", log_texts.started("worker"))
    assert machine.stdout() == handled_with(signal.SIGTERM)
    eventually(lambda: [p for p in machine.processes() if p.argv == ["sleep", "1000"]],
               "the child runs on")


# -- Fatal signals.


@pytest.mark.parametrize("number", FATAL, ids=lambda number: number.name)
def test_a_fatal_signal_interrupts_the_wait_and_ends_the_loop(machine, number):
    machine.start(workers(machine, "worker"))
    child = machine.status("worker").pid
    wait_until_idle(machine)
    machine.signal(number)
    assert machine.wait() == 0
    assert machine.stdout() == handled_with(number)
    assert machine.heads()[-1] == ("ERROR", False, "wait", log_texts.EVENT_WAIT_FAILED)
    assert machine.is_alive(child)


def test_a_log_at_its_size_limit_does_not_change_the_exit_by_sigint(machine):
    log = machine.tmp / "log"
    with open(log, "ab") as file:
        machine.start({}, stdout=file, stderr=file,
                      wrapper=["prlimit", "--fsize=2000"])
    while log.stat().st_size < 2000:
        machine.status("nobody")
    # Output from now on is written at the exit, and fails.
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


def test_a_fatal_signal_takes_effect_after_the_whole_batch(machine):
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
    assert machine.log_lines(log_texts.killed("worker", 9))
    assert len(machine.log_lines(log_texts.EVENT_WAIT_FAILED)) == 1


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
        # The silent client blocks all later events.
        wait_until_blocked(machine, "unix_stream")
        is_reaped = bool(machine.log_lines(log_texts.killed("worker", 9)))
        assert is_reaped == (first == "exit")
    machine.wait_for_log(log_texts.ready_to_restart("worker"))


def test_sigint_during_the_sleep_of_a_node_shortens_it(machine):
    machine.start(workers(machine, "worker", sleep=600_000), wait_until_up=False)
    machine.wait_for_log("worker sleep 600000ms")
    wait_until_blocked(machine, "nanosleep")
    machine.signal(signal.SIGINT)
    assert machine.wait() == 0
    assert machine.heads()[-1] == (
        "INFO", True, "startInternal", log_texts.started("worker"))
    eventually(lambda: [p for p in machine.processes() if p.argv == ["sleep", "1000"]],
               "the child runs on")


def test_sigpipe_neither_terminates_the_launcher_nor_prints(machine):
    terminal, end = pty.openpty()
    machine.start({}, stdout=end)
    wait_until_idle(machine)
    machine.signal(signal.SIGPIPE)
    machine.wait_for_log(log_texts.EVENT_WAIT_FAILED)
    assert machine.request(Cmd.STATUS, "nobody").result == Result.NOT_FOUND
    machine.signal(signal.SIGINT)
    assert machine.wait() == 0
    # The handler was not spent on SIGPIPE.
    line = handled_with(signal.SIGINT).replace("\n", "\r\n").encode()
    assert os.read(terminal, 4096) == line
    os.close(terminal)
    os.close(end)


# Code that reads the byte at the address 0, by architecture.
FAULTS = {
    "x86_64": b"\x31\xc0\x8a\x00",  # xor %eax,%eax; mov (%rax),%al
    "aarch64": b"\x00\x00\x80\xd2\x00\x00\x40\x39",  # mov x0,#0; ldrb w0,[x0]
}


def address_of_wait(process, program):
    """The address of Epoll::wait() in the launcher's process."""
    symbols = subprocess.run(["nm", program], check=True, stdout=subprocess.PIPE,
                             encoding="utf-8").stdout
    address = int(re.search(r"^(\w+) T \w+Epoll4waitEi$", symbols, re.M)[1], 16)
    if not is_position_independent(program):
        return address
    [base] = (int(line.split("-")[0], 16) for line in
              process.read("maps").decode().splitlines()
              if re.search(r" 00000000 .*/vornlaunch$", line))
    return base + address


@pytest.mark.native
def test_a_genuine_fault_spins_after_one_line(machine, program):
    terminal, end = pty.openpty()
    machine.start({}, stdout=end)
    wait_until_idle(machine)
    process = machine.process
    # Not in the C library, which the signal handler calls as well.
    fault = FAULTS[platform.machine()]
    memory = os.open(f"/proc/{process.host_pid}/mem", os.O_WRONLY)
    assert os.pwrite(memory, fault, address_of_wait(process, program)) == len(fault)
    os.close(memory)

    def processor_time():
        fields = process.read("stat").rpartition(b")")[2].split()
        return int(fields[11]) + int(fields[12])

    machine.signal(signal.SIGPIPE)  # ends the wait; the next one faults
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
