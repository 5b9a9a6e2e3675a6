"""vornctl.py with the real launcher, and with other programs at its socket."""

import importlib.util
import os
import pathlib
import signal
import socket
import stat
import struct
import threading

import pytest

from support import log_texts
from support.control import REQUEST, RESPONSE, Cmd, State

SOURCE = pathlib.Path(__file__).resolve().parents[2] / "libvornclient/vornctl.py"
STAY = "sleep 1000 &\nwait"


def load_module():
    spec = importlib.util.spec_from_file_location("vornctl", SOURCE)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


vornctl = load_module()


@pytest.fixture(name="launcher")
def fixture_launcher(machine):
    """A client of a launcher with one node "worker" that runs."""
    machine.script("worker", STAY)
    machine.start({"vornnode": {"worker": {"path": "/tmp/bin/worker"}}})
    # The path is too long for a socket address; a link in /proc is not.
    directory = os.open(machine.tmp / "vornlaunch", os.O_PATH)
    yield vornctl.Launcher(f"/proc/self/fd/{directory}/vornlaunch.sock")
    os.close(directory)


@pytest.fixture(name="server")
def fixture_server():
    """A listening socket instead of the launcher's, in the abstract namespace."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listening:
        listening.bind(f"\0vornctl-test-{os.getpid()}-{id(listening)}")
        listening.listen(1)
        yield listening


def answering(server, *replies):
    """A client of `server`, which answers each request with these bytes; None leaves
    the connection open without a reply."""
    kept = []

    def serve():
        for reply in replies:
            connection, _ = server.accept()
            connection.recv(REQUEST.size)
            if reply is None:
                kept.append(connection)
            else:
                with connection:
                    connection.sendall(reply)

    threading.Thread(target=serve, daemon=True).start()
    client = vornctl.Launcher(server.getsockname(), reply_limit=60)
    client.kept = kept
    return client


def reply(result=0, pid=0, state=0, start=0):
    return RESPONSE.pack(result, 0, pid, state, start)


# -- The six commands.


def test_status_returns_state_pid_and_last_start(machine, launcher):
    expected = machine.status("worker")
    assert launcher.status("worker") == vornctl.Status(
        vornctl.State.RUNNING, expected.pid, expected.start_seconds
    )


def test_stop_and_start_act_on_the_node(machine, launcher):
    launcher.stop("worker")
    machine.wait_for_state("worker", State.STOPPED)
    launcher.start("worker")
    machine.wait_for_state("worker", State.RUNNING)


def test_restart_gives_the_node_a_new_process(machine, launcher):
    before = machine.status("worker").pid
    launcher.restart("worker")
    assert machine.status("worker").pid not in (0, before)


def test_disable_refuses_starts_until_enable(machine, launcher):
    launcher.disable("worker")
    with pytest.raises(vornctl.Failed):
        launcher.start("worker")
    launcher.enable("worker")
    launcher.start("worker")
    assert machine.status("worker").state == State.RUNNING


def test_an_unknown_node_is_an_exception(launcher):
    with pytest.raises(vornctl.NotFound, match="ghost"):
        launcher.status("ghost")


def test_the_launcher_sees_a_client_that_closes_at_once(machine, launcher):
    for _ in range(50):
        launcher.status("worker")
    assert machine.log_lines(log_texts.POLL_TIMEOUT) == []


def test_many_calls_leave_no_descriptor_open(launcher):
    before = os.listdir("/proc/self/fd")
    for _ in range(1000):
        launcher.status("worker")
    assert len(os.listdir("/proc/self/fd")) == len(before)


def test_the_defaults_are_the_launchers_socket_and_the_documented_limits():
    client = vornctl.Launcher()
    assert client.path == "/tmp/vornlaunch/vornlaunch.sock"
    assert (client.connect_limit, client.reply_limit) == (30.0, 300.0)
    assert client.trust_any_user is False


def test_every_public_name_exists():
    assert [name for name in vornctl.__all__ if not hasattr(vornctl, name)] == []


def test_the_states_have_the_numbers_of_the_protocol():
    assert dict(vornctl.State.__members__) == dict(State.__members__)


# -- Requests.


def test_the_request_is_the_command_and_the_name(server):
    received = []

    def serve():
        connection, _ = server.accept()
        with connection:
            received.append(connection.recv(4096))
            connection.sendall(reply())

    thread = threading.Thread(target=serve)
    thread.start()
    vornctl.Launcher(server.getsockname()).enable("plänner")
    thread.join()
    assert received == [REQUEST.pack(Cmd.ENABLE, "plänner".encode())]


def test_a_signal_before_the_call_leaves_no_signal_blocked(server, monkeypatch):
    class Interrupt(Exception):
        pass

    original = signal.pthread_sigmask

    def mask(how, signals):
        if how == signal.SIG_BLOCK and signals:
            # A handler runs at the end of the call that blocks the signal.
            original(how, signals)
            raise Interrupt
        return original(how, signals)

    monkeypatch.setattr(signal, "pthread_sigmask", mask)
    before = original(signal.SIG_BLOCK, ())
    with pytest.raises(Interrupt):
        vornctl.Launcher(server.getsockname()).start("worker")
    assert original(signal.SIG_BLOCK, ()) == before


def test_a_name_of_127_bytes_is_sent_and_one_of_128_is_not(server):
    client = answering(server, reply())
    client.start("n" * 127)
    with pytest.raises(vornctl.InvalidName, match="127 bytes; this one has 128"):
        client.start("n" * 128)


def test_a_name_with_a_nul_is_not_sent():
    with pytest.raises(vornctl.InvalidName, match="no NUL byte"):
        vornctl.Launcher("/nonexistent").start("a\0b")


def test_a_name_that_cannot_be_encoded_is_not_sent():
    with pytest.raises(vornctl.InvalidName, match="cannot be encoded"):
        vornctl.Launcher("/nonexistent").start("\ud800")


def test_signals_are_blocked_between_connect_and_send(server, monkeypatch):
    masks = []
    original = vornctl.Launcher._check_user

    def check(self, client):
        masks.append(signal.pthread_sigmask(signal.SIG_BLOCK, []))
        original(self, client)

    monkeypatch.setattr(vornctl.Launcher, "_check_user", check)
    before = signal.pthread_sigmask(signal.SIG_BLOCK, [])
    answering(server, reply()).start("worker")
    assert masks[0] >= {signal.SIGTSTP, signal.SIGTERM, signal.SIGINT}
    assert signal.pthread_sigmask(signal.SIG_BLOCK, []) == before


# -- Errors.


def test_a_missing_socket_is_a_missing_launcher():
    with pytest.raises(vornctl.NoLauncher, match="No such file"):
        vornctl.Launcher("/nonexistent").status("worker")


def test_a_socket_without_a_listener_is_a_missing_launcher(tmp_path):
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as left:
        directory = os.open(tmp_path, os.O_PATH)
        path = f"/proc/self/fd/{directory}/left"
        left.bind(path)
    with pytest.raises(vornctl.NoLauncher, match="refused"):
        vornctl.Launcher(path).status("worker")
    os.close(directory)


def test_a_full_queue_is_a_timeout_after_the_limit(server):
    server.listen(0)
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as waiting:
        waiting.connect(server.getsockname())
        client = vornctl.Launcher(server.getsockname(), connect_limit=0.2)
        with pytest.raises(vornctl.NotSent, match="nothing was sent"):
            client.start("worker")


def test_a_listener_of_another_user_is_refused(server, monkeypatch):
    monkeypatch.setattr(vornctl, "_CREDENTIALS", OtherUser)
    client = vornctl.Launcher(server.getsockname())
    with pytest.raises(vornctl.Untrusted, match="user 4242, neither root nor you"):
        client.start("worker")
    connection, _ = server.accept()
    with connection:
        assert connection.recv(1) == b""


@pytest.fixture(name="link")
def fixture_link(tmp_path):
    """A short path of a symbolic link to nothing."""
    directory = os.open(tmp_path, os.O_PATH)
    path = f"/proc/self/fd/{directory}/link"
    os.symlink("nothing", path)
    yield path
    os.close(directory)


def pretend_owner(monkeypatch, path, uid):
    status = list(os.lstat(path))[:10]
    status[stat.ST_UID] = uid
    monkeypatch.setattr(os, "lstat", {path: os.stat_result(status)}.get)


def test_a_symbolic_link_of_another_user_is_not_connected_to(link, monkeypatch):
    owner = os.geteuid() + 1000
    pretend_owner(monkeypatch, link, owner)
    with pytest.raises(vornctl.Untrusted) as caught:
        vornctl.Launcher(link).start("worker")
    assert str(caught.value) == (
        f"{link} is a symbolic link that belongs to user {owner}, neither root nor "
        "you; remove it, or use the path of the launcher's own socket")
    with pytest.raises(vornctl.NoLauncher, match="No such file"):
        vornctl.Launcher(link, trust_any_user=True).start("worker")


@pytest.mark.parametrize("owner", [0, os.geteuid()], ids=["root", "ourselves"])
def test_a_symbolic_link_of_root_or_ourselves_is_followed(link, monkeypatch, owner):
    pretend_owner(monkeypatch, link, owner)
    with pytest.raises(vornctl.NoLauncher, match="No such file"):
        vornctl.Launcher(link).start("worker")


class OtherUser:
    """Replaces the credentials by those of another user."""

    size = struct.calcsize("=iII")

    @staticmethod
    def unpack(_):
        return (1, 4242, 4242)


@pytest.mark.parametrize(
    "bytes_, error, text",
    [
        (b"", "UnknownOutcome", "hung up without a reply; the request was"),
        (reply()[:23], "ProtocolError", "after 23 of 24 bytes; the request was"),
        (reply(result=3), "ProtocolError", "unknown result 3; the request was"),
        (reply(state=4), "ProtocolError", "the state 4"),
        (reply(pid=-1), "ProtocolError", "the pid -1"),
        (reply(start=-1), "ProtocolError", "the start -1"),
        (reply(result=1), "NotFound", "worker"),
        (reply(result=2), "Failed", "worker"),
    ],
)
def test_a_bad_reply_is_an_exception(server, bytes_, error, text):
    with pytest.raises(getattr(vornctl, error), match=text):
        answering(server, bytes_).status("worker")


def test_a_node_that_never_started_has_neither_process_nor_time(server):
    status = answering(server, reply()).status("worker")
    assert status == vornctl.Status(vornctl.State.STOPPED, 0, 0)


def test_a_reply_is_24_bytes_whatever_follows(server):
    client = answering(server, reply(pid=7, state=1) + b"more")
    assert client.status("worker").pid == 7


def test_no_reply_in_time_leaves_the_outcome_unknown(server):
    client = answering(server, None)
    client.reply_limit = 0.2
    with pytest.raises(vornctl.UnknownOutcome, match="no reply within 0.2 s; the req"):
        client.stop("worker")


def test_a_connection_that_is_reset_leaves_the_outcome_unknown(server):
    def reset():
        connection, _ = server.accept()
        with connection:
            # The end of the connection discards the request.
            connection.recv(1, socket.MSG_PEEK)

    thread = threading.Thread(target=reset)
    thread.start()
    with pytest.raises(vornctl.UnknownOutcome, match="reset by peer; the request was"):
        vornctl.Launcher(server.getsockname(), reply_limit=60).stop("worker")
    thread.join()


def test_a_request_that_is_sent_in_part_has_no_effect(server, monkeypatch):
    monkeypatch.setattr(vornctl._Connection, "send", lambda *_: 1)
    with pytest.raises(vornctl.NoLauncher, match="could not be sent in one piece"):
        vornctl.Launcher(server.getsockname()).start("worker")


def test_ctrl_c_before_the_request_claims_no_effect(server, monkeypatch):
    monkeypatch.setattr(vornctl.Launcher, "_check_path",
                        lambda _: signal.raise_signal(signal.SIGINT))
    with pytest.raises(KeyboardInterrupt) as caught:
        vornctl.Launcher(server.getsockname()).stop("worker")
    assert str(caught.value) == ""


def test_ctrl_c_after_the_request_says_that_it_was_delivered(server):
    def interrupt():
        connection, _ = server.accept()
        with connection:
            connection.recv(REQUEST.size)
            signal.pthread_kill(threading.main_thread().ident, signal.SIGINT)
            connection.recv(1)

    thread = threading.Thread(target=interrupt)
    thread.start()
    with pytest.raises(KeyboardInterrupt, match="delivered and may still take effect"):
        vornctl.Launcher(server.getsockname(), reply_limit=60).stop("worker")
    thread.join()


def test_ctrl_c_while_the_request_is_sent_says_that_it_was_delivered(
        server, monkeypatch):
    monkeypatch.setattr(vornctl.Launcher, "_check_user",
                        lambda *_: signal.raise_signal(signal.SIGINT))
    with pytest.raises(KeyboardInterrupt, match="delivered and may still take effect"):
        vornctl.Launcher(server.getsockname()).stop("worker")
