"""vornctl without a launcher, or with one that misbehaves."""

import contextlib
import fcntl
import itertools
import json
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess

import pytest

import support
from support import log_texts
from support.control import Cmd, State, pack_request
from support.process_tree import ProcessTree
from support.blocking import held, wait_until_blocked
from support.machine import PYTHON
from support.vornctl import VORNCTL, running
from support.waiting import eventually

SOCKET = "/tmp/vornlaunch/vornlaunch.sock"
MAY_TAKE_EFFECT = "; the request was delivered and may still take effect\n"
AS_NOBODY = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
needs_root = pytest.mark.skipif(
    os.geteuid() != 0, reason="no right to become another user")

# Every command that sends a request about a node.
COMMANDS = [
    ["status", "camera"], ["start", "camera"], ["stop", "camera"],
    ["restart", "camera"], ["enable", "camera"], ["enable", "--now", "camera"],
    ["disable", "camera"], ["wait", "camera", "--state", "running"],
    ["monitor", "camera"],
]
# The commands that only search for the launcher.
LOOKERS = [["ping"], ["names"], ["status"]]


def reply(result, pid=0, state=0, start=0):
    return struct.pack("=iIiiq", result, 0, pid, state, start).hex()


def answer(send="", read=132, end="close"):
    return {"read": read, "send": send, "end": end}


NOT_FOUND = answer(reply(1))
# Misbehaviour of a launcher, and the possible exit statuses.
WRONGS = {
    "no request is read": (answer(read=0), {5, 7}),
    "a part of the request is read": (answer(read=10), {7}),
    "the request is read": (answer(), {7}),
    "a reset": (answer(end="reset"), {7}),
    "1 byte": (answer("00"), {8}),
    "23 bytes": (answer("00" * 23), {8}),
    "23 bytes and a reset": (answer("00" * 23, end="reset"), {7, 8}),
    "result 3": (answer(reply(3)), {8}),
    "result -1": (answer(reply(-1)), {8}),
    "all bits": (answer("ff" * 24), {8}),
    "nothing": (answer(end="hold"), {7}),
    "23 bytes and no end": (answer("00" * 23, end="hold"), {7}),
}
WRONG_STATES = {
    "state 4": answer(reply(0, state=4)),
    "state -1": answer(reply(0, state=-1)),
    "pid -1": answer(reply(0, pid=-1)),
    "start -1": answer(reply(0, start=-1)),
    "the least start": answer(reply(0, start=-2 ** 63)),
}


def limit_for(what):
    """A short time limit for a connection that never ends."""
    return "200ms" if what["end"] == "hold" else "60s"


class FakeLauncher:
    """Another program instead of the launcher."""

    def __init__(self, machine, user=()):
        self._machine = machine
        self._counter = itertools.count()
        script = pathlib.Path(support.__file__).with_name("fake_launcher.py")
        path = machine.file("fake_launcher.py", script.read_bytes())
        machine.launch_file({"vornnode": {"camera": {"path": "/bin/true"}}})
        self.answers([NOT_FOUND])
        machine.start(arguments=["/tmp/launch.yaml"], wait_until_up=False,
                      wrapper=[*user, PYTHON, "-I", path])
        eventually(lambda: self._machine.execute(
            VORNCTL, "--trust-any-user", "ping").returncode == 0,
            "the fake launcher listens")

    def answers(self, answers):
        """Sets the actions for the next connections; the last one is for all later
        connections."""
        # A new file each time, so that the old one's inode number is not reused.
        name = f"answers.{next(self._counter)}"
        self._machine.file(name, json.dumps(answers))
        os.link(self._machine.tmp / name, self._machine.tmp / "answers.new")
        os.rename(self._machine.tmp / "answers.new", self._machine.tmp / "answers")

    @property
    def pid(self):
        return self._machine.pid

    def requests(self):
        """Every request that was read, as bytes."""
        text = (self._machine.tmp / "requests").read_text(encoding="ascii")
        return [bytes.fromhex(json.loads(line)) for line in text.splitlines()]

    def vornctl(self, *arguments, limit="60s"):
        """Runs vornctl with this time limit for replies."""
        options = [] if arguments == ("names",) else [
            "--launch-file", "/tmp/launch.yaml"]
        done = self._machine.vornctl(*options, *arguments, "--timeout", limit)
        assert done.stderr == "" or done.stderr.startswith("vornctl: ")
        return done


@pytest.fixture(name="fake_launcher")
def fixture_fake_launcher(machine):
    return FakeLauncher(machine)


def name_of(command):
    return " ".join(command)


def is_before_the_request(command, what):
    """Whether a missing reply to the status request is exit status 6: the action is not
    sent, or the wait times out."""
    if command[0] == "wait":
        return what["end"] == "hold"
    return command[0] in ("start", "stop", "restart", "enable", "disable")


@pytest.mark.parametrize("command", COMMANDS + LOOKERS, ids=name_of)
def test_an_immediate_misbehaviour_of_the_launcher_is_survived(fake_launcher, command):
    for wrong, (what, statuses) in WRONGS.items():
        if is_before_the_request(command, what):
            statuses = {6 if status == 7 else status for status in statuses}
        fake_launcher.answers([what])
        done = fake_launcher.vornctl(*command, limit=limit_for(what))
        assert done.returncode in statuses, wrong
        if done.returncode in (6, 7):
            assert "; nothing was changed" in done.stderr, wrong


def test_a_signal_during_a_request_ends_a_wait_without_a_message(machine, fake_launcher):
    fake_launcher.answers([NOT_FOUND, answer(end="hold")])
    before = len(fake_launcher.requests())
    with running(machine, "--launch-file", "/tmp/launch.yaml", "wait", "camera",
                 "--state", "running") as client:
        eventually(lambda: len(fake_launcher.requests()) == before + 2,
                   "vornctl requests the status of the node")
        client.signal(signal.SIGINT)
        assert client.end() == (6, "", "")


def status_before(command):
    """The reply to the status request that precedes this action, if any."""
    is_asked = command[0] in ("start", "stop", "enable", "disable")
    return [answer(reply(0))] * is_asked


@pytest.mark.parametrize("wrong", ["the request is read", "nothing"])
@pytest.mark.parametrize("command", ["start", "stop", "enable", "disable"])
def test_an_action_is_not_sent_without_a_reply_to_the_status_request(
        fake_launcher, command, wrong):
    what, _ = WRONGS[wrong]
    fake_launcher.answers([NOT_FOUND, what])
    done = fake_launcher.vornctl(command, "camera", limit=limit_for(what))
    assert (done.returncode, done.stdout) == (6, "")
    assert done.stderr.startswith("vornctl: camera: ")
    assert "; nothing was changed" in done.stderr
    sent = {struct.unpack_from("=I", request)[0]
            for request in fake_launcher.requests() if request}
    assert sent == {Cmd.STATUS}


@pytest.mark.parametrize("command", COMMANDS, ids=name_of)
def test_a_misbehaviour_of_the_launcher_later_is_survived(fake_launcher, command):
    wrongs = dict(WRONGS)
    if command[0] in ("status", "wait", "monitor"):
        wrongs |= {key: (what, {8}) for key, what in WRONG_STATES.items()}
    for wrong, (what, statuses) in wrongs.items():
        if command[0] == "wait" and what["end"] == "hold":
            statuses = {6}
        fake_launcher.answers([NOT_FOUND, *status_before(command), what])
        done = fake_launcher.vornctl(*command, limit=limit_for(what))
        assert done.returncode in statuses, wrong
        if statuses <= {6, 7}:
            assert done.stderr.endswith(MAY_TAKE_EFFECT), wrong


@pytest.mark.parametrize("command", [["start", "camera"], ["restart", "camera"]],
                         ids=name_of)
def test_a_failure_that_cannot_be_explained_refers_to_the_log(
        fake_launcher, command):
    for wrong, (what, _) in WRONGS.items():
        if what["end"] == "hold":
            continue  # the replies before it could be late as well
        fake_launcher.answers(
            [NOT_FOUND, *status_before(command), answer(reply(2)), what])
        done = fake_launcher.vornctl(*command)
        assert (done.returncode, done.stderr) == (
            1, f"vornctl: camera: {command[0]} failed: see the launcher's log\n"
        ), wrong


def test_a_stop_or_disable_that_fails_names_the_signal(fake_launcher):
    for command in ["stop", "disable"]:
        fake_launcher.answers([NOT_FOUND, answer(reply(2))])
        done = fake_launcher.vornctl(command, "camera")
        assert done.returncode == 1
        assert "the launcher could not signal its process" in done.stderr


@pytest.mark.parametrize("command", COMMANDS[:-1], ids=name_of)
def test_bytes_after_the_reply_are_not_read(fake_launcher, command):
    # Its own pid, as that of a process which exists.
    running_reply = reply(0, pid=fake_launcher.pid, state=1)
    fake_launcher.answers([NOT_FOUND, answer(running_reply + "ff")])
    assert fake_launcher.vornctl(*command).returncode == 0


@pytest.mark.parametrize("state", [0, 1, 2, 3])
def test_a_start_time_out_of_all_bounds_is_shown(fake_launcher, state):
    latest = 2 ** 63 - 1
    fake_launcher.answers([NOT_FOUND, answer(
        reply(0, pid=fake_launcher.pid, state=state, start=latest))])
    done = fake_launcher.vornctl("status", "camera", "-o", "started", "--no-header")
    assert (done.returncode, done.stdout) == (0 if state == 1 else 3, f"{latest}\n")


def test_the_padding_of_a_reply_is_ignored(fake_launcher):
    noise = struct.pack("=iIiiq", 0, 0xdeadbeef, 0, 3, 0).hex()
    fake_launcher.answers([NOT_FOUND, answer(noise)])
    done = fake_launcher.vornctl("status", "camera", "-o", "state", "--no-header")
    assert (done.returncode, done.stdout) == (3, "disabled\n")


def test_a_request_is_132_bytes_with_the_name_and_nuls(fake_launcher):
    fake_launcher.answers([NOT_FOUND, answer(reply(0))])
    assert fake_launcher.vornctl("stop", "camera").returncode == 0
    assert fake_launcher.requests()[-1] == (
        struct.pack("=I", Cmd.STOP) + b"camera".ljust(128, b"\0"))


def test_after_an_unknown_outcome_no_other_node_is_tried(fake_launcher):
    fake_launcher.answers([NOT_FOUND, answer(reply(0)), answer()])
    done = fake_launcher.vornctl("stop", "one", "two", "three")
    assert done.returncode == 7
    assert done.stderr.splitlines()[1] == "vornctl: 2 more nodes were not tried"


# -- A launcher of another user.


@needs_root
@pytest.mark.parametrize("command", COMMANDS + LOOKERS, ids=name_of)
def test_a_launcher_of_another_user_gets_no_data(machine, command):
    machine.tmp.chmod(0o1777)
    fake_launcher = FakeLauncher(machine, user=AS_NOBODY)
    before = len(fake_launcher.requests())
    done = fake_launcher.vornctl(*command)
    assert (done.returncode, done.stdout) == (9, "")
    assert done.stderr == (
        f"vornctl: the launcher on {SOCKET} belongs to user 65534, neither root "
        "nor you\n")
    assert fake_launcher.vornctl("--trust-any-user", "ping").returncode == 0
    # The refused connection was read before: it was empty.
    received = fake_launcher.requests()[before:]
    assert [len(request) for request in received] == [0, 132]


@needs_root
def test_the_users_own_launcher_is_trusted(machine):
    machine.tmp.chmod(0o1777)
    FakeLauncher(machine, user=AS_NOBODY)
    assert machine.execute(*AS_NOBODY, VORNCTL, "ping").returncode == 0


# -- Not enough descriptors.


@pytest.mark.plain  # a sanitizer needs some itself
def test_a_lack_of_descriptors_is_reported_and_hides_nothing(machine):
    path = machine.script("stay", "exec sleep 1000")
    machine.start({"vornnode": {"camera": {"path": path}}})
    for command in (["status"], ["names"], ["ps"], ["orphans"], ["why", "camera"],
                    ["logs", "-n", "1"], ["check", "/tmp/launch.yaml"]):
        usual = machine.vornctl(*command)
        for most in range(3, 10):
            done = machine.execute("prlimit", f"--nofile={most}", VORNCTL, *command)
            if "loading shared libraries" in done.stderr:
                continue
            lines = [len(run.stdout.splitlines()) for run in (usual, done)]
            if done.returncode == 0 and lines[0] == lines[1]:
                continue
            assert done.returncode in (1, 2, 5, 6), (most, done)
            assert re.fullmatch(r"(vornctl: .*: Too many open files\b.*\n)+",
                                done.stderr), (most, done)


# -- Not enough memory.


@pytest.mark.plain  # a sanitizer needs more addresses
@pytest.mark.parametrize("command", [
    ["status"], ["stop", "camera"], ["wait", "camera", "--state", "running"],
    ["monitor", "camera"]], ids=name_of)
@pytest.mark.usefixtures("fake_launcher")
def test_a_launch_file_that_does_not_fit_into_memory_is_reported(machine, command):
    path = machine.file("large.yaml", "a: [" + "b, " * 1_000_000)
    done = machine.execute("prlimit", f"--as={80 << 20}", VORNCTL,
                           f"--launch-file={path}", *command)
    assert (done.returncode, done.stdout, done.stderr) == (
        1, "", "vornctl: out of memory\n")


# -- No launcher.


@pytest.mark.parametrize("command", COMMANDS + LOOKERS, ids=name_of)
def test_no_launcher_is_exit_status_5(machine, command):
    machine.start(arguments=[], wait_until_up=False)
    machine.wait()
    done = machine.vornctl(*command)
    assert (done.returncode, done.stdout) == (5, "")
    assert done.stderr == (
        f"vornctl: no launcher is running: the socket {SOCKET} does not exist\n")


def test_a_terminated_launcher_is_exit_status_5(machine):
    machine.start({})
    machine.signal(signal.SIGKILL)
    machine.wait()
    done = machine.vornctl("status")
    assert (done.returncode, done.stderr) == (
        5, f"vornctl: no launcher is running: {SOCKET} is a stale socket, no "
        "process listens on it\n")


@pytest.mark.parametrize("command, status", [
    ("ping", 7), ("stop", 6)])
def test_a_launcher_that_exits_before_it_accepts_is_detected(machine, command, status):
    machine.start({"vornnode": {"camera": {"path": "/bin/true"}}})
    tree = ProcessTree(machine)
    tree.hold()
    with running(machine, command, *["camera"] * (command == "stop")) as client:
        client.wait_until_polling()
        tree.signal(signal.SIGKILL)
        assert client.end() == (
            status, "", "vornctl: no reply: Connection reset by peer; nothing was "
            f"changed: launcher {machine.pid} has exited\n")


def test_a_launcher_that_exits_during_a_request_is_detected(slow):
    with running(slow, "stop", "lidar", "camera") as client:
        slow.wait_for_log(log_texts.command(Cmd.STOP))
        slow.signal(signal.SIGKILL)
        status, out, errors = client.end()
    assert (status, out) == (7, "")
    assert errors.endswith(MAY_TAKE_EFFECT + "vornctl: 1 more nodes were not tried\n")


@needs_root
def test_a_socket_without_permission_is_exit_status_5(machine):
    machine.start({})
    machine.tmp.chmod(0o1777)
    (machine.tmp / "vornlaunch/vornlaunch.sock").chmod(0o600)
    done = machine.execute(*AS_NOBODY, VORNCTL, "ping")
    assert (done.returncode, done.stderr) == (
        5, f"vornctl: no permission to connect to {SOCKET}\n")


def test_another_socket_can_be_named(machine):
    machine.start({})
    (machine.tmp / "vornlaunch").rename(machine.tmp / "elsewhere")
    assert machine.vornctl("ping").returncode == 5
    assert machine.vornctl(
        "ping", "--socket", "/tmp/elsewhere/vornlaunch.sock").returncode == 0


# -- A busy launcher.


@contextlib.contextmanager
def full_queue(machine):
    """Within this context idle connections fill the queue of the launcher, which
    must not accept any."""
    directory = os.open(machine.tmp / "vornlaunch", os.O_PATH)
    with contextlib.ExitStack() as stack:
        stack.callback(os.close, directory)
        with contextlib.suppress(BlockingIOError):
            while True:
                client = stack.enter_context(
                    socket.socket(socket.AF_UNIX, socket.SOCK_STREAM))
                client.setblocking(False)
                client.connect(f"/proc/self/fd/{directory}/vornlaunch.sock")
        yield


@contextlib.contextmanager
def no_room(machine):
    """Within this context the launcher is blocked, and no connection can wait."""
    with held(machine), full_queue(machine):
        yield


def suspend(machine):
    """Stops the launcher with SIGSTOP."""
    machine.signal(signal.SIGSTOP)
    eventually(lambda: machine.process.state == "T", "the launcher is suspended")


@pytest.mark.parametrize("option", ["--connect-timeout", "--timeout"])
@pytest.mark.parametrize("command", COMMANDS[:3] + LOOKERS, ids=name_of)
def test_a_launcher_with_a_full_queue_is_exit_status_6(machine, command, option):
    machine.start({"vornnode": {"camera": {"path": "/bin/true"}}})
    before = len(machine.log())
    with no_room(machine):
        done = machine.vornctl(*command, option, "0.2s")
    assert (done.returncode, done.stdout) == (6, "")
    assert done.stderr.startswith(
        "vornctl: the launcher is busy: it accepted no connection within 0.2 s; "
        f"nothing was sent: launcher {machine.pid} waits for the request of another "
        "client")
    assert machine.vornctl("ping").returncode == 0
    # Only the last of these connections contains a request.
    texts = [line.text for line in machine.log()[before:]]
    assert sum(text.startswith("control cmd:") for text in texts) == 1


def test_the_connect_timeout_replaces_the_timeout_while_connecting(machine):
    machine.start({})
    suspend(machine)
    with full_queue(machine):
        done = machine.vornctl(
            "ping", "--timeout", "100ms", "--connect-timeout", "200ms")
    assert done.returncode == 6
    assert "it accepted no connection within 0.2 s" in done.stderr


def test_a_connection_waits_for_the_queue(machine):
    machine.start({})
    with contextlib.ExitStack() as stack:
        with no_room(machine):
            client = stack.enter_context(running(machine, "ping"))
        status, out, errors = client.end()
    assert (status, out.split()[0], errors) == (0, "launcher", "")


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_a_timeout_before_the_request_is_exit_status_6(machine, number):
    machine.start({})
    with no_room(machine), running(machine, "ping") as client:
        client.wait_until_polling()
        client.signal(number)
        assert client.end() == (
            6, "", "vornctl: given up before the request was sent\n")


@pytest.fixture(name="slow")
def fixture_slow(machine):
    """A launcher with nodes that exit only when /tmp/go exists."""
    path = machine.script(
        "slow", "trap 'while [ ! -e /tmp/go ]; do sleep 0.1; done; exit 0' TERM\n"
        "echo ready\nwhile :; do sleep 0.1; done")
    machine.start({"vornnode": {name: {"path": path}
                                for name in ("camera", "lidar")}})
    eventually(lambda: machine.stdout().count("ready") == 2, "they are ready")
    return machine


def is_stopped_all_the_same(machine):
    machine.file("go", "")
    machine.wait_for_state("lidar", State.STOPPED)
    # No request named the other node.
    return machine.status("camera").state == State.RUNNING


def test_no_reply_in_time_is_exit_status_7(slow):
    done = slow.vornctl("stop", "--timeout", "300ms", "lidar")
    assert (done.returncode, done.stdout, done.stderr) == (
        7, "", "vornctl: lidar: no reply within 0.3 s" + MAY_TAKE_EFFECT)
    assert is_stopped_all_the_same(slow)


def test_no_reply_to_the_status_request_leaves_an_action_unsent(machine):
    machine.start({"vornnode": {"camera": {"path": "/bin/true"}}})
    with held(machine):
        done = machine.vornctl("disable", "camera", "--timeout", "300ms")
    assert (done.returncode, done.stdout) == (6, "")
    assert done.stderr.startswith(
        "vornctl: no reply within 0.3 s; nothing was changed: launcher ")
    assert machine.status("camera").state != State.DISABLED


@contextlib.contextmanager
def asked(machine, cmd, name):
    """Within this context a client waits for the reply to this request."""
    with machine.connect() as client:
        client.sendall(pack_request(cmd, name))
        yield


def test_the_connect_timeout_bounds_the_time_to_the_first_reply(slow):
    # The connection is accepted at once by the kernel; the reply arrives after the stop
    # of the node.
    with asked(slow, Cmd.STOP, "lidar"):
        slow.wait_for_log(log_texts.command(Cmd.STOP))
        done = slow.vornctl("status", "--connect-timeout", "300ms")
    assert (done.returncode, done.stdout, done.stderr) == (
        7, "", f"vornctl: no reply within 0.3 s; nothing was changed: launcher "
        f"{slow.pid} is stopping a node, which takes up to 10 s, or waits for the "
        "'sleep' of a node\n")


def test_a_suspended_launcher_is_named_with_the_remedy(machine):
    machine.start({})
    suspend(machine)
    done = machine.vornctl("ping", "--timeout", "300ms")
    assert (done.returncode, done.stderr) == (
        7, "vornctl: no reply within 0.3 s; nothing was changed: launcher "
        f"{machine.pid} is suspended (state T); 'kill -CONT {machine.pid}' resumes "
        "it\n")


def test_a_suspended_launcher_with_a_full_queue_is_named(machine):
    machine.start({})
    suspend(machine)
    with full_queue(machine):
        done = machine.vornctl("ping", "--timeout", "200ms")
    assert (done.returncode, done.stderr) == (
        6, "vornctl: the launcher is busy: it accepted no connection within 0.2 s; "
        f"nothing was sent: launcher {machine.pid} is suspended (state T); 'kill "
        f"-CONT {machine.pid}' resumes it\n")


def explanation_while_a_client_blocks(machine):
    """The message of a ping while another client blocks the launcher, and the
    pid of that client."""
    client = machine.file("client.py", (
        "import os, socket, time\nclient = socket.socket(socket.AF_UNIX)\n"
        f"client.connect('{SOCKET}')\nprint(os.getpid(), flush=True)\n"
        "time.sleep(1000)\n"))
    with subprocess.Popen(machine.enter(PYTHON, "-I", client),
                          stdout=subprocess.PIPE) as process:
        pid = int(process.stdout.readline())
        try:
            wait_until_blocked(machine, "unix_stream")
            return machine.vornctl("ping", "--timeout", "300ms").stderr, pid
        finally:
            machine.run("kill", str(pid))


def test_a_client_that_blocks_the_launcher_is_named(machine):
    machine.start({})
    message, pid = explanation_while_a_client_blocks(machine)
    assert message == (
        "vornctl: no reply within 0.3 s; nothing was changed: launcher "
        f"{machine.pid} waits for the request of another client, process "
        f"{pid} ({pathlib.Path(PYTHON).name})\n")


def test_the_reader_of_the_log_is_not_named_as_the_client(machine):
    # As under a service manager, which reads the log from a Unix socket. The
    # reader has a lower pid than the client.
    wrapper = machine.file("log_reader.py", (
        "import os, socket, sys\nours, theirs = socket.socketpair()\n"
        "if os.fork() == 0:\n    theirs.close()\n"
        "    while ours.recv(4096):\n        pass\n    os._exit(0)\n"
        "os.dup2(theirs.fileno(), 2)\nos.execv(sys.argv[1], sys.argv[1:])\n"))
    machine.start({}, wrapper=[PYTHON, "-I", wrapper])
    message, pid = explanation_while_a_client_blocks(machine)
    assert f"waits for the request of another client, process {pid} (" in message


@pytest.mark.parametrize("kind", ["pipe", "socket"])
def test_a_launcher_whose_log_is_not_read_is_explained(machine, kind):
    with contextlib.ExitStack() as stack:
        if kind == "pipe":
            ends = os.pipe()
            for end in ends:
                stack.callback(os.close, end)
            fcntl.fcntl(ends[1], fcntl.F_SETPIPE_SZ, 4096)
            kernel_function = "pipe_write"
        else:
            ends = [stack.enter_context(end) for end in socket.socketpair()]
            ends[1].setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 4096)
            kernel_function = "sock_alloc_send"
        machine.start({}, stderr=ends[1])
        # One line of the log per request, until there is no room for the next.
        with subprocess.Popen(machine.enter(
                "sh", "-c", f"while {VORNCTL} ping -q; do :; done")) as client:
            wait_until_blocked(machine, kernel_function)
            done = machine.vornctl("ping", "--timeout", "300ms")
            client.kill()
    assert done.stderr == (
        "vornctl: no reply within 0.3 s; nothing was changed: launcher "
        f"{machine.pid} is blocked writing to its standard output or error: the "
        "process that reads it has stopped reading\n")


def test_a_launcher_that_a_cycle_blocks_is_reported(machine):
    path = machine.script("stay", "exec sleep 1000")
    machine.start({"vornnode": {"a": {"path": path, "required": ["b"]},
                                "b": {"path": path, "required": ["a"]}}})
    with asked(machine, Cmd.STOP, "a"):
        wait_until_blocked(machine, "futex")
        assert "probably by a cycle of 'required'" in (
            machine.vornctl("ping", "--timeout", "300ms").stderr)


def test_a_timeout_after_the_request_is_exit_status_7(slow):
    with running(slow, "stop", "lidar", "camera") as client:
        slow.wait_for_log(log_texts.command(Cmd.STOP))
        client.signal(signal.SIGINT)
        assert client.end() == (
            7, "", "vornctl: lidar: given up waiting for the reply" +
            MAY_TAKE_EFFECT + "vornctl: 1 more nodes were not tried\n")
    assert is_stopped_all_the_same(slow)


# -- The environment of vornctl.


def test_closed_standard_descriptors_do_not_change_the_effect(machine):
    path = machine.script("stay", "exec sleep 1000")
    machine.start({"vornnode": {x: {"path": path} for x in ("camera", "lidar")}})
    done = machine.execute(
        "sh", "-c", VORNCTL + " stop --all --yes <&- >&- 2>&-")
    assert done.returncode == 0
    assert {machine.status(x).state for x in ("camera", "lidar")} == {
        State.STOPPED}


@pytest.mark.parametrize("command", ["check", "graph"])
def test_a_closed_standard_input_cannot_be_read(machine, command):
    machine.start_without_launcher()
    done = machine.execute("sh", "-c", f"{VORNCTL} {command} - <&-")
    assert done.returncode == 2
    assert "cannot read <stdin>: Bad file descriptor" in done.stderr


@pytest.mark.parametrize("command", ["status", "names", "ping", "stop camera"])
def test_output_that_cannot_be_written_is_an_error(machine, command):
    machine.start({"vornnode": {"camera": {"path": "/bin/true"}}})
    done = machine.execute("sh", "-c", f"{VORNCTL} {command} >/dev/full")
    assert (done.returncode, done.stderr) == (
        1, "vornctl: cannot write to standard output\n")
