"""Clients of the control socket that are hostile, broken, or very many.

After each of them the launcher must answer the next request, have the same descriptors
as before and no zombie, and have written only whole lines: each is a known text, and
each connection has exactly one "control cmd" or "received".
"""

import collections
import concurrent.futures
import contextlib
import functools
import itertools
import json
import multiprocessing
import os
import pathlib
import random
import re
import select
import signal
import socket
import struct
import subprocess
import threading
import time

import pytest
from support import log_texts
from support.control import REQUEST, RESPONSE, Cmd, Response, Result, State
from support.control import exchange, pack_request, read_exactly
from support.control import read_until_end, unpack_response
from support.blocking import held, wait_until_blocked, wait_until_idle
from support.log import parse_log
from support.machine import PYTHON
from support.start_time import RESTART_TICKS, start_ticks, wait_for_start
from support.waiting import eventually

BACKLOG = 6  # clients that wait; the kernel takes one more than listen(2) says
SCM_MAX_FD = 253  # descriptors that the kernel takes along with one message
NOT_FOUND = Response(Result.NOT_FOUND, 0, 0, State.STOPPED, 0)
SUCCESS = Response(Result.SUCCESS, 0, 0, State.STOPPED, 0)

# Every text that these tests cause. Incomplete or merged lines match none of them.
NAME, NUMBER = "'[^']*'", r"-?\d+"
KNOWN_TEXT = re.compile("|".join([
    r"name: .*",
    f"Created socket {NAME} with mode {NAME}",
    f"Node start {NAME} ok",
    f"Node {NAME} (already running|ready to restarting|stoped|success|failed)",
    f"Node {NAME} disabled!?",
    f"Node {NAME} is restarting, set stopped\\.",
    f"ssi_signo: {NUMBER}",
    f"si_pid: {NUMBER}, si_code: {NUMBER}, si_status: {NUMBER}",
    f"{NAME} (exited with status|receive signal): {NUMBER}\\.",
    log_texts.WAITID_FAILED,
    f"control cmd: {NUMBER}",
    f"unknow cmd: {NUMBER}",
    f"received: {NUMBER} expected: 132 errno: {NUMBER}",
    f"send fail, size: {NUMBER}",
    log_texts.POLL_TIMEOUT,
]))


def count_texts(machine):
    """The number of occurrences of each text in the log, without the numbers in the
    errors of refused requests, which are outdated. Fails if a line is not whole."""
    counts = collections.Counter()
    with open(machine.tmp / "stderr", encoding="utf-8", errors="replace",
              newline="\n") as log:
        for raw in log:
            lines = parse_log(raw.removesuffix("\n"))
            assert raw.endswith("\n") and lines, f"no whole line: {raw!r}"
            text = lines[0].text
            assert KNOWN_TEXT.fullmatch(text), f"no known line: {raw!r}"
            counts[text.split(" errno: ")[0]] += 1
    return counts


def connections(counts):
    """The number of connections in the log: each has exactly one of these lines."""
    return sum(count for text, count in counts.items()
               if text.startswith(("control cmd: ", "received: ")))


@contextlib.contextmanager
def unharmed(machine):
    """Fails if the launcher does not serve requests afterwards, or if it has other
    descriptors, a zombie, or a log with incomplete lines."""
    wait_until_idle(machine)
    descriptors = machine.process.descriptors
    yield
    assert machine.status("worker").state == State.RUNNING
    assert machine.status("nobody") == NOT_FOUND
    wait_until_idle(machine)
    assert machine.process.descriptors == descriptors
    eventually(lambda: all(x.is_alive for x in machine.processes()), "no zombie")
    assert machine.stdout() == ""
    count_texts(machine)


@pytest.fixture(name="launcher")
def fixture_launcher(machine):
    """A machine whose launcher runs the node "worker"; a test must leave the
    launcher unharmed."""
    path = machine.script("worker", "exec sleep 1000")
    machine.start({"vornnode": {"worker": {"path": path}}})
    machine.child("worker", ["sleep", "1000"])
    with unharmed(machine):
        yield machine
    (machine.tmp / "stderr").unlink()  # can be large, and no defect was found


# -- Silent clients.

# Connects, sends a request on command, and disconnects at the end of its input.
SILENT_CLIENT = """
import socket, sys
client = socket.socket(socket.AF_UNIX)
client.connect("vornlaunch.sock")
if sys.stdin.buffer.read(1):
    client.sendall(bytes(%d))
    sys.stdout.buffer.write(client.recv(%d))
""" % (REQUEST.size, RESPONSE.size)


def is_stopped(client):
    status = pathlib.Path(f"/proc/{client.pid}/stat").read_text(encoding="ascii")
    return status.rpartition(")")[2].split()[0] == "T"


def stop_process(client):
    client.send_signal(signal.SIGSTOP)
    eventually(lambda: is_stopped(client), "the client is stopped")


def closes(_, client):
    client.stdin.close()


def is_killed(_, client):
    client.kill()


def is_killed_while_stopped(machine, client):
    stop_process(client)
    wait_until_blocked(machine, "unix_stream")
    client.kill()


def sends_after_a_stop(machine, client):
    stop_process(client)
    client.stdin.write(b"!")
    client.stdin.close()
    wait_until_blocked(machine, "unix_stream")
    client.send_signal(signal.SIGCONT)
    assert len(client.stdout.read()) == RESPONSE.size


every_leaving = pytest.mark.parametrize(
    "leave", [closes, is_killed, is_killed_while_stopped, sends_after_a_stop],
    ids=lambda leave: leave.__name__)


@contextlib.contextmanager
def silent_client(machine, **user):
    """A silent client process that blocks the launcher; `user` as of Popen."""
    with subprocess.Popen(
        [PYTHON, "-I", "-S", "-c", SILENT_CLIENT], cwd=machine.tmp / "vornlaunch",
        stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0, **user,
    ) as client:
        try:
            wait_until_blocked(machine, "unix_stream")
            yield client
        finally:
            client.kill()


def boot_ticks():
    """The current time in the unit of process start times."""
    return time.clock_gettime(time.CLOCK_BOOTTIME) * os.sysconf("SC_CLK_TCK")


@every_leaving
def test_requests_and_restarts_continue_when_a_silent_client(launcher, leave):
    worker = launcher.find_process(launcher.status("worker").pid)
    due = start_ticks(worker) + RESTART_TICKS * 1.2
    with silent_client(launcher) as client, contextlib.ExitStack() as stack:
        waiting = [stack.enter_context(launcher.connect()) for _ in range(BACKLOG)]
        for each in waiting:
            each.sendall(pack_request(Cmd.STATUS, "worker"))
        worker.signal(signal.SIGKILL)
        eventually(lambda: launcher.find_process(worker.pid).state == "Z", "death")
        eventually(lambda: boot_ticks() > due, "the restart is due")
        assert launcher.find_process(worker.pid).state == "Z"
        leave(launcher, client)
        for each in waiting:
            reply = unpack_response(read_exactly(each, RESPONSE.size))
            assert reply.result == Result.SUCCESS
            each.close()
        wait_for_start(launcher, "worker", other_than=worker.pid)


@every_leaving
def test_sigterm_takes_effect_when_a_silent_client(machine, leave):
    path = machine.script("worker", "exec sleep 1000")
    machine.start({"vornnode": {name: {"path": path} for name in ("one", "two")}})
    nodes = [machine.child(name, ["sleep", "1000"]) for name in ("one", "two")]
    with silent_client(machine) as client:
        machine.signal(signal.SIGTERM)
        wait_until_blocked(machine, "unix_stream")
        leave(machine, client)
        assert machine.wait() == 0
    assert not any(machine.is_alive(node.pid) for node in nodes)
    count_texts(machine)


# -- Requests in parts, and too long requests.


@pytest.mark.parametrize("goes_silent", [False, True], ids=["closed", "gone_silent"])
def test_a_request_cut_anywhere_is_refused_and_the_next_served(launcher, goes_silent):
    request = pack_request(Cmd.STOP, "worker")
    # A silent client that has sent nothing blocks the launcher.
    lengths = range(1 if goes_silent else 0, REQUEST.size)
    before = count_texts(launcher)
    for length in lengths:
        with launcher.connect() as client:
            client.sendall(request[:length])
            if goes_silent:
                assert read_until_end(client) == b""
        assert launcher.status("worker").state == State.RUNNING
    new = count_texts(launcher) - before
    assert [new[f"received: {length} expected: 132"] for length in lengths] == [
        1] * len(lengths)
    assert connections(new) == 2 * len(lengths)


def test_pieces_that_have_all_arrived_are_one_request(launcher):
    with held(launcher) as silent, launcher.connect() as client:
        for byte in pack_request(Cmd.STATUS, "worker"):
            client.sendall(bytes([byte]))
        silent.close()
        reply = unpack_response(read_exactly(client, RESPONSE.size))
        assert reply == launcher.status("worker")


@pytest.mark.parametrize("reads", [True, False], ids=["read", "unread"])
def test_a_mebibyte_in_one_go_is_served_from_its_beginning(launcher, reads):
    before = count_texts(launcher)
    stops = pack_request(Cmd.STOP, "worker") * (2**20 // REQUEST.size)
    with launcher.connect() as client:
        # The launcher closes while most of it is still to be sent.
        with pytest.raises((BrokenPipeError, ConnectionResetError)):
            client.sendall(pack_request(Cmd.ENABLE, "worker") + stops)
        if reads:
            assert unpack_response(read_exactly(client, RESPONSE.size)) == SUCCESS
    assert count_texts(launcher) - before == {
        log_texts.command(Cmd.ENABLE): 1, log_texts.POLL_TIMEOUT: 1}


# -- Clients that do not close, or close only one direction.


@pytest.mark.parametrize("reads", [True, False], ids=["reading", "not_reading"])
def test_each_client_that_stays_costs_one_poll_timeout(launcher, reads, is_long):
    count = 200 if is_long else 2 * BACKLOG
    before = count_texts(launcher)
    with contextlib.ExitStack() as stack:
        for _ in range(count):
            client = stack.enter_context(launcher.connect())
            client.sendall(pack_request(Cmd.ENABLE, "worker"))
            if reads:
                assert unpack_response(read_exactly(client, RESPONSE.size)) == SUCCESS
        launcher.wait_for_log(
            log_texts.POLL_TIMEOUT, before[log_texts.POLL_TIMEOUT] + count)
        wait_until_idle(launcher)
        assert count_texts(launcher) - before == {
            log_texts.command(Cmd.ENABLE): count, log_texts.POLL_TIMEOUT: count}


@pytest.mark.parametrize("direction,reply,line", [
    (socket.SHUT_WR, SUCCESS, log_texts.POLL_TIMEOUT),
    (socket.SHUT_RD, None, "send fail, size: -1"),
    (socket.SHUT_RDWR, None, "send fail, size: -1"),
], ids=["writing", "reading", "both"])
def test_a_client_that_shuts_down_its_side_is_served(
        launcher, direction, reply, line):
    with held(launcher) as silent, launcher.connect() as client:
        client.sendall(pack_request(Cmd.ENABLE, "worker"))
        client.shutdown(direction)
        before = count_texts(launcher)
        silent.close()
        data = read_until_end(client)
        assert (unpack_response(data) if data else None) == reply
        wait_until_idle(launcher)
    assert count_texts(launcher) - before == {
        "received: 0 expected: 132": 1, log_texts.command(Cmd.ENABLE): 1, line: 1}


@pytest.mark.parametrize("cmd,state,line", [
    (Cmd.STOP, State.STOPPED, log_texts.stopped("slow")),
    (Cmd.DISABLE, State.DISABLED, log_texts.disabled("slow")),
    (Cmd.RESTART, State.RUNNING, "Node 'slow' success"),
], ids=lambda x: x.name if isinstance(x, Cmd) else "")
def test_a_client_that_leaves_during_a_stop_does_not_abort_it(
        machine, cmd, state, line):
    # Handles SIGTERM, and exits when it is permitted to.
    path = machine.script("slow", "\n".join([
        "trap 'touch /tmp/asked; until [ -e /tmp/go ]; do sleep 0.1; done; exit' TERM",
        "touch /tmp/ready",
        "while :; do sleep 0.1; done"]))
    worker = machine.script("worker", "exec sleep 1000")
    machine.start({"vornnode": {"worker": {"path": worker}, "slow": {"path": path}}})
    eventually((machine.tmp / "ready").exists, "the slow node is up")
    slow = machine.status("slow").pid
    with unharmed(machine):
        with machine.connect() as client:
            client.sendall(pack_request(cmd, "slow"))
            eventually((machine.tmp / "asked").exists, "the node is asked to end")
        machine.file("go", "")
        machine.wait_for_log("send fail, size: -1")
        machine.wait_for_log(line)
        assert machine.wait_for_state("slow", state).pid != slow
        assert not machine.is_alive(slow)


# -- Many clients.


def run_threads(function, count):
    """Calls `function` with 0 to `count` - 1 simultaneously, each in a thread; returns
    the results in that order."""
    with concurrent.futures.ThreadPoolExecutor(count) as pool:
        return list(pool.map(function, range(count)))


def threads_that_wait_for_room():
    """The number of threads of this process that wait for room in a backlog."""
    count = 0
    for task in pathlib.Path("/proc/self/task").iterdir():
        with contextlib.suppress(OSError):  # exited in the meantime
            count += b"unix_wait_for_peer" in (task / "wchan").read_bytes()
    return count


@pytest.mark.parametrize("count", [BACKLOG + 1, 60])
def test_clients_beyond_the_backlog_wait_and_are_all_served(launcher, count):
    expected = [launcher.status("worker"), NOT_FOUND, SUCCESS]

    def request(number):
        cmd, name = [(Cmd.STATUS, "worker"), (Cmd.STOP, "nobody"),
                     (Cmd.START, "worker")][number % 3]
        return launcher.request(cmd, name)

    with concurrent.futures.ThreadPoolExecutor(1) as starter:
        with held(launcher):
            replies = starter.submit(run_threads, request, count)
            eventually(lambda: threads_that_wait_for_room() == count - BACKLOG,
                       "the others wait for room")
        assert replies.result() == [expected[n % 3] for n in range(count)]


def test_each_of_thousands_that_close_at_once_is_one_line(launcher, is_long):
    threads, count = 4, 100_000 if is_long else 4_000

    def connect_and_close(_):
        for _ in range(count // threads):
            launcher.connect().close()

    before = count_texts(launcher)
    begin = time.monotonic()
    run_threads(connect_and_close, threads)
    rate = count / (time.monotonic() - begin)
    wait_until_idle(launcher)
    assert count_texts(launcher) - before == {
        "received: 0 expected: 132": count}
    print(f"\n{count} connections that closed at once: {rate:.0f} a second")


# -- Names and junk.


def test_every_byte_of_a_name_is_used_unchanged(launcher):
    names = [shape for value in range(256) for shape in (
        bytes([value]), bytes([value]) * 127, bytes([value]) * 128,
        b"worker"[:value % 6] + bytes([value]) + b"worker")]
    names += [b"worker" + bytes([value]) for value in range(1, 256)]
    names += [b"", b"\xff\xfeworker", b"wor\0ker", b"\xed\xa0\x80", b"\xf4\x90\x80\x80"]
    before = count_texts(launcher)
    for name, cmd in zip(names, itertools.cycle(Cmd)):
        assert launcher.request(cmd, name) == NOT_FOUND, (cmd, name)
    wait_until_idle(launcher)
    new = count_texts(launcher) - before
    del new[log_texts.POLL_TIMEOUT]  # a busy machine may keep a client from closing
    assert connections(new) == new.total() == len(names)


def as_shown(name):
    """The form of a name in the log."""
    usual = {"\n": "\\n", "\r": "\\r", "\t": "\\t"}
    return "".join(
        usual.get(x, f"\\x{ord(x):02x}") if ord(x) < 32 or x == "\x7f" else x
        for x in name)


def test_names_with_line_breaks_are_logged_on_one_line_each(machine):
    names = [f"a{chr(value)}b" for value in [*range(1, 32), *range(127, 160)]]
    names += ["\u2028", "\ufeff", "\U0001f600", "\x1b[2J\x1b]0;title\x07",
              "x ok\n2026-01-01T00:00:00.000000Z *ERROR vornlaunch[1] a.cpp:1 main: x"]
    path = machine.script("worker", "exec sleep 1000")
    nodes = {name: {"path": path, "disabled": True} for name in names}
    # Not a dictionary, which would escape a character beyond 65535 as two.
    machine.start(json.dumps(
        {"vornnode": {"worker": {"path": path}, **nodes}}, ensure_ascii=False))
    with unharmed(machine):
        lines = len(machine.log())
        for name in names:
            assert machine.request(Cmd.START, name).result == Result.FAILED
        wait_until_idle(machine)
        shown = [x.text for x in machine.log()[lines:] if x.func == "startInternal"]
        assert shown == [f"Node '{as_shown(name)}' disabled" for name in names]


def random_request(rng):
    """Bytes of any length that name no node."""
    cmd = rng.choice([rng.randrange(8), rng.randrange(2**32)])
    data = struct.pack("=I", cmd) + rng.randbytes(rng.randrange(300))
    return data[:rng.choice([len(data), REQUEST.size, REQUEST.size,
                             rng.randrange(REQUEST.size)])]


def expected_outcome(data):
    """The log lines, without the number of the error, and the reply."""
    if len(data) < REQUEST.size:
        return [f"received: {len(data)} expected: 132"], None
    [cmd] = struct.unpack_from("=i", data)
    lines = [log_texts.command(cmd)]
    if 0 <= cmd <= 5:
        return lines, NOT_FOUND
    return lines + [f"unknow cmd: {cmd}"], None


@pytest.mark.parametrize("seed", [1, 2])
def test_every_random_request_has_its_expected_outcome(launcher, seed, is_long):
    rng = random.Random(seed)
    known = len(launcher.log())
    expected_lines = []
    for _ in range(50_000 if is_long else 1_000):
        data = random_request(rng)
        lines, expected_reply = expected_outcome(data)
        expected_lines += lines
        with launcher.connect() as client:
            if data:
                client.sendall(data)
            else:
                client.shutdown(socket.SHUT_WR)
            # Not to the end of the stream: the launcher would wait until the client
            # closes.
            reply = (read_exactly(client, RESPONSE.size) if expected_reply
                     else read_until_end(client))
            assert (unpack_response(reply) if reply else None) == expected_reply
    wait_until_idle(launcher)
    texts = [re.sub(r" errno: \d+$", "", x.text) for x in launcher.log()[known:]]
    # A busy machine may keep a client from closing in time.
    assert [x for x in texts if x != log_texts.POLL_TIMEOUT] == expected_lines


# -- Descriptors, out-of-band data and other users.


def has_ended(reading):
    """Waits until no process can write to this end of a pipe any more."""
    poll = select.poll()
    poll.register(reading, 0)
    return eventually(lambda: poll.poll(0), "no other end is open")


@pytest.mark.parametrize("length", [1, 132, 1000])
def test_descriptors_passed_with_a_request_are_not_kept(launcher, length):
    data = (pack_request(Cmd.STATUS, "worker") * 8)[:length]
    for _ in range(50):
        reading, writing = os.pipe()
        with launcher.connect() as client:
            socket.send_fds(client, [data], [writing] * SCM_MAX_FD)
            os.close(writing)
            reply = read_exactly(client, RESPONSE.size)
            assert len(reply) == (RESPONSE.size if length >= REQUEST.size else 0)
        has_ended(reading)
        os.close(reading)


def test_descriptors_passed_with_a_start_do_not_reach_the_child(launcher):
    assert launcher.request(Cmd.STOP, "worker") == SUCCESS
    launcher.wait_for_log(log_texts.stopped("worker"))
    reading, writing = os.pipe()
    with launcher.connect() as client:
        socket.send_fds(client, [pack_request(Cmd.START, "worker")],
                        [writing] * SCM_MAX_FD)
        os.close(writing)
        assert unpack_response(read_exactly(client, RESPONSE.size)) == SUCCESS
    child = launcher.child("worker", ["sleep", "1000"])
    has_ended(reading)
    os.close(reading)
    eventually(lambda: len(child.descriptors) == 4,
               "it has its standard streams and the connection")


@pytest.mark.parametrize("parts", [
    [(b"!", True)],
    [(b"!", True), (pack_request(Cmd.ENABLE, "worker"), False)],
    [(pack_request(Cmd.ENABLE, "worker"), True)],
    [(pack_request(Cmd.ENABLE, "worker"), False), (b"!", True)],
    [(b"!", True)] * 200,
], ids=["alone", "before", "within", "after", "many"])
def test_out_of_band_data_is_harmless(launcher, parts):
    before = count_texts(launcher)
    for _ in range(10):
        with launcher.connect() as client:
            with contextlib.suppress(BrokenPipeError, ConnectionResetError):
                for data, is_urgent in parts:
                    client.send(data, socket.MSG_OOB if is_urgent else 0)
    wait_until_idle(launcher)
    assert connections(count_texts(launcher) - before) == 10


def test_another_user_is_served_too(launcher):
    if os.geteuid() != 0:
        pytest.skip("only root can be another user")
    other_user = 65534
    with silent_client(launcher, user=other_user, group=other_user,
                       extra_groups=[]) as client:
        client.stdin.write(b"!")
        client.stdin.close()
        assert len(client.stdout.read()) == RESPONSE.size


# -- A mixture.


class HostileClient:
    """Misbehaves in one way at a time, chosen by `seed`."""

    def __init__(self, machine, seed):
        self._machine = machine
        self._rng = random.Random(seed)

    def misbehave(self):
        """Makes exactly one connection."""
        misdeed = self._rng.choice([
            self._close_at_once, self._stay_silent, self._send_junk,
            self._send_junk, self._send_bytes_one_by_one, self._send_too_much,
            self._stay, self._shut_down, self._send_descriptors,
            self._send_out_of_band, self._command_and_go, self._command_and_go])
        with self._machine.connect() as client:
            # The launcher can refuse or answer the request and close before everything
            # is sent.
            with contextlib.suppress(BrokenPipeError, ConnectionResetError):
                misdeed(client)

    def _close_at_once(self, client):
        pass

    def _stay_silent(self, _):
        time.sleep(self._rng.uniform(0, 0.05))

    def _send_junk(self, client):
        client.sendall(random_request(self._rng))

    def _send_bytes_one_by_one(self, client):
        for byte in pack_request(Cmd.STATUS, "worker"):
            client.sendall(bytes([byte]))

    def _send_too_much(self, client):
        client.sendall(pack_request(Cmd.STATUS, "worker") * self._rng.randrange(8000))

    def _stay(self, client):
        client.sendall(pack_request(Cmd.STATUS, "worker"))
        time.sleep(self._rng.uniform(0, 0.12))

    def _shut_down(self, client):
        client.sendall(pack_request(Cmd.STATUS, "worker"))
        client.shutdown(self._rng.choice(
            [socket.SHUT_RD, socket.SHUT_WR, socket.SHUT_RDWR]))
        read_until_end(client)

    def _send_descriptors(self, client):
        socket.send_fds(client, [random_request(self._rng) or b"?"],
                        [client.fileno()] * self._rng.randrange(SCM_MAX_FD))

    def _send_out_of_band(self, client):
        client.send(random_request(self._rng) or b"?", socket.MSG_OOB)
        client.sendall(random_request(self._rng))

    def _command_and_go(self, client):
        client.sendall(pack_request(self._rng.choice(list(Cmd)), "victim"))


def test_a_good_client_is_served_among_hostile_ones(machine, is_long):
    hostile, misdeeds = 8, 2_000 if is_long else 25
    path = machine.script("worker", "exec sleep 1000")
    machine.start({"vornnode": {name: {"path": path} for name in ("worker", "victim")}})
    machine.child("worker", ["sleep", "1000"])
    expected = [(Cmd.STATUS, "worker", machine.status("worker")),
                (Cmd.ENABLE, "worker", SUCCESS), (Cmd.START, "worker", SUCCESS),
                (Cmd.STOP, "nobody", NOT_FOUND)]
    clients = [HostileClient(machine, seed) for seed in range(hostile)]
    all_done = threading.Event()

    def be_hostile(number):
        for _ in range(misdeeds):
            clients[number].misbehave()

    def be_good():
        for count in itertools.count(1):
            for cmd, name, reply in expected:
                assert machine.request(cmd, name) == reply, (cmd, name)
            if all_done.is_set():
                return count * len(expected)

    with unharmed(machine), concurrent.futures.ThreadPoolExecutor(1) as pool:
        before = count_texts(machine)
        good = pool.submit(be_good)
        try:
            run_threads(be_hostile, hostile)
        finally:
            all_done.set()
        served = good.result()
        wait_until_idle(machine)
        assert connections(count_texts(machine) - before) == hostile * misdeeds + served
        print(f"\n{served} requests served among {hostile * misdeeds} hostile clients")


# -- Very many requests.


def count_descriptors(process):
    """Counts descriptors, even while they are opened and closed."""
    return len(os.listdir(f"/proc/{process.host_pid}/fd"))


def memory(process):
    """The process's own memory in KiB. Exact, unlike VmRSS, which the
    kernel only estimates."""
    lines = process.read("smaps_rollup").decode().splitlines()[1:]
    fields = dict(line.split(":") for line in lines)
    return int(fields["Anonymous"].split()[0])


def ask_for_status(directory, expected, count):
    """Requests the status of the worker `count` times. Runs in a process of its
    own."""
    for _ in range(count):
        assert exchange(directory, Cmd.STATUS, "worker") == expected


def test_many_requests_leave_one_line_each_and_nothing_else(launcher, is_long):
    total, first = (1_000_000, 10_000) if is_long else (20_000, 2_000)
    clients = 2
    process = launcher.process
    most_descriptors = count_descriptors(process) + 1  # the one that is being served
    expected = launcher.status("worker")
    before = count_texts(launcher)
    samples = []

    def sample():
        assert count_descriptors(process) <= most_descriptors
        samples.append(memory(process))

    begin = time.monotonic()
    with concurrent.futures.ProcessPoolExecutor(
            clients, multiprocessing.get_context("spawn")) as pool:
        ask = functools.partial(
            pool.submit, ask_for_status, launcher.tmp / "vornlaunch", expected)
        for each in [ask(first // clients) for _ in range(clients)]:
            each.result()
        waiting = [ask((total - first) // clients) for _ in range(clients)]
        sample()
        while waiting:
            done, waiting = concurrent.futures.wait(waiting, timeout=0.2)
            for each in done:
                each.result()
            sample()
    rate = total / (time.monotonic() - begin)
    wait_until_idle(launcher)
    new = count_texts(launcher) - before
    del new[log_texts.POLL_TIMEOUT]  # a busy machine may keep a client from closing
    assert new == {log_texts.command(Cmd.STATUS): total}
    # The sanitizer delays the release of memory, to detect uses after free.
    if not launcher.sanitized:
        assert max(samples) - samples[0] <= 64, samples
    print(f"\n{total} requests: {rate:.0f} a second; memory {samples[0]} KiB after "
          f"{first}, {samples[-1]} at the end, {len(samples)} samples")
