"""The system calls whose arguments and order matter, seen by strace."""

import re
import signal

import pytest

from support.control import (
    Cmd,
    Result,
    pack_request,
    read_exactly,
    unpack_response,
)
from support.trace import launcher_calls, read_trace, sa_flags
from support.waiting import eventually

STAY = "sleep 1000 &\nwait"
WAIT_FOR_GO = "while [ ! -e /tmp/go ]; do sleep 0.1; done"
STOP_AT_GO = f"trap '{WAIT_FOR_GO}; exit 0' TERM\nsleep 1000 &\nwait"


def run_node(machine, body, *calls, **options):
    """Starts the launcher with one node "worker", watching these calls of all
    processes."""
    machine.script("worker", body)
    options.setdefault("strace", ["-s", "200", "-e", "trace=" + ",".join(calls)])
    machine.start({"vornnode": {"worker": {"path": "/tmp/bin/worker"}}}, **options)


def named(calls, *names):
    return [call for call in calls if call.name in names]


def only(calls, pattern):
    """The one call that matches the pattern from its beginning to its end."""
    found = [call for call in calls if re.fullmatch(pattern, call.text)]
    assert len(found) == 1, f"{pattern}: {found} of {[call.text for call in calls]}"
    return found[0]


# -- The launcher's own descriptors and signals.


def test_the_event_loop_s_descriptor_is_closed_on_exec(machine):
    run_node(machine, STAY, "epoll_create1", "epoll_create")
    calls = named(launcher_calls(machine), "epoll_create1", "epoll_create")
    assert [call.text for call in calls] == ["epoll_create1(EPOLL_CLOEXEC)"]


@pytest.mark.native
def test_sigchld_and_sigterm_are_routed_to_a_watched_descriptor(machine):
    run_node(
        machine, STAY,
        "rt_sigaction", "rt_sigprocmask", "signalfd", "signalfd4", "epoll_ctl",
        "epoll_create1",
    )
    calls = launcher_calls(machine)
    loop = only(calls, r"epoll_create1\(EPOLL_CLOEXEC\)").number
    routed = [
        only(
            calls,
            r"rt_sigaction\(SIGCHLD, \{sa_handler=SIG_DFL, sa_mask=\[\], "
            + sa_flags("SA_NOCLDSTOP") + r"\}, NULL, 8\)",
        ),
        only(calls, r"rt_sigprocmask\(SIG_BLOCK, \[TERM CHLD\], NULL, 8\)"),
        only(calls, r"signalfd4?\(-1, \[TERM CHLD\], 8, SFD_CLOEXEC\)"),
    ]
    descriptor = routed[-1].number
    routed.append(
        only(
            calls,
            rf"epoll_ctl\({loop}, EPOLL_CTL_ADD, {descriptor}, "
            r"\{events=EPOLLIN, data=\{.*\}\}\)",
        )
    )
    positions = [calls.index(call) for call in routed]
    assert positions == sorted(positions)


def test_the_control_socket_is_made_step_by_step(machine):
    run_node(
        machine, STAY,
        "socket", "unlink", "unlinkat", "bind", "chmod", "fchmodat", "fcntl", "listen",
        "epoll_ctl", "epoll_create1",
    )
    calls = launcher_calls(machine)
    loop = only(calls, r"epoll_create1\(EPOLL_CLOEXEC\)").number
    begin = next(i for i, call in enumerate(calls) if call.name == "socket")
    assert calls[begin].text == "socket(AF_UNIX, SOCK_STREAM, 0)"
    fd = calls[begin].number
    path = '"/tmp/vornlaunch/vornlaunch.sock"'
    texts = [call.text for call in calls[begin + 1 : begin + 8]]
    assert texts[:-1] == [
        f"unlink({path})",
        f"bind({fd}, {{sa_family=AF_UNIX, sun_path={path}}}, 110)",
        f"chmod({path}, 0666)",
        f"fcntl({fd}, F_SETFD, FD_CLOEXEC)",
        f"fcntl({fd}, F_SETFL, O_RDONLY|O_NONBLOCK)",
        f"listen({fd}, 5)",
    ]
    assert re.fullmatch(
        rf"epoll_ctl\({loop}, EPOLL_CTL_ADD, {fd}, \{{events=EPOLLIN, data=.*\}}\)",
        texts[-1],
    )


# -- A connection.


def test_a_connection_is_one_request_one_reply_and_a_wait_for_the_hang_up(machine):
    run_node(
        machine, STAY,
        "accept", "accept4", "recvfrom", "read", "sendto", "write", "poll", "ppoll",
        "close", "socket", "fcntl",
    )
    listening = only(launcher_calls(machine), r"socket\(AF_UNIX, .*\)").number

    def whole_connection():
        """The calls on the first connection, up to its close."""
        calls = launcher_calls(machine)
        begin = next((i for i, c in enumerate(calls) if c.name == "accept"), None)
        if begin is None or calls[begin].result is None:
            return None
        its = rf"\w+\((\[\{{fd=)?{calls[begin].result}\b"
        calls = [calls[begin]] + [c for c in calls[begin:] if re.match(its, c.text)]
        end = next((i for i, c in enumerate(calls) if c.name == "close"), None)
        return calls[: end + 1] if end is not None else None

    accepted, received, sent, polled, _ = eventually(
        whole_connection, "a connection has been served"
    )
    fd = accepted.number
    assert re.fullmatch(rf"accept\({listening}, .*, \[110 => \d+\]\)", accepted.text)
    assert re.fullmatch(
        rf'recvfrom\({fd}, "\\3\\0\\0\\0.*"(\.\.\.)?, 132, 0, NULL, NULL\)',
        received.text,
    )
    assert received.number == 132
    assert re.fullmatch(rf'sendto\({fd}, ".*", 24, 0, NULL, 0\)', sent.text)
    assert sent.number == 24
    assert polled.text == f"poll([{{fd={fd}, events=0}}], 1, 100)"


# -- A child.


@pytest.mark.native
def test_a_child_prepares_its_signals_and_its_mask_before_the_exec(machine):
    run_node(machine, STAY, "rt_sigaction", "rt_sigprocmask", "umask", "execve")
    pid = machine.status("worker").pid

    def calls_up_to_the_exec():
        calls = [call for call in read_trace(machine) if call.pid == pid]
        position = next((i for i, c in enumerate(calls) if c.name == "execve"), None)
        return calls[: position + 1] if position is not None else None

    calls = eventually(calls_up_to_the_exec, "the child executes its program")
    default = r"rt_sigaction\({}, \{{sa_handler=SIG_DFL, sa_mask=\[\], sa_flags=.*"
    steps = [
        only(calls, default.format("SIGCHLD")),
        only(calls, default.format("SIGTERM")),
        only(calls, r"rt_sigprocmask\(SIG_UNBLOCK, \[TERM CHLD\], NULL, 8\)"),
        only(calls, r"umask\(077\)"),
        only(calls, r'execve\("/tmp/bin/worker", \["/tmp/bin/worker"\], .*\)'),
    ]
    positions = [calls.index(call) for call in steps]
    assert positions == sorted(positions)


def is_look_for_the_dead(call):
    """Whether it is a waitid(2) that neither blocks nor collects."""
    return re.fullmatch(
        r"waitid\(P_ALL, 0, .*, WNOHANG\|WEXITED\|WNOWAIT, NULL\)", call.text
    )


def dead_child_of(call):
    match = re.search(r"si_pid=(\d+)", call.arguments)
    return int(match[1]) if match else None


@pytest.mark.native
def test_a_dead_child_is_looked_at_before_it_is_collected(machine):
    machine.script("stay", STAY)
    machine.script("worker", "exit 3")
    machine.start(
        {"vornnode": {n: {"path": f"/tmp/bin/{n}"} for n in ("stay", "worker")}},
        strace=["-s", "200", "-e", "trace=waitid,wait4,clock_nanosleep,write"],
    )
    machine.wait_for_log("Node 'worker' ready to restarting")

    def whole_collection():
        calls = [
            call
            for call in launcher_calls(machine)
            if call.name != "write" or call.text.startswith("write(2, ")
        ]
        begin = next((i for i, c in enumerate(calls) if c.name == "waitid"), len(calls))
        end = next(
            (
                i
                for i, c in enumerate(calls[begin:], begin)
                if c.name == "waitid" and c.result and dead_child_of(c) is None
            ),
            None,
        )
        return calls[begin : end + 1] if end is not None else None

    calls = eventually(whole_collection, "no dead child is left")
    # The node hears of it between the two.
    assert [call.name for call in calls] == [
        "waitid", "write", "write", "write", "wait4", "clock_nanosleep", "waitid",
    ]
    assert is_look_for_the_dead(calls[0])
    pid = dead_child_of(calls[0])
    assert "ready to restarting" in calls[3].text
    assert calls[4].text == f"wait4({pid}, NULL, WNOHANG, NULL)"
    assert calls[4].number == pid
    assert "tv_sec=0, tv_nsec=1000000}" in calls[5].text
    assert is_look_for_the_dead(calls[6])


def run_three_that_end_together(machine):
    """Lets three nodes end while a silent client holds the launcher."""
    machine.script("quick", f"{WAIT_FOR_GO}\nexit 0")
    names = [f"quick{i}" for i in range(3)]
    machine.start(
        {"vornnode": {name: {"path": "/tmp/bin/quick", "oneshot": True}
                      for name in names}},
        strace=["-e", "trace=accept,read,waitid,wait4,clock_nanosleep"],
    )
    pids = {machine.status(name).pid for name in names}
    served = len(finished_accepts(machine))
    with machine.connect():
        eventually(
            lambda: len(finished_accepts(machine)) > served, "the launcher is held"
        )
        machine.file("go", "")
        eventually(
            lambda: pids <= {p.pid for p in machine.processes() if p.state == "Z"},
            "all three are zombies",
        )
    for name in names:
        machine.wait_for_log(f"Node '{name}' disabled!")
    return pids


def finished_accepts(machine):
    return [c for c in named(launcher_calls(machine), "accept") if c.result]


def test_children_that_die_together_are_collected_at_one_notification(machine):
    pids = run_three_that_end_together(machine)

    def whole_collection():
        calls = named(
            launcher_calls(machine), "read", "waitid", "wait4", "clock_nanosleep"
        )
        begin = next(
            (i for i, c in enumerate(calls) if re.search(r', "\\21\\0.*, 128', c.text)),
            len(calls),
        )
        return calls[begin:] if len(named(calls[begin:], "waitid")) == 4 else None

    calls = eventually(whole_collection, "all have been collected")
    assert [call.name for call in calls] == [
        "read", *(3 * ["waitid", "wait4", "clock_nanosleep"]), "waitid",
    ]
    assert calls[0].text.endswith(", 128)")
    assert {call.number for call in named(calls, "wait4")} == pids
    for pause in named(calls, "clock_nanosleep"):
        assert "tv_sec=0, tv_nsec=1000000}" in pause.text


# -- A stop.


def stop_slowly(machine, pid):
    """Stops the worker, which ends only after two pauses of the launcher."""
    eventually(
        lambda: any(
            p.name == "sleep" and p.parent == machine.find_process(pid).host_pid
            for p in machine.processes()
        ),
        "the worker has set its trap",
    )
    with machine.connect() as client:
        client.sendall(pack_request(Cmd.STOP, "worker"))
        eventually(
            lambda: sum(is_stop_pause(call) for call in launcher_calls(machine)) >= 2,
            "the launcher has paused twice",
        )
        machine.file("go", "")
        assert unpack_response(read_exactly(client, 24)).result == Result.SUCCESS
    machine.wait_for_log("Node 'worker' stoped")


def is_stop_pause(call):
    return call.name == "clock_nanosleep" and "tv_nsec=200000000}" in call.text


def shell_command(call):
    """The text that a call hands to the shell; None if it does not."""
    if call.name != "execve":
        return None
    match = re.match(
        r'"/bin/sh", \["sh", "-c", (?:"--", )?"(.*)"\], ', call.arguments
    )
    return match[1].replace('\\"', '"') if match else None


def stop_event(call, launcher, pid):
    """What a call means for the stop of the child `pid`; None for nothing."""
    if (command := shell_command(call)) is not None:
        return {
            f"ps -A -o stat,pid| grep  '^[zZ]' | grep -c \"{pid}\"": "zombie?",
            f"ps -A -o stat,pid | grep -c \"{pid}\"": "present?",
        }.get(command, f"unknown command {command}")
    if call.name == "end" and call.pid == pid:
        return "dead"
    if call.pid != launcher:
        return None
    if call.name == "kill":
        return call.text.replace(f"kill({pid}, ", "kill(")
    if is_stop_pause(call):
        return "pause"
    if call.text.startswith(f"wait4({pid}, "):
        return "collected"
    return None


@pytest.fixture(name="stop_events")
def fixture_stop_events(machine):
    """What happened in a slow stop, in its order."""
    run_node(machine, STOP_AT_GO, "execve", "kill", "clock_nanosleep", "wait4")
    pid = machine.status("worker").pid
    stop_slowly(machine, pid)

    def whole_stop():
        events = [stop_event(call, machine.pid, pid) for call in read_trace(machine)]
        return [e for e in events if e] if "collected" in events else None

    return eventually(whole_stop, "the worker has been collected")


def test_a_stop_alternates_its_two_fixed_commands_with_pauses(stop_events):
    looks = [e for e in stop_events if e != "dead"]
    assert looks[0] == "kill(SIGTERM)"
    passes = looks[1 : looks.index("kill(SIGKILL)")]
    # The last look has found it dead.
    whole_passes, rest = divmod(len(passes), 3)
    assert whole_passes >= 2 and rest == 1
    assert passes == whole_passes * ["zombie?", "present?", "pause"] + ["zombie?"]


def test_a_stop_sends_sigkill_to_the_zombie_before_it_is_collected(stop_events):
    looks = ("zombie?", "present?", "pause")
    milestones = [e for e in stop_events if e not in looks]
    assert milestones == ["kill(SIGTERM)", "dead", "kill(SIGKILL)", "collected"]


def test_the_launcher_s_end_by_sigint_sends_no_signal(machine):
    run_node(machine, STAY, "kill", "tkill", "tgkill")
    machine.signal(signal.SIGINT)
    assert machine.wait() == 0
    calls = eventually(
        lambda: named(launcher_calls(machine), "end") and launcher_calls(machine),
        "strace has seen the end",
    )
    assert not named(calls, "kill", "tkill", "tgkill")


@pytest.mark.parametrize(
    "number, closes", [(signal.SIGINT, 1), (signal.SIGTERM, 0)],
    ids=["sigint", "sigterm"],
)
def test_the_event_loop_is_closed_by_the_loop_s_end_and_not_by_sigterm(
    machine, number, closes
):
    run_node(machine, STAY, "epoll_create1", "close")
    machine.signal(number)
    assert machine.wait() == 0
    calls = eventually(
        lambda: named(launcher_calls(machine), "end") and launcher_calls(machine),
        "strace has seen the end",
    )
    created = only(calls, r"epoll_create1\(.*\)")
    later = calls[calls.index(created) :]
    closed = [call for call in later if call.text == f"close({created.number})"]
    assert len(closed) == closes
