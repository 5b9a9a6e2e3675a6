"""From the command line to the first wait."""

import re
import signal
import subprocess

import pytest

from support import log_texts
from support.control import Result, State
from support.trace import launcher_calls, parse_trace, sa_flags
from support.waiting import eventually

USAGE = "Usage: \n  vornlaunch launch.yaml\n\n\n"
FATAL_SIGNALS = [
    "SIGTERM", "SIGQUIT", "SIGHUP", "SIGSEGV", "SIGBUS", "SIGABRT", "SIGILL",
    "SIGFPE", "SIGINT", "SIGABRT", "SIGTRAP", "SIGPIPE",
]
# The results of strsignal() for the numbers 0 to 11.
DESCRIPTIONS = [
    "Unknown signal 0", "Hangup", "Interrupt", "Quit", "Illegal instruction",
    "Trace/breakpoint trap", "Aborted", "Bus error", "Floating point exception",
    "Killed", "User defined signal 1", "Segmentation fault",
]
# Removes root's capability to bypass permissions.
OBEYING_PERMISSIONS = ["setpriv", "--bounding-set=-dac_override,-dac_read_search"]


def worker(machine):
    """A launch file with one node that runs until it is stopped."""
    machine.script("worker", "exec sleep 1000")
    return {"vornnode": {"worker": {"path": "/tmp/bin/worker"}}}


def run_to_the_end(machine, *arguments, **options):
    """Runs the launcher with these arguments; returns its exit status."""
    machine.start(arguments=list(arguments), wait_until_up=False, **options)
    return machine.wait()


def trace_at_the_end(machine):
    """The launcher's calls, after it has exited and strace has written all of them."""

    def whole():
        calls = launcher_calls(machine)
        return calls if calls and calls[-1].name == "end" else None

    return eventually(whole, "strace has seen the end")


# -- The command line.


@pytest.mark.parametrize(
    "arguments",
    [[], ["launch.yaml", "launch.yaml"]],
    ids=["none", "two"],
)
def test_a_wrong_number_of_arguments_prints_the_usage_and_exits_with_1(
    machine, arguments
):
    assert run_to_the_end(machine, *arguments) == 1
    assert machine.stdout() == USAGE
    assert machine.stderr() == ""


# -- The fatal signals.


def count_before_arming(program, directory):
    """How many rt_sigaction calls the process makes before the launcher's
    first; a sanitizer has some of its own."""
    output = directory / "arming.log"
    subprocess.run(
        ["strace", "-f", "-o", str(output), "-e", "trace=rt_sigaction", str(program)],
        stdout=subprocess.DEVNULL, check=False, timeout=60,
    )
    calls = parse_trace(output.read_text(encoding="utf-8"))
    return next(i for i, c in enumerate(calls) if c.arguments.startswith("SIGTERM"))


@pytest.mark.native
def test_the_twelve_fatal_signals_are_armed_in_order(machine):
    run_to_the_end(machine, strace=["-e", "trace=rt_sigaction"])
    calls = [call for call in trace_at_the_end(machine) if call.name == "rt_sigaction"]
    armed = [call.arguments for call in calls[-len(FATAL_SIGNALS) :]]
    assert [arguments.split(",")[0] for arguments in armed] == FATAL_SIGNALS
    actions = [
        re.fullmatch(
            r"SIG\w+, \{sa_handler=(0x[0-9a-f]+), sa_mask=\[\], "
            + sa_flags() + r"\}, NULL, 8",
            arguments,
        )
        for arguments in armed
    ]
    assert all(actions), armed
    assert len({action[1] for action in actions}) == 1, "one handler for all"


@pytest.mark.native
def test_refused_fatal_signals_are_reported_by_list_index_and_the_nodes_start(
    machine, program, tmp_path
):
    first = count_before_arming(program, tmp_path) + 1
    # Of the SIGCHLD calls that follow, none is refused.
    last = first + len(FATAL_SIGNALS) - 1
    machine.start(
        worker(machine),
        strace=[
            "-e", "trace=rt_sigaction",
            "-e", f"inject=rt_sigaction:error=EINVAL:when={first}..{last}",
        ],
    )
    assert machine.status("worker").state == State.RUNNING
    machine.signal(signal.SIGTERM)
    assert machine.wait() == 0
    assert machine.stdout() == "".join(
        f"Failed to setup fatal sigaction({text})\n" for text in DESCRIPTIONS
    )


# -- The launch file's existence.


@pytest.mark.parametrize("path", ["/tmp/missing.yaml", ""], ids=["path", "empty"])
def test_a_missing_launch_file_is_one_event_line_and_status_0(machine, path):
    assert run_to_the_end(machine, path) == 0
    assert machine.heads() == [
        ("ERROR", True, "main", f"No launch file exists: {path}")
    ]
    assert machine.stderr().count("\n") == 1
    assert machine.stdout() == ""


def test_a_launch_file_whose_existence_is_unknown_aborts_the_launcher(machine):
    (machine.tmp / "loop").symlink_to("/tmp/loop")
    assert run_to_the_end(machine, "/tmp/loop") == -signal.SIGABRT
    assert "filesystem_error" in machine.stderr()
    assert "Too many levels of symbolic links" in machine.stderr()
    assert machine.heads() == []


def paths_looked_up(calls):
    """The paths of the process's stat calls."""
    found = [
        re.match(r'(?:AT_FDCWD, )?"([^"]+)"', call.arguments)
        for call in calls
        if "stat" in call.name
    ]
    return [match[1] for match in found if match]


@pytest.mark.parametrize(
    "typed, checked",
    [
        ("no//such///file", "no/such/file"),
        ("///no//such", "/no/such"),
        ("//no//such", "//no/such"),
        ("//no/such//", "//no/such/"),
        ("//n", "//n"),
        ("/no/such", "/no/such"),
    ],
)
def test_the_existence_check_reads_runs_of_slashes_as_one(machine, typed, checked):
    run_to_the_end(machine, typed, strace=["-e", "trace=%%stat"])
    looked_up = [p for p in paths_looked_up(trace_at_the_end(machine)) if "n" in p]
    assert checked in looked_up
    assert typed == checked or typed not in looked_up
    assert machine.heads() == [
        ("ERROR", True, "main", f"No launch file exists: {typed}")
    ]


def test_the_parser_receives_the_path_as_typed(machine):
    typed = "/tmp//dir///launch.yaml"
    machine.file("dir/launch.yaml", "vornnode: {first: {path: /tmp/nothing}}")
    machine.start(arguments=[typed], strace=["-e", "trace=openat"])
    opened = [call.arguments for call in launcher_calls(machine)]
    assert f'AT_FDCWD, "{typed}", O_RDONLY' in opened
    assert machine.log_lines("name: first")


def test_an_unreadable_launch_file_exits_with_status_0(machine):
    path = machine.launch_file(worker(machine))
    (machine.tmp / "launch.yaml").chmod(0)
    assert run_to_the_end(machine, path, wrapper=OBEYING_PERMISSIONS) == 0
    assert machine.heads() == [
        ("ERROR", False, "Parse", "Exception: bad file: /tmp/launch.yaml")
    ]
    assert machine.stdout() == ""


# -- The order of the steps.


def matching_positions(calls, patterns):
    """The first match of each pattern, each searched for after the previous match."""
    texts = [call.text for call in calls]
    positions, position = [], -1
    for pattern in patterns:
        position = next(
            (
                i
                for i in range(position + 1, len(texts))
                if re.search(pattern, texts[i])
            ),
            None,
        )
        assert position is not None, f"no {pattern} in this order:\n" + "\n".join(texts)
        positions.append(position)
    return positions


def test_main_leaves_the_global_settings_to_the_parser_and_the_children(build):
    objects = (build / "tools/vornlaunch/CMakeFiles/vornlaunch.dir").rglob("*.o")
    symbols = subprocess.run(["nm", "--demangle", *objects], check=True,
                             stdout=subprocess.PIPE, encoding="utf-8").stdout
    assert "Parser::Parse" in symbols
    assert "Config::getInstance" not in symbols


@pytest.mark.native
def test_the_steps_of_start_up_are_in_order(machine):
    machine.start(
        worker(machine),
        strace=["-s", "200", "-e", "trace=!mmap,mprotect,munmap,brk,clock_gettime"],
    )
    steps = [
        r"^fcntl\(2, F_GETFD",  # the process is named, which settles its log
        *(f"^rt_sigaction\\({name}, {{sa_handler=0x" for name in FATAL_SIGNALS),
        r'stat.*"/tmp/launch.yaml"',
        r'^openat\(AT_FDCWD, "/tmp/launch.yaml"',
        r"^write\(2, .*addNode: name: worker",
        r"^epoll_create1\(",
        r"^rt_sigaction\(SIGCHLD, {sa_handler=SIG_DFL",
        r"^rt_sigprocmask\(SIG_BLOCK, \[TERM CHLD\]",
        r"^signalfd4\(-1, ",
        r"^epoll_ctl\(.*EPOLL_CTL_ADD",
        r'^mkdir(at)?\(.*"/tmp/vornlaunch", 0777',
        r"^socket\(AF_UNIX",
        r"^unlink(at)?\(",
        r"^bind\(",
        r"^f?chmod(at)?\(",
        r"^fcntl\(\d+, F_SETFD",
        r"^fcntl\(\d+, F_SETFL",
        r"^listen\(",
        r"^epoll_ctl\(.*EPOLL_CTL_ADD",
        r'stat.*"/tmp/bin/worker"',
        r"^(clone|fork)",
        r"^write\(2, .*Node start 'worker' ok",
        r"^epoll_p?wait",
    ]
    calls = launcher_calls(machine)
    positions = matching_positions(calls, steps)
    # None of the relevant calls occurs earlier as well.
    for name in ("epoll_create1", "signalfd4", "socket", "listen"):
        assert [call.name for call in calls].count(name) == 1
    first_fork = next(
        i for i, call in enumerate(calls) if re.match("clone|fork", call.name)
    )
    assert first_fork == positions[-3]


# -- Steps that fail.


def test_without_an_event_loop_the_launcher_exits_with_status_0(machine):
    path = machine.launch_file(worker(machine))
    status = run_to_the_end(
        machine, path, strace=["-e", "inject=epoll_create1:error=EMFILE"]
    )
    assert status == 0
    assert machine.heads() == [
        ("INFO", False, "addNode", "name: worker"),
        ("ERROR", False, "open", "epoll create failed."),
        ("ERROR", False, "main", "epoll open failed."),
    ]
    assert not (machine.tmp / "vornlaunch").exists()


def test_the_launcher_runs_on_without_supervision(machine):
    machine.start(worker(machine), strace=["-e", "inject=signalfd4:error=EMFILE"])
    failed = ("ERROR", False, "installSignalHandler", "Failed to create signalfd")
    started = ("INFO", True, "startInternal", log_texts.started("worker"))
    heads = machine.heads()
    assert heads.index(failed) < heads.index(started)
    status = machine.status("worker")
    machine.find_process(status.pid).signal(signal.SIGKILL)
    eventually(
        lambda: machine.find_process(status.pid).state == "Z", "the child is a zombie"
    )
    assert machine.status("worker") == status
    assert machine.find_process(status.pid).state == "Z"


def test_the_launcher_continues_without_a_control_socket(machine):
    (machine.tmp / "vornlaunch/vornlaunch.sock").mkdir(parents=True)
    machine.start(worker(machine), wait_until_up=False)
    machine.wait_for_log(log_texts.started("worker"))
    assert [head for head in machine.heads() if head[0] != "INFO"] == [
        ("ERROR", False, "createSocket",
         "Failed to unlink old socket 'vornlaunch.sock': Is a directory")
    ]
    # Its nodes are supervised nevertheless.
    child = eventually(
        lambda: next((p for p in machine.processes() if p.name == "sleep"), None),
        "the worker runs",
    )
    child.signal(signal.SIGKILL)
    machine.wait_for_log(log_texts.ready_to_restart("worker"))
    machine.signal(signal.SIGTERM)
    assert machine.wait() == 0


def test_a_control_directory_that_cannot_be_created_aborts_the_launcher(machine):
    machine.file("vornlaunch", "a file is in the way")
    path = machine.launch_file(worker(machine))
    assert run_to_the_end(machine, path) == -signal.SIGABRT
    assert "filesystem_error" in machine.stderr()
    assert "/tmp/vornlaunch" in machine.stderr()
    assert machine.heads() == [("INFO", False, "addNode", "name: worker")]


# -- The loop.


def finished_waits(machine):
    """The arguments and results of the completed waits, with the requested number of
    events."""
    waits = []
    for call in launcher_calls(machine):
        if call.name == "epoll_wait" and call.result is not None:
            maximum, limit = call.arguments.rsplit(", ", 2)[1:]
            waits.append((int(maximum), int(limit), call.number))
    return waits


def test_an_idle_launcher_waits_without_a_limit_for_its_two_descriptors(machine):
    machine.start(worker(machine), strace=["-e", "trace=epoll_wait"])
    assert machine.status("worker").result == Result.SUCCESS
    assert machine.status("worker").result == Result.SUCCESS
    waits = eventually(
        lambda: len(finished_waits(machine)) >= 3 and finished_waits(machine),
        "three requests have been seen",
    )
    # No wake-up without an event.
    assert set(waits) == {(2, -1, 1)}


def test_a_launcher_with_a_waiting_node_checks_it_every_second(machine):
    machine.script(
        "second-try", "[ -e /tmp/tried ] && exec sleep 1000\n: > /tmp/tried\nexit 1"
    )
    machine.start(
        {"vornnode": {"second-try": {"path": "/tmp/bin/second-try"}}},
        strace=["-e", "trace=epoll_wait"],
    )
    machine.wait_for_log(log_texts.ready_to_restart("second-try"))
    machine.wait_for_log(log_texts.started("second-try"), count=2)
    assert machine.status("second-try").state == State.RUNNING

    def waits_again_without_a_limit():
        waits = finished_waits(machine)
        return waits if waits and waits[-1] == (2, -1, 1) else None

    waits = eventually(waits_again_without_a_limit, "the last wait had no limit")
    assert (2, 1000, 0) in waits
    assert {limit for _, limit, events in waits if events == 0} == {1000}
    assert {maximum for maximum, _, _ in waits} == {2}
