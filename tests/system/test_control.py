"""The control socket."""

import errno
import os
import re
import signal
import socket
import stat
import struct
import time

import pytest
from support.control import TIMEOUT, Cmd, Result, State
from support.control import pack_request, read_exactly, read_until_end
from support.control import unpack_response
from support.blocking import held, wait_until_blocked, wait_until_idle
from support.trace import QUICK, calls, injected
from support.waiting import eventually

SOCKET = "vornlaunch/vornlaunch.sock"


def cmd_name(cmd):
    return cmd.name


def worker(machine, **keys):
    """A launch file with a node that runs until it is told to end."""
    path = machine.script("worker", "exec sleep 1000")
    return {"vornnode": {"worker": {"path": path, **keys}}}


def start_unasked(machine, injection):
    """Starts the launcher with `injection`, of which no request has used up
    anything."""
    machine.start(worker(machine), strace=injected(injection),
                  wait_until_up=False)
    machine.wait_for_log("Node start 'worker' ok")


def raw_exchange(machine, data):
    """Everything that comes back after these bytes."""
    with machine.connect() as client:
        client.sendall(data)
        return read_until_end(client)


def received(machine):
    """The lines about refused requests, without the number of the error."""
    lines = [x for x in machine.log() if x.text.startswith("received: ")]
    assert all(x.head[:3] == ("ERROR", False, "controlHandler") for x in lines)
    return [re.sub(r" errno: \d+$", "", x.text) for x in lines]


# -- The commands.


def test_status_of_a_node_that_has_never_run_is_all_zero(machine):
    machine.start(worker(machine, autostart=False))
    assert raw_exchange(machine, pack_request(Cmd.STATUS, "worker")) == bytes(24)


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


def test_status_of_a_crashed_node_shows_no_pid_and_its_last_start(machine):
    path = machine.script("crasher", "exit 1")
    machine.start({"vornnode": {"crasher": {"path": path}}})
    machine.wait_for_log("Node 'crasher' ready to restarting")
    status = machine.status("crasher")
    assert (status.state, status.pid) == (State.RESTARTING, 0)
    assert abs(status.start_seconds - time.time()) < 3600


@pytest.mark.parametrize("cmd", Cmd, ids=cmd_name)
def test_a_name_in_another_case_is_not_found_by_any_command(machine, cmd):
    machine.start(worker(machine))
    before = machine.status("worker")
    reply = raw_exchange(machine, pack_request(cmd, "WORKER"))
    assert reply == struct.pack("=i20x", Result.NOT_FOUND)
    assert machine.status("worker") == before


@pytest.mark.parametrize("name", ["worke", "worker2", "worker ", ""])
def test_a_name_that_is_nearly_a_nodes_is_not_found(machine, name):
    machine.start(worker(machine))
    assert machine.status(name) == unpack_response(
        struct.pack("=i20x", Result.NOT_FOUND))


@pytest.mark.parametrize("cmd", [x for x in Cmd if x != Cmd.STATUS], ids=cmd_name)
def test_a_reply_holds_nothing_but_the_result(machine, cmd):
    machine.start(worker(machine))
    with machine.connect() as client:
        client.sendall(pack_request(cmd, "worker"))
        assert read_exactly(client, 24) == bytes(24)
    [line] = machine.log_lines(f"control cmd: {int(cmd)}")
    assert line.head[:3] == ("INFO", False, "controlHandler")


def test_a_failed_operation_is_reported_by_the_result_alone(machine):
    machine.start(worker(machine, disabled=True))
    reply = raw_exchange(machine, pack_request(Cmd.START, "worker"))
    assert reply == struct.pack("=i20x", Result.FAILED)


def test_enabling_an_enabled_node_succeeds_and_changes_nothing(machine):
    machine.start(worker(machine))
    before = machine.status("worker")
    assert machine.request(Cmd.ENABLE, "worker").result == Result.SUCCESS
    assert machine.status("worker") == before


@pytest.mark.parametrize("length", [127, 128])
def test_a_name_may_fill_the_field(machine, length):
    name = "n" * length
    machine.start({"vornnode": {
        name[:-1]: {"path": machine.script("worker", "exec sleep 1000")},
        name: {"path": "/tmp/bin/worker"},
        name + "n": {"path": "/tmp/bin/worker"}}})
    assert machine.request(Cmd.STOP, name).result == Result.SUCCESS
    machine.wait_for_log(f"Node '{name}' stoped")
    assert [x.text for x in machine.log() if "stoped" in x.text] == [
        f"Node '{name}' stoped"]


def test_what_follows_the_nul_of_a_name_is_ignored(machine):
    machine.start(worker(machine))
    reply = machine.request(Cmd.STATUS, b"worker\0" + b"\xff" * 121)
    assert (reply.result, reply.state) == (Result.SUCCESS, State.RUNNING)


# -- Requests that are none.


def test_a_client_that_closes_at_once_is_logged_with_0_bytes(machine):
    machine.start({})
    machine.connect().close()
    eventually(lambda: received(machine) == ["received: 0 expected: 132"], "the line")
    assert machine.request(Cmd.STATUS, "nobody").result == Result.NOT_FOUND


def test_a_client_that_ends_its_side_at_once_gets_no_reply(machine):
    machine.start({})
    with machine.connect() as client:
        client.shutdown(socket.SHUT_WR)
        assert read_until_end(client) == b""
    assert received(machine) == ["received: 0 expected: 132"]


@pytest.mark.parametrize("length", [1, 4, 66, 131])
def test_a_short_request_is_refused_without_a_reply(machine, length):
    machine.start(worker(machine))
    request = pack_request(Cmd.STOP, "worker")[:length]
    assert raw_exchange(machine, request) == b""
    assert received(machine) == [f"received: {length} expected: 132"]
    assert machine.status("worker").state == State.RUNNING


def test_a_request_in_two_writes_is_refused_after_the_first(machine):
    machine.start(worker(machine))
    request = pack_request(Cmd.STOP, "worker")
    with held(machine) as client:
        client.sendall(request[:4])
        assert read_until_end(client) == b""
        with pytest.raises(BrokenPipeError):
            client.sendall(request[4:])
    assert received(machine) == ["received: 4 expected: 132"]
    assert machine.status("worker").state == State.RUNNING


def test_a_long_request_is_served_from_its_first_132_bytes(machine):
    machine.start(worker(machine))
    stop = pack_request(Cmd.STOP, "worker")
    with machine.connect() as client:
        client.sendall(pack_request(Cmd.STATUS, "worker") + stop)
        assert unpack_response(read_exactly(client, 24)).state == State.RUNNING
        assert read_until_end(client) == b""
    assert machine.status("worker").state == State.RUNNING
    assert machine.log_lines("control cmd: 1") == []


@pytest.mark.parametrize("cmd,shown", [(6, 6), (4294967295, -1), (2147483648, -2**31)])
def test_an_unknown_command_is_logged_and_not_answered(machine, cmd, shown):
    machine.start(worker(machine))
    assert raw_exchange(machine, pack_request(cmd, "worker")) == b""
    assert [x.head for x in machine.log() if x.func == "controlHandler"][-2:] == [
        ("INFO", False, "controlHandler", f"control cmd: {shown}"),
        ("WARN", False, "controlHandler", f"unknow cmd: {shown}")]


# -- Holding the launcher, and being held.


def test_a_silent_client_holds_the_launcher_until_it_goes(machine):
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
    machine.wait_for_log("Node 'worker' ready to restarting")
    texts = [x.text for x in machine.log()[lines:]]
    assert texts[0].startswith("received: 0 expected: 132 errno: ")
    assert texts[1] == "control cmd: 3"


def test_clients_that_come_at_once_are_served_one_after_the_other(machine):
    machine.start(worker(machine))
    pid = machine.status("worker").pid
    requests = [Cmd.DISABLE, Cmd.STATUS, Cmd.START, Cmd.ENABLE, Cmd.START]
    with held(machine):
        clients = [machine.connect() for _ in requests]
        for client, cmd in zip(clients, requests):
            client.sendall(pack_request(cmd, "worker"))
    replies = [unpack_response(read_exactly(client, 24)) for client in clients]
    for client in clients:
        client.close()
    assert [reply.result for reply in replies] == [
        Result.SUCCESS, Result.SUCCESS, Result.FAILED, Result.SUCCESS, Result.SUCCESS]
    assert (replies[1].state, replies[1].pid) == (State.DISABLED, pid)
    texts = [x.text for x in machine.log() if x.text.startswith("control cmd: ")]
    assert texts[-5:] == [f"control cmd: {int(cmd)}" for cmd in requests]


def test_a_full_backlog_refuses_the_next_client_and_serves_the_others(machine):
    machine.start({})
    waiting = []
    folder = os.open(machine.tmp / "vornlaunch", os.O_PATH)
    with held(machine):
        with pytest.raises(BlockingIOError):
            while len(waiting) < 100:
                client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
                client.setblocking(False)
                client.connect(f"/proc/self/fd/{folder}/vornlaunch.sock")
                waiting.append(client)
        client.close()
    os.close(folder)
    assert len(waiting) == 6  # one more than the backlog of 5
    for client in waiting:
        client.settimeout(60)
        client.sendall(pack_request(Cmd.STATUS, "nobody"))
        reply = unpack_response(read_exactly(client, 24))
        assert reply.result == Result.NOT_FOUND
        client.close()


def test_a_client_that_stays_costs_one_poll_timeout_and_gets_its_reply(machine):
    machine.start(worker(machine), strace=[QUICK, "-e", "trace=poll"])
    before = len(machine.log_lines("poll timeout"))
    with machine.connect() as client:
        client.sendall(pack_request(Cmd.STATUS, "worker"))
        assert unpack_response(read_exactly(client, 24)).state == State.RUNNING
        [*_, line] = machine.wait_for_log("poll timeout", before + 1)
        assert line.head[:3] == ("WARN", False, "controlHandler")
        assert read_until_end(client) == b""
    wait_until_idle(machine)
    assert len(machine.log_lines("poll timeout")) == before + 1
    assert re.fullmatch(r"poll\(\[{fd=\d+, events=0}\], 1, 100\) = 0 \(Timeout\)",
                        calls(machine, "poll")[-1])


def test_a_client_that_hangs_up_in_time_leaves_no_line(machine):
    # The delay gives the client the time that a busy machine may take from it.
    start_unasked(machine, "poll:delay_enter=3000000:when=1")
    assert machine.status("worker").state == State.RUNNING
    eventually(lambda: "POLLHUP" in "".join(calls(machine, "poll")), "the hang-up")
    wait_until_idle(machine)
    assert machine.log()[-1].text == "control cmd: 3"


def test_a_child_started_by_start_keeps_the_connection_open(machine):
    machine.start(worker(machine, autostart=False))
    with machine.connect() as client:
        client.sendall(pack_request(Cmd.START, "worker"))
        assert read_exactly(client, 24) == bytes(24)
        # The next request is served after the launcher has closed its end.
        child = machine.child("worker", ["sleep", "1000"])
        opened = {fd: what for fd, what in child.descriptors.items() if fd > 2}
        assert [what.startswith("socket:") for what in opened.values()] == [True]
        client.setblocking(False)
        with pytest.raises(BlockingIOError):
            client.recv(1)
        client.settimeout(TIMEOUT)
        child.signal(signal.SIGKILL)
        assert read_until_end(client) == b""


# -- Failing system calls.


def test_a_failed_accept_is_silent_and_made_good(machine):
    start_unasked(machine, "accept:error=ECONNABORTED:when=1")
    assert machine.status("worker").state == State.RUNNING
    assert calls(machine, "accept")[0].endswith("(INJECTED)")
    [line] = [x for x in machine.log() if x.func == "controlHandler"][:1]
    assert line.text == "control cmd: 3"


def test_an_interrupted_reception_is_repeated(machine):
    start_unasked(machine, "recvfrom:error=EINTR:when=1")
    assert machine.status("worker").state == State.RUNNING
    assert received(machine) == []
    assert len(calls(machine, "recvfrom")) == 2


def test_a_failed_reception_is_logged_with_its_error(machine):
    start_unasked(machine, "recvfrom:error=ECONNRESET:when=1")
    with machine.connect() as client:
        assert read_until_end(client) == b""
    [line] = machine.wait_for_log(
        f"received: -1 expected: 132 errno: {errno.ECONNRESET}")
    assert line.head[:3] == ("ERROR", False, "controlHandler")
    assert machine.status("worker").state == State.RUNNING


def test_an_interrupted_send_is_repeated(machine):
    start_unasked(machine, "sendto:error=EINTR:when=1")
    assert machine.status("worker").state == State.RUNNING
    eventually(lambda: len(calls(machine, "sendto")) == 2, "the second send")


@pytest.mark.parametrize("fault,size", [("error=ENOBUFS", -1), ("retval=23", 23)])
def test_an_incomplete_send_is_logged_and_not_waited_for(machine, fault, size):
    machine.start(worker(machine), wait_until_up=False, strace=injected(
        f"sendto:{fault}:when=1", also="poll"))
    machine.wait_for_log("Node start 'worker' ok")
    assert raw_exchange(machine, pack_request(Cmd.STATUS, "worker")) == b""
    [line] = machine.wait_for_log(f"send fail, size: {size}")
    assert line.head[:3] == ("ERROR", False, "controlHandler")
    assert calls(machine, "poll") == []
    assert machine.log_lines("poll timeout") == []
    assert machine.status("worker").state == State.RUNNING


def test_a_client_gone_before_its_reply_does_not_end_the_launcher(machine):
    machine.start(worker(machine))
    with held(machine), machine.connect() as client:
        client.sendall(pack_request(Cmd.STATUS, "worker"))
    [line] = machine.wait_for_log("send fail, size: -1")
    assert line.head[:3] == ("ERROR", False, "controlHandler")
    assert machine.status("worker").state == State.RUNNING
    assert machine.stdout() == ""


def test_an_interrupted_wait_for_the_hang_up_is_repeated(machine):
    start_unasked(machine, "poll:error=EINTR:when=1")
    assert machine.status("worker").state == State.RUNNING
    eventually(lambda: len(calls(machine, "poll")) == 2, "the second poll")
    first, second = calls(machine, "poll")
    assert first.endswith("(INJECTED)") and "INJECTED" not in second


@pytest.mark.parametrize("fault", ["error=ENOMEM", "retval=1", "retval=0"])
def test_a_wait_without_a_hang_up_is_a_poll_timeout(machine, fault):
    start_unasked(machine, f"poll:{fault}:when=1")
    assert machine.status("worker").state == State.RUNNING
    [line] = machine.wait_for_log("poll timeout")
    assert line.head[:3] == ("WARN", False, "controlHandler")
    assert len(calls(machine, "poll")) == 1


@pytest.mark.parametrize("injection,head", [
    ("socket:error=EMFILE",
     ("ERROR", False, "createSocket",
      "Failed to open socket 'vornlaunch.sock': Too many open files")),
    ("bind:error=EADDRINUSE",
     ("ERROR", False, "createSocket",
      "Failed to bind socket 'vornlaunch.sock': Address already in use")),
    ("listen:error=EADDRINUSE", ("ERROR", False, "init", "listen failed")),
    ("epoll_ctl:error=ENOSPC:when=2",
     ("ERROR", False, "registerHandler", "epoll_ctl failed to add fd.")),
], ids=lambda x: x.split(":")[0] if isinstance(x, str) else "")
def test_without_a_control_socket_the_launcher_runs_on(machine, injection, head):
    start_unasked(machine, injection)
    assert [x for x in machine.heads() if x[0] == "ERROR"] == [head]
    # A socket that could not be bound leaves no file, the later steps do.
    left = injection.startswith(("listen", "epoll_ctl"))
    assert (machine.tmp / SOCKET).exists() == left
    with pytest.raises((FileNotFoundError, ConnectionRefusedError)):
        machine.connect()
    machine.signal(signal.SIGTERM)
    assert machine.wait() == 0


def test_a_listening_failure_is_logged_after_the_close(machine):
    machine.start({}, wait_until_up=False, strace=injected(
        "listen:error=EADDRINUSE", also="close,write"))
    machine.wait_for_log("listen failed")
    wait_until_idle(machine)
    trace = calls(machine)
    [failed] = [i for i, x in enumerate(trace) if x.startswith("listen(")]
    fd = trace[failed].removeprefix("listen(").split(",")[0]
    assert trace[failed + 1] == f"close({fd}) = 0"
    assert trace[failed + 2].startswith("write(2, ")


def test_flags_that_cannot_be_set_do_not_cost_the_control_socket(machine):
    # No shell, whose own calls would fail as well.
    machine.start({"vornnode": {"worker": {"path": "/bin/sleep", "argv": "1000"}}},
                  strace=injected("fcntl:error=EPERM"))
    assert machine.status("worker").state == State.RUNNING
    refused = [x for x in calls(machine, "fcntl") if x.endswith("(INJECTED)")]
    assert [x for x in refused if "F_SETFD, FD_CLOEXEC" in x]
    assert [x for x in refused if "F_SETFL, O_RDONLY|O_NONBLOCK" in x]


def test_a_failed_chmod_is_a_warning_only(machine):
    machine.start(worker(machine), strace=injected(
        "chmod,fchmodat:error=EPERM"))
    assert ("WARN", False, "createSocket",
            "chmod failed, error: Operation not permitted") in machine.heads()
    assert machine.status("worker").state == State.RUNNING


# -- The socket file.


def test_the_socket_is_open_to_every_local_user(machine):
    machine.start({})
    mode = (machine.tmp / SOCKET).stat().st_mode
    assert stat.S_ISSOCK(mode) and stat.S_IMODE(mode) == 0o666
    assert ("INFO", False, "createSocket",
            "Created socket '/tmp/vornlaunch/vornlaunch.sock' with mode '666'"
            ) in machine.heads()


def test_the_folder_gets_the_default_permissions(machine):
    machine.start({}, wrapper=["sh", "-c", 'umask 027; exec "$@"', "sh"])
    mode = (machine.tmp / "vornlaunch").stat().st_mode
    assert stat.S_IMODE(mode) == 0o750


def test_an_existing_folder_keeps_its_permissions(machine):
    (machine.tmp / "vornlaunch").mkdir(mode=0o711)
    machine.start({})
    assert stat.S_IMODE((machine.tmp / "vornlaunch").stat().st_mode) == 0o711


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGKILL],
                         ids=lambda number: number.name)
def test_the_socket_file_outlives_the_launcher(machine, number):
    machine.start({})
    machine.signal(number)
    machine.wait()
    assert stat.S_ISSOCK((machine.tmp / SOCKET).stat().st_mode)


@pytest.mark.parametrize("kind", ["socket", "file", "symbolic link to nowhere"])
def test_what_an_earlier_run_left_is_replaced_silently(machine, kind):
    (machine.tmp / "vornlaunch").mkdir()
    if kind == "socket":
        folder = os.open(machine.tmp / "vornlaunch", os.O_PATH)
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as stale:
            stale.bind(f"/proc/self/fd/{folder}/vornlaunch.sock")
        os.close(folder)
    elif kind == "file":
        machine.file(SOCKET, "stale")
    else:
        (machine.tmp / SOCKET).symlink_to("/tmp/nowhere")
    machine.start(worker(machine))
    assert machine.status("worker").state == State.RUNNING
    assert {x.level for x in machine.log() if x.func == "createSocket"} == {"INFO"}


def test_a_folder_in_the_sockets_place_leaves_the_launcher_without_one(machine):
    (machine.tmp / SOCKET).mkdir(parents=True)
    machine.start(worker(machine), wait_until_up=False)
    machine.wait_for_log("Node start 'worker' ok")
    assert ("ERROR", False, "createSocket", "Failed to unlink old socket "
            "'vornlaunch.sock': Is a directory") in machine.heads()
    assert (machine.tmp / SOCKET).is_dir()
    assert machine.log_lines("listen failed") == []
    assert not machine.has_ended


def test_a_folder_that_cannot_be_written_leaves_the_launcher_without_one(machine):
    (machine.tmp / "vornlaunch").mkdir(mode=0o555)
    without_override = ["setpriv", "--bounding-set=-dac_override", "--"]
    machine.start(worker(machine), wrapper=without_override, wait_until_up=False)
    machine.wait_for_log("Node start 'worker' ok")
    assert [x.head for x in machine.log() if x.func == "createSocket"] == [
        ("ERROR", False, "createSocket",
         "Failed to bind socket 'vornlaunch.sock': Permission denied")]
    assert list((machine.tmp / "vornlaunch").iterdir()) == []
    assert not machine.has_ended


def test_a_file_in_the_folders_place_ends_the_launcher_abnormally(machine):
    machine.file("vornlaunch", "not a folder")
    machine.start(worker(machine), wait_until_up=False)
    assert machine.wait() == -signal.SIGABRT
    assert "filesystem error" in machine.stderr()
    assert "[/tmp/vornlaunch]" in machine.stderr()
    assert machine.log_lines("Node start 'worker' ok") == []
