"""Storms: thousands of deaths and signals at the worst moments, unusable outputs and
exhausted limits. In every case, each child is collected, no zombie remains and the next
request is answered."""

import collections
import contextlib
import ctypes
import fcntl
import os

import re
import select
import signal
import threading
import time

import pytest
from support import log_texts
from support.control import Cmd, Result, State, pack_request, read_exactly
from support.control import unpack_response
from support.process_tree import ProcessTree, children_of, has_ended, is_stopped
from support.process_tree import status_field, waits_in
from support.blocking import held
from support.log import parse_log
from support.waiting import eventually

SLEEPER = {"path": "/bin/sleep", "argv": "100000"}
SLEEPER_ARGV = ["/bin/sleep", "100000"]
# A node that records a SIGTERM, and exits when it is permitted to.
RELUCTANT = ("trap 'touch /tmp/asked; while [ ! -e /tmp/go ]; do sleep 0.05; done;"
             " touch /tmp/ended; exit 0' TERM\ntouch /tmp/ready\nsleep 100000 & wait")


def sleepers(*names):
    return {"vornnode": {name: SLEEPER for name in names}}


def figure(text):
    """Prints a result, which the long form shows."""
    print("\n   " + text)


class LogReader:
    """The launcher's log since `restart()`, or since its start."""

    def __init__(self, machine):
        self.path = machine.tmp / "stderr"
        self.begin = 0

    def restart(self):
        self.begin = self.path.stat().st_size

    def raw(self):
        with open(self.path, "rb") as file:
            file.seek(self.begin)
            return file.read()

    def lines(self):
        return parse_log(self.raw().decode(errors="replace"))

    def texts(self):
        """The number of occurrences of each text."""
        return collections.Counter(line.text for line in self.lines())

    def wait_for_starts(self, count):
        eventually(lambda: self.raw().count(b"' ok\n") >= count, f"{count} starts")

    def collected(self):
        """The number of times that each pid was collected."""
        pids = (re.match(r"si_pid: (\d+),", line.text) for line in self.lines())
        return collections.Counter(int(match[1]) for match in pids if match)


def printed_signals(machine):
    """The lines about fatal signals on standard output."""
    return re.findall(r"vornlaunch handle with .*\(\d+\)\n", machine.stdout())


def handled_with(number):
    return f"vornlaunch handle with {signal.strsignal(number)}({int(number)})\n"


def all_end(host_pids):
    eventually(lambda: all(has_ended(pid) for pid in host_pids), "the children end")


def supervision_goes_on(machine, tree, name):
    """Checks that a death is followed by a restart, and that commands take effect.
    Needs no log."""
    first = machine.status(name).pid
    os.kill(tree.by_machine_pid()[first], signal.SIGKILL)
    eventually(lambda: machine.status(name).pid not in (0, first), f"{name} is back")
    commands_are_obeyed(machine, tree, name)


def commands_are_obeyed(machine, tree, name):
    """Checks that commands take effect."""
    assert machine.request(Cmd.RESTART, name).result == Result.SUCCESS
    assert machine.request(Cmd.STOP, name).result == Result.SUCCESS
    assert machine.status(name).state == State.STOPPED
    tree.wait_until_no_zombie_is_left()
    assert machine.status(name).pid not in tree.by_machine_pid()
    assert machine.request(Cmd.START, name).result == Result.SUCCESS
    assert machine.status(name).pid in tree.by_machine_pid()


def ends_on_sigterm(machine, tree):
    """Checks that SIGTERM stops all children and that the launcher exits with 0."""
    children = tree.children()
    tree.signal(signal.SIGTERM)
    assert machine.wait() == 0
    all_end(children)


# -- Many deaths.


def open_gate(machine):
    """Lets every node that waits at the gate continue and exit."""
    os.close(os.open(machine.tmp / "gate", os.O_WRONLY))


def kill_all(tree):
    for child in tree.children():
        os.kill(child, signal.SIGKILL)


@pytest.mark.parametrize("how", ["exit", "killed", "killed-while-held"])
def test_children_that_die_together_are_each_restarted_once(machine, is_long, how):
    names = [f"node-{i}" for i in range(1000 if is_long else 200)]
    os.mkfifo(machine.tmp / "gate")
    node = {"path": "/bin/cat", "argv": "/tmp/gate"}
    machine.start({"vornnode": {name: node for name in names}})
    tree, log = ProcessTree(machine), LogReader(machine)
    descriptors, memory = tree.descriptors(), None
    for turn in range(3 if is_long else 1):
        eventually(lambda: all(waits_in(child, "wait_for_partner")
                               for child in tree.children()), "all are at the gate")
        before = {name: machine.status(name).pid for name in names}
        log.restart()
        if how == "exit":
            open_gate(machine)
        elif how == "killed":
            kill_all(tree)
        else:
            tree.hold()
            kill_all(tree)
            eventually(lambda: len(tree.zombies()) == len(names), "all are dead")
            tree.resume()
        log.wait_for_starts(len(names))

        texts = log.texts()
        end = "exited with status: 0." if how == "exit" else "receive signal: 9."
        for name in names:
            assert texts[f"'{name}' {end}"] == 1
            assert texts[log_texts.ready_to_restart(name)] == 1
            assert texts[log_texts.started(name)] == 1
        assert log.collected() == collections.Counter(before.values())
        tree.wait_until_no_zombie_is_left()
        after = [machine.status(name) for name in names]
        assert {status.state for status in after} == {State.RUNNING}
        assert {status.pid for status in after} == tree.by_machine_pid().keys()
        eventually(lambda: tree.descriptors() == descriptors, "no descriptor more")
        if turn == 0:
            memory = tree.memory()
        elif not machine.sanitized:
            assert tree.memory() <= memory + 1024
        looks = [line for line in log.lines() if line.func == "reapOneProcess"]
        took = looks[-1].seconds - looks[0].seconds
        figure(f"{len(names)} children, {how}: collected in {took:.2f} s, "
               f"{tree.memory()} KiB, {tree.descriptors()} descriptors")


# Nodes that fork without end, with a lower priority than the launcher and the test.
BOMBS = {
    "exiting": "while :; do (:) & (:) & (:) & (:) & wait; done",
    "orphaning": "while :; do ( (:) & (:) & (:) & (:) & ); done",
}
QUITTERS = {
    "quitter": "exit 1",
    "suicide": "kill -9 $$",
    "parent": "(sleep 0.2; exit 3) & (sleep 0.1) & exit 0",
}


@pytest.mark.plain  # the fault sweep tests refused forks under the sanitizers
def test_fork_bombs_lose_no_exit_no_restart_and_no_reply(machine, is_long):
    seconds = 600 if is_long else 12
    paths = {name: machine.script(name, "exec nice -n 10 sh -c '" + body + "'")
             for name, body in BOMBS.items()}
    quitters = []
    for name, body in QUITTERS.items():
        path = machine.script(name, body)
        for i in range(5):
            quitters.append(f"{name}-{i}")
            paths[f"{name}-{i}"] = path
    nodes = {name: {"path": path} for name, path in paths.items()}
    machine.start({"vornnode": {"steady": SLEEPER, "pawn": SLEEPER, **nodes}})
    tree, log = ProcessTree(machine), LogReader(machine)
    descriptors, memory = tree.descriptors(), tree.memory()
    steady = machine.status("steady")

    answers, slowest = 0, 0.0
    names = ["steady", *nodes]
    deadline = time.monotonic() + seconds
    next_command = time.monotonic() + 3
    while time.monotonic() < deadline:
        asked = time.monotonic()
        status = machine.status(names[answers % len(names)])
        assert status.result == Result.SUCCESS
        assert status.state in (State.RUNNING, State.RESTARTING)
        answers, slowest = answers + 1, max(slowest, time.monotonic() - asked)
        if asked > next_command:
            assert machine.request(Cmd.RESTART, "pawn").result == Result.SUCCESS
            next_command = asked + 10
        time.sleep(0.02)  # the rate of the requests

    assert machine.status("steady") == steady
    eventually(lambda: tree.descriptors() == descriptors, "no descriptor more")
    growth = tree.memory() - memory
    for name in nodes:
        assert machine.request(Cmd.STOP, name).result == Result.SUCCESS
    tree.wait_until_no_zombie_is_left()
    texts = log.texts()
    longest = 0.0
    for name in quitters:
        # Each start had one exit, and each exit a restart or the stop.
        starts = [x for x in log.lines() if x.text == log_texts.started(name)]
        ends = sum(count for text, count in texts.items()
                   if text.startswith((f"'{name}' exited", f"'{name}' receive")))
        assert ends == len(starts)
        gaps = [b.seconds - a.seconds for a, b in zip(starts, starts[1:])]
        assert len(starts) > seconds // 10
        assert sum(gaps) > 5 * len(gaps) - 1
        longest = max(longest, *gaps)
    assert not any(text.startswith("'steady' ") for text in texts)
    # Only the exits of the two remaining nodes were not collected.
    started = sum(line.text.startswith("Node start ") for line in log.lines())
    exits = sum(log.collected().values())
    assert exits == started - 2
    assert growth <= 1024
    figure(f"fork bombs for {seconds} s: {answers} requests, the slowest took "
           f"{slowest:.2f} s; {exits} exits; at most "
           f"{longest:.2f} s from start to start; memory {growth:+} KiB")
    assert tree.by_machine_pid().keys() == {
        machine.status("steady").pid, machine.status("pawn").pid}
    ends_on_sigterm(machine, tree)


# -- Floods of signals.


def flood(tree, send, count):
    """Sends `count` signals faster than they can be handled, and lets the receiver run
    from time to time."""
    for i in range(count):
        send(tree.pid)
        if i % 50 == 0:
            time.sleep(0.001)


def test_a_flood_of_sigpipe_only_adds_log_lines(machine, is_long):
    machine.start(sleepers("worker", "other"))
    tree, log = ProcessTree(machine), LogReader(machine)
    first = machine.status("worker").pid
    kept = machine.status("other")
    rounds, answers = (2000 if is_long else 100), 0
    for turn in range(rounds):
        flood(tree, lambda pid: os.kill(pid, signal.SIGPIPE), 50)
        with machine.connect() as client:  # disconnects before its reply
            client.sendall(pack_request(Cmd.STATUS, "worker"))
        if turn == rounds // 2:
            os.kill(tree.by_machine_pid()[first], signal.SIGKILL)
        answers += machine.status("other") == kept
    assert answers == rounds
    log.wait_for_starts(3)
    assert log.collected() == {first: 1}
    assert log.texts()[log_texts.EVENT_WAIT_FAILED] > 0
    figure(f"{50 * rounds} SIGPIPE: {log.texts()['epoll_wait failed.']} waits "
           f"interrupted, {rounds} clients gone, {answers} requests answered")
    commands_are_obeyed(machine, tree, "worker")
    ends_on_sigterm(machine, tree)
    assert machine.stdout() == ""


def kill_sigchld(pid):
    os.kill(pid, signal.SIGCHLD)


def queue_sigchld(pid):
    libc = ctypes.CDLL(None, use_errno=True)
    assert libc.sigqueue(pid, int(signal.SIGCHLD), ctypes.c_void_p(1234)) == 0


@pytest.mark.parametrize("send", [kill_sigchld, queue_sigchld])
def test_sigchld_from_other_processes_affects_no_node(machine, is_long, send):
    machine.start(sleepers("worker", "other"))
    tree, log = ProcessTree(machine), LogReader(machine)
    first, kept = machine.status("worker").pid, machine.status("other")
    count = 100_000 if is_long else 5000
    flood(tree, send, count // 2)
    os.kill(tree.by_machine_pid()[first], signal.SIGKILL)
    flood(tree, send, count // 2)
    log.wait_for_starts(3)
    assert machine.status("other") == kept
    assert log.collected() == {first: 1}
    assert log.texts()["ssi_signo: 17"] > 1
    commands_are_obeyed(machine, tree, "worker")
    ends_on_sigterm(machine, tree)


# -- As process 1, such as in a container.

# Pids of five digits, too.
AS_PROCESS_1 = ["unshare", "--pid", "--fork", "--kill-child", "--mount-proc",
                "sh", "-c", 'echo 10000 >/proc/sys/kernel/ns_last_pid; exec "$@"', "sh"]


def process_1(machine):
    """The tree of a launcher started by AS_PROCESS_1."""
    wrapper = machine.process.host_pid
    return ProcessTree(machine, eventually(lambda: children_of(wrapper), "it runs")[0])


@pytest.mark.parametrize("end", ["exit", "sigkill"])
def test_as_process_1_it_collects_every_orphan_and_keeps_the_nodes(
        machine, is_long, end):
    count = 20_000 if is_long else 2000
    orphan = "(:)" if end == "exit" else "sh -c 'kill -9 $$'"
    breeder = machine.script("breeder", "i=0\n"
                             f"while [ $i -lt {count} ]; do ( {orphan} & )\n"
                             "i=$((i + 1)); done; touch /tmp/done; exec sleep 100000")
    content = sleepers("worker", "crasher")
    content["vornnode"]["crasher"] = {"path": machine.script("crasher", "exit 1")}
    content["vornnode"]["breeder"] = {"path": breeder}
    machine.start(content, wrapper=AS_PROCESS_1)
    tree, log = process_1(machine), LogReader(machine)
    worker = machine.status("worker")
    eventually((machine.tmp / "done").exists, "all orphans were made", timeout=300)
    tree.wait_until_no_zombie_is_left()

    def crashes():
        return log.raw().count(b": 'crasher' exited with status: 1.")

    eventually(lambda: log.raw().count(b": si_pid: ") == count + crashes(),
               "every exit was collected, and once")
    figure(f"process 1: {count} orphans ({end}) collected")
    texts = log.texts()
    assert texts["node is killed."] == (count if end == "sigkill" else 0)
    assert not any(text.startswith(("'worker' ", "'breeder' ")) for text in texts)
    assert machine.status("worker") == worker
    assert machine.status("breeder").state == State.RUNNING
    before = crashes()
    eventually(lambda: crashes() > before, "the crasher is restarted")
    supervision_goes_on(machine, tree, "worker")
    ends_on_sigterm(machine, tree)


# -- Signals that the launcher does not handle.


def others_of(default):
    """Signals with this default action for which the launcher has no handler."""
    names = {"ends": ["SIGUSR1", "SIGALRM", "SIGRTMIN", "SIGRTMAX"],
             "ignored": ["SIGWINCH", "SIGURG", "SIGCONT"]}
    return [signal.Signals[name] for name in names[default]]


@pytest.mark.parametrize("number", others_of("ends"), ids=lambda number: number.name)
def test_a_signal_without_a_handler_terminates_it_and_leaves_the_nodes(machine, number):
    machine.start(sleepers("worker"))
    tree = ProcessTree(machine)
    children = tree.children()
    tree.signal(number)
    assert machine.wait() == -number
    assert machine.stdout() == ""
    assert not any(has_ended(child) for child in children)


def test_signals_that_the_system_ignores_are_not_even_logged(machine):
    machine.start(sleepers("worker"))
    tree, log = ProcessTree(machine), LogReader(machine)
    before = log.raw()
    for number in others_of("ignored") * 100:
        tree.signal(number)
    supervision_goes_on(machine, tree, "worker")
    assert log.raw().startswith(before)
    assert log_texts.EVENT_WAIT_FAILED not in log.texts()
    ends_on_sigterm(machine, tree)


# -- Signals that terminate the launcher, at any moment.


def is_pending(pid, number):
    """Whether the signal is still pending."""
    return int(status_field(pid, "ShdPnd"), 16) & 1 << (number - 1)


def send_and_wait_until_taken(tree, number):
    tree.signal(number)
    eventually(lambda: not is_pending(tree.pid, number), "the signal is taken")


def test_a_storm_of_sigterm_stops_each_node_once(machine, is_long):
    names = [f"node-{i}" for i in range(3)]
    machine.script("node", 'trap \'echo "$__VORN_NODE_NAME__" >>/tmp/order\' TERM\n'
                   'touch "/tmp/ready-$1"\nwhile [ ! -e /tmp/go ]; do sleep 0.05; done')
    machine.start({"vornnode": {name: {"path": "/tmp/bin/node", "argv": name}
                                for name in names}})
    for name in names:
        eventually((machine.tmp / f"ready-{name}").exists, f"{name} is ready")
    tree, log = ProcessTree(machine), LogReader(machine)
    children = tree.children()
    tree.signal(signal.SIGTERM)
    eventually((machine.tmp / "order").exists, "the first stop has begun")
    flood(tree, lambda pid: os.kill(pid, signal.SIGTERM),
          20_000 if is_long else 1000)
    (machine.tmp / "go").touch()
    assert machine.wait() == 0
    all_end(children)
    order = (machine.tmp / "order").read_text(encoding="ascii").split()
    assert order == sorted(set(order)), "no node was asked twice, or out of turn"
    assert log.texts()["ssi_signo: 15"] == 1


@pytest.fixture(name="reluctant")
def fixture_reluctant(machine):
    """A launcher with a node that exits late after SIGTERM, and another one."""
    content = sleepers("other")
    node = {"path": machine.script("reluctant", RELUCTANT)}
    content["vornnode"] = {"reluctant": node,
                           **content["vornnode"]}
    machine.start(content)
    eventually((machine.tmp / "ready").exists, "the node is ready")
    return ProcessTree(machine)


def test_a_stop_is_finished_and_answered_despite_sigint(machine, reluctant):
    other = reluctant.by_machine_pid()[machine.status("other").pid]
    with machine.connect() as client:
        client.sendall(pack_request(Cmd.STOP, "reluctant"))
        eventually((machine.tmp / "asked").exists, "the stop has begun")
        send_and_wait_until_taken(reluctant, signal.SIGINT)
        (machine.tmp / "go").touch()
        reply = unpack_response(read_exactly(client, 24))
    assert reply.result == Result.SUCCESS
    assert machine.wait() == 0
    # It had enough time: SIGKILL did not precede its exit.
    assert (machine.tmp / "ended").exists()
    assert machine.stdout() == handled_with(signal.SIGINT)
    assert not has_ended(other)


def test_a_stop_during_sigterm_is_answered_before_the_other_nodes_stop(
        machine, reluctant):
    children = reluctant.children()
    with machine.connect() as client:
        client.sendall(pack_request(Cmd.STOP, "reluctant"))
        eventually((machine.tmp / "asked").exists, "the stop has begun")
        reluctant.signal(signal.SIGTERM)
        (machine.tmp / "go").touch()
        reply = unpack_response(read_exactly(client, 24))
    assert reply.result == Result.SUCCESS
    assert machine.wait() == 0
    all_end(children)
    assert machine.stdout() == ""


def test_fatal_signals_after_sigterm_do_not_abort_the_shutdown(machine, reluctant):
    children = reluctant.children()
    reluctant.signal(signal.SIGTERM)
    eventually((machine.tmp / "asked").exists, "the stops have begun")
    for number in (signal.SIGINT, signal.SIGHUP, signal.SIGQUIT, signal.SIGINT):
        send_and_wait_until_taken(reluctant, number)
    (machine.tmp / "go").touch()
    assert machine.wait() == 0
    all_end(children)
    assert (machine.tmp / "ended").exists()
    assert printed_signals(machine) == [handled_with(signal.SIGINT)]


def test_sigterm_after_sigint_stops_no_node(machine):
    machine.start(sleepers("worker"))
    tree, log = ProcessTree(machine), LogReader(machine)
    children = tree.children()
    with held(machine):
        send_and_wait_until_taken(tree, signal.SIGINT)
        tree.signal(signal.SIGTERM)
    assert machine.wait() == 0
    assert machine.stdout() == handled_with(signal.SIGINT)
    assert "ssi_signo: 15" not in log.texts()
    assert not any(has_ended(child) for child in children)


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM],
                         ids=lambda number: number.name)
def test_a_start_command_is_answered_if_a_signal_interrupts_its_sleep(machine, number):
    nap = 600_000 if number == signal.SIGINT else 700
    machine.start({"vornnode": {
        "other": SLEEPER, "late": {**SLEEPER, "sleep": nap, "autostart": False}}})
    tree = ProcessTree(machine)
    with machine.connect() as client:
        client.sendall(pack_request(Cmd.START, "late"))
        eventually(lambda: waits_in(tree.pid, "nanosleep"), "it sleeps")
        tree.signal(number)
        assert unpack_response(read_exactly(client, 24)).result == Result.SUCCESS
    assert machine.wait() == 0
    sleepers_left = [p for p in machine.processes() if p.argv == SLEEPER_ARGV]
    if number == signal.SIGINT:
        assert len(sleepers_left) == 2
    else:
        assert not [p for p in sleepers_left if p.is_alive]


def test_sigpipe_shortens_a_sleep_and_terminates_nothing(machine):
    machine.start({"vornnode": {"late": {**SLEEPER, "sleep": 600_000}}},
                  wait_until_up=False)
    tree = ProcessTree(machine)
    eventually(lambda: waits_in(tree.pid, "nanosleep"), "it sleeps")
    tree.signal(signal.SIGPIPE)
    machine.wait_until_up()
    assert machine.status("late").state == State.RUNNING
    ends_on_sigterm(machine, tree)


# -- SIGSTOP.


def test_events_during_a_suspension_of_the_launcher_are_served_afterwards(machine):
    machine.start(sleepers("worker"))
    tree = ProcessTree(machine)
    status = machine.status("worker")
    with contextlib.ExitStack() as stack:
        for _ in range(20):
            tree.hold()
            clients = [stack.enter_context(machine.connect()) for _ in range(5)]
            for client in clients:
                client.sendall(pack_request(Cmd.STATUS, "worker"))
            tree.resume()
            for client in clients:
                assert unpack_response(read_exactly(client, 24)) == status
                client.close()
    ends_on_sigterm(machine, tree)


def test_suspended_and_continued_nodes_are_still_running(machine, is_long):
    names = [f"node-{i}" for i in range(1000 if is_long else 100)]
    machine.start(sleepers(*names))
    tree, log = ProcessTree(machine), LogReader(machine)
    before = [machine.status(name) for name in names]
    children = tree.children()
    log.restart()
    for number in (signal.SIGSTOP, signal.SIGCONT) * 3:
        for child in children:
            os.kill(child, number)
        eventually(lambda: all(is_stopped(child) == (number == signal.SIGSTOP)
                               for child in children), "all have followed")
    assert log.raw() == b""
    assert [machine.status(name) for name in names] == before
    # Each node is restarted after it was killed while suspended.
    for child in children:
        os.kill(child, signal.SIGSTOP)
    kill_all(tree)
    log.wait_for_starts(len(names))
    assert log.collected() == collections.Counter(status.pid for status in before)


def test_a_suspended_node_is_killed_at_the_end_of_its_stop(machine):
    machine.start(sleepers("worker"))
    tree, log = ProcessTree(machine), LogReader(machine)
    [child] = tree.children()
    os.kill(child, signal.SIGSTOP)
    eventually(lambda: is_stopped(child), "the node is stopped")
    assert machine.request(Cmd.STOP, "worker").result == Result.SUCCESS
    eventually(lambda: log.texts()[log_texts.stopped("worker")], "it is collected")
    assert log.texts()[log_texts.killed("worker", 9)] == 1
    assert tree.children() == []


# -- A log that is read slowly or lost.


def lines_of(text):
    """The log lines; fails if the text contains anything else."""
    assert text.endswith("\n")
    lines = parse_log(text)
    assert len(lines) == text.count("\n"), "every line is a whole one"
    return lines


def count(lines, text):
    return sum(line.text == text for line in lines)


def test_a_slow_reader_gets_whole_lines_though_signals_interrupt_the_writes(machine):
    reader, writer = os.pipe()
    fcntl.fcntl(writer, fcntl.F_SETPIPE_SZ, 4096)
    pieces, ended = [], threading.Event()

    def read_slowly():
        while True:
            if select.select([reader], [], [], 0.05)[0]:
                pieces.append(os.read(reader, 500))
                time.sleep(0.002)  # makes the reader slow
            elif ended.is_set():
                return

    reading = threading.Thread(target=read_slowly, daemon=True)
    reading.start()
    machine.start(sleepers("worker"), stderr=writer)
    os.close(writer)
    tree = ProcessTree(machine)
    done = threading.Event()

    def signal_until_done():
        while not done.wait(0.0002):
            tree.signal(signal.SIGPIPE)

    signalling = threading.Thread(target=signal_until_done, daemon=True)
    signalling.start()
    try:
        for _ in range(300):
            assert machine.request(Cmd.ENABLE, "worker").result == Result.SUCCESS
        eventually(lambda: log_texts.EVENT_WAIT_FAILED.encode() in b"".join(pieces),
                   "a signal interrupts the launcher")
    finally:
        done.set()
        signalling.join()
    supervision_goes_on(machine, tree, "worker")
    children = tree.children()
    tree.signal(signal.SIGTERM)
    assert machine.wait() == 0
    all_end(children)
    ended.set()
    reading.join()
    os.close(reader)
    lines = lines_of(b"".join(pieces).decode())
    assert count(lines, log_texts.command(Cmd.ENABLE)) == 300
    assert lines[-1].text == "ssi_signo: 15"


def test_a_reader_that_returns_gets_whole_lines_again(machine):
    pipe = machine.tmp / "log.pipe"
    os.mkfifo(pipe)
    reader = os.open(pipe, os.O_RDONLY | os.O_NONBLOCK)
    writer = os.open(pipe, os.O_WRONLY)
    machine.start(sleepers("worker"), stderr=writer)
    os.close(writer)
    tree = ProcessTree(machine)
    assert log_texts.started("worker") in os.read(reader, 65536).decode()
    os.close(reader)
    supervision_goes_on(machine, tree, "worker")
    reader = os.open(pipe, os.O_RDONLY | os.O_NONBLOCK)
    assert machine.request(Cmd.ENABLE, "worker").result == Result.SUCCESS
    ends_on_sigterm(machine, tree)
    lines = lines_of(os.read(reader, 65536).decode())
    assert [line.text for line in lines] == [
        log_texts.command(Cmd.ENABLE), "ssi_signo: 15"]
    os.close(reader)


ON_SMALL_DISK = ["sh", "-c",
                 "mkdir /tmp/disk && mount -t tmpfs -o size=64k tmpfs /tmp/disk &&"
                 ' exec "$@" 2>>/tmp/disk/log', "sh"]


def test_a_full_disk_loses_only_lines_and_the_next_one_is_whole(machine):
    machine.start(sleepers("worker"), wrapper=ON_SMALL_DISK)
    tree = ProcessTree(machine)

    def log():
        return machine.run("cat", "/tmp/disk/log")

    for _ in range(3):
        machine.run("sh", "-c", "cat /dev/zero 2>&- >/tmp/disk/fill", check=False)
        for _ in range(200):  # more than the free space
            assert machine.request(Cmd.ENABLE, "worker").result == Result.SUCCESS
        full = log()
        assert machine.status("worker").state == State.RUNNING
        assert log() == full, "not a byte more"
        machine.run("rm", "/tmp/disk/fill")
        assert machine.request(Cmd.ENABLE, "worker").result == Result.SUCCESS
        more = log().removeprefix(full)
        # After a torn line the next begins on a line of its own.
        assert more.startswith("\n") == (not full.endswith("\n"))
        [line] = lines_of(more.removeprefix("\n"))
        assert line.text == log_texts.command(Cmd.ENABLE)
    machine.run("sh", "-c", "cat /dev/zero 2>&- >/tmp/disk/fill", check=False)
    supervision_goes_on(machine, tree, "worker")
    ends_on_sigterm(machine, tree)


# -- Limits.

# The open descriptors between commands: the standard streams, the event loop, the
# signals and the control socket.
DESCRIPTORS = 6


@contextlib.contextmanager
def limited(machine, what, value, as_user=()):
    """Within this context the launcher has a lower limit, given as an option of
    prlimit; raising it again needs no privilege."""
    target = f"--pid={machine.pid}"
    former = machine.run(*as_user, "prlimit", target, f"--{what}", "--noheadings",
                         "--output=SOFT")
    machine.run(*as_user, "prlimit", target, f"--{what}={value}:")
    try:
        yield
    finally:
        machine.run(*as_user, "prlimit", target, f"--{what}={former.strip()}:")


@pytest.fixture(name="as_user")
def fixture_as_user(machine):
    """A wrapper for a user of its own: root has no limit of processes."""
    machine.tmp.chmod(0o777)
    user = 100_000 + os.getpid()
    if os.geteuid() != 0:
        return []  # the machine has a user namespace with a count of its own
    return ["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups"]


def test_without_processes_starts_fail_and_stops_time_out(machine, as_user):
    machine.start(sleepers("crashing", "stopping", "starting"), wrapper=as_user)
    tree, log = ProcessTree(machine), LogReader(machine)
    assert machine.request(Cmd.STOP, "starting").result == Result.SUCCESS
    log.restart()
    stopping = tree.by_machine_pid()[machine.status("stopping").pid]
    with limited(machine, "nproc", 1, as_user):
        assert machine.request(Cmd.START, "starting").result == Result.FAILED
        assert machine.status("starting").state == State.STOPPED
        crashing = machine.status("crashing").pid
        os.kill(tree.by_machine_pid()[crashing], signal.SIGKILL)
        eventually(lambda: log.texts()["name: crashing fork failed."], "it was tried")
        assert machine.status("crashing").state == State.STOPPED
        # Neither check of the process table can be started.
        assert machine.request(Cmd.STOP, "stopping").result == Result.SUCCESS
        assert has_ended(stopping)
        assert machine.status("crashing").state == State.STOPPED
    tree.wait_until_no_zombie_is_left()
    texts = log.texts()
    assert texts["name: starting fork failed."] == 1
    assert texts["name: crashing fork failed."] == 1
    assert texts[log_texts.stopped("stopping")] == 1
    for name in ("crashing", "stopping", "starting"):
        assert machine.request(Cmd.START, name).result == Result.SUCCESS
        assert machine.status(name).state == State.RUNNING
    ends_on_sigterm(machine, tree)


def test_with_one_free_descriptor_commands_and_restarts_work(machine):
    machine.start(sleepers("worker"))
    tree, log = ProcessTree(machine), LogReader(machine)
    [child] = tree.children()
    with limited(machine, "nofile", DESCRIPTORS + 1):
        os.kill(child, signal.SIGKILL)
        log.wait_for_starts(2)
        [child] = tree.children()
        # The process table cannot be checked, so this takes all 50 passes.
        assert machine.request(Cmd.STOP, "worker").result == Result.SUCCESS
        assert has_ended(child)
        tree.wait_until_no_zombie_is_left()
        assert machine.request(Cmd.START, "worker").result == Result.SUCCESS
        assert machine.status("worker").pid in tree.by_machine_pid()
    ends_on_sigterm(machine, tree)


def test_without_a_free_descriptor_restarts_work_and_requests_wait(machine):
    machine.start(sleepers("worker"))
    tree, log = ProcessTree(machine), LogReader(machine)
    first = machine.status("worker").pid
    [child] = tree.children()
    eventually(lambda: tree.descriptors() == DESCRIPTORS, "it waits for events")
    with limited(machine, "nofile", DESCRIPTORS):
        with machine.connect() as client:
            client.sendall(pack_request(Cmd.STATUS, "worker"))
            os.kill(child, signal.SIGKILL)
            log.wait_for_starts(2)
            with limited(machine, "nofile", DESCRIPTORS + 1):
                reply = unpack_response(read_exactly(client, 24))
    assert reply.state == State.RUNNING
    assert reply.pid in tree.by_machine_pid() and reply.pid != first
    commands_are_obeyed(machine, tree, "worker")
    ends_on_sigterm(machine, tree)
