"""The outcomes of failing system calls of the launcher: the table of the fault sweep,
call by call.

Each scenario lists, in their order, the calls that the launcher makes in it, and
for each call the errors that are injected and their outcomes. Run as a
program, it prints the table; the last column names the scenario and says which
calls of that name fail.
"""

import collections
import dataclasses
import errno
import os
import pathlib
import re
import signal
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

from support.control import Cmd, Result, State  # noqa: E402

UNKNOWN_COMMAND = 9
SOCKET = "/tmp/vornlaunch/vornlaunch.sock"


@dataclasses.dataclass(frozen=True)
class Outcome:
    """The effects of a failed call, compared with the same scenario without a fault. In
    a line, {error} and {errno} are the error's text and number, and PID is any pid."""

    what: str  # for the reader of the table
    adds: tuple = ()  # log lines that come in addition
    may_add: tuple = ()  # log lines that may, any number of times
    lacks: tuple = ()  # log lines that do not come
    silent: bool = False  # no log line comes at all
    stdout: str = ""  # on standard output
    is_unanswered: bool = False  # a request gets no reply...
    is_asked_again: bool = False  # ...and has had no effect
    is_refused: bool = False  # a request gets the reply FAILED
    states: tuple = ()  # (node, state): the ones that end in another state
    ends: int = None  # the launcher ends at once, with this exit status
    says: str = ""  # standard error contains this
    is_mute: bool = False  # the usual standard output is lost
    has_socket: bool = True
    has_signal_descriptor: bool = True
    is_supervising: bool = True
    next_exit: str = None  # the node whose exit repairs the effect
    end: signal.Signals = signal.SIGTERM  # the signal that terminates the launcher
    survivors: tuple = ()  # nodes that then continue
    still_runs: tuple = ()  # nodes that continue in any state
    inherited_by: tuple = ()  # nodes that get a socket of the launcher's
    blocked: tuple = ()  # nodes that run with SIGTERM and SIGCHLD blocked
    failures: int = 1  # failing calls; in children, the n-th of each


@dataclasses.dataclass(frozen=True)
class Call:
    """A system call of the launcher."""

    name: str
    arguments: str  # their beginning, a regular expression
    role: str
    faults: tuple = ()  # (errors, outcome)
    line: str = None  # the log line that is written
    path: str = None  # the file that alone is looked at, for calls that others
    #                   than the launcher's own code make as well
    repeats: bool = False  # any number of times from one on
    of_child: bool = False  # made by the child of a fork before its exec


@dataclasses.dataclass(frozen=True)
class Ask:
    """A client's request."""

    cmd: int
    node: str
    result: Result  # None for no reply


@dataclasses.dataclass(frozen=True)
class Exit:
    """A node that has stopped itself continues and exits."""

    node: str


@dataclasses.dataclass(frozen=True)
class Die:
    """A node is killed from outside."""

    node: str


@dataclasses.dataclass(frozen=True)
class AwaitRestart:
    """All pending restarts are done."""


@dataclasses.dataclass(frozen=True)
class Halt:
    """A node has stopped itself."""

    node: str


@dataclasses.dataclass(frozen=True)
class Signal:
    """A signal that terminates the launcher."""

    number: signal.Signals


@dataclasses.dataclass(frozen=True)
class Scenario:
    name: str
    nodes: dict  # of the launch file
    calls: tuple
    states: dict  # of the nodes at the end
    steps: tuple = ()
    environment: dict = None  # of the launch file
    arguments: tuple = None  # in place of a launch file
    ends: int = None  # the exit status if it ends the launcher
    stdout: str = ""
    survivors: tuple = ()
    inherited_by: tuple = ()  # nodes started by a command get its connection
    traces_children: bool = False
    is_slow: bool = False  # waits for a restart

    @property
    def lines(self):
        """The log lines of a run without a fault."""
        return [call.line for call in self.calls if call.line]

    @property
    def asks(self):
        return [step for step in self.steps if isinstance(step, Ask)]


@dataclasses.dataclass(frozen=True)
class Case:
    """The n-th call of a name fails."""

    scenario: Scenario
    position: int  # in the scenario's list
    n: int  # among the launcher's own of that name, from 1
    error: str
    outcome: Outcome
    is_short: bool = False  # a case of the short form as well

    @property
    def call(self):
        return self.scenario.calls[self.position]

    @property
    def id(self):
        return f"{self.scenario.name}-{self.call.name}-{self.n}-{self.error}"

    def expected_lines(self):
        """The log lines, in any order."""
        outcome = self.outcome
        if outcome.silent:
            return []
        calls = self.scenario.calls
        if outcome.ends is not None:
            calls = calls[: self.position]
        lines = [call.line for call in calls if call.line]
        if outcome.ends is None:
            for line in outcome.lacks:
                lines.remove(line)
        return [*lines, *outcome.adds]

    def expected_replies(self):
        """The results that the clients see, None for no reply."""
        replies = [step.result for step in self.scenario.asks]
        if self.outcome.ends is not None:
            return []
        made = sum(call.name == "accept" for call in
                   self.scenario.calls[: self.position])
        if self.outcome.is_asked_again:
            replies.insert(made - 1, None)
        elif self.outcome.is_unanswered:
            replies[made - 1] = None
        elif self.outcome.is_refused:
            replies[made - 1] = Result.FAILED
        return replies


# Also appears if a client takes more than 100 ms to close its connection.
POLL_TIMEOUT = "WARN controlHandler: poll timeout"


# -- Outcomes.

REPEATED = Outcome("the call is repeated; nothing is lost")
LATER = Outcome("no line; the loop comes back to it at once; nothing is lost")
NO_MATTER = Outcome("no line, no effect")
LOST_LINE = Outcome("that line is lost, nothing else")


def faults(*pairs):
    return tuple((tuple(errors.split()), outcome) for errors, outcome in pairs)


def also(outcome, **changes):
    return dataclasses.replace(outcome, **changes)


# -- Recurring calls.


def head_of(line):
    """The function and the text of a line, without level and star."""
    return line.split(maxsplit=1)[1]


def log(line, **changes):
    """A log line. strace shows the data of a write with escaped quotes."""
    pattern = re.escape(head_of(line).replace('"', '\\"')).replace("PID", r"\d+")
    outcome = also(LOST_LINE, lacks=(line,), **changes)
    return Call(
        "write", rf'2, ".* {pattern}\\n"', "a log line",
        faults(("EINTR", REPEATED), ("EAGAIN EIO ENOSPC EPIPE", outcome)),
        line=line, path="/tmp/stderr",
    )


def info(func_and_text, **changes):
    return log("INFO " + func_and_text, **changes)


def event(func_and_text, level="INFO", **changes):
    return log(f"*{level} {func_and_text}", **changes)


def printed(text):
    """The standard output, which is written when the launcher exits."""
    begin = re.escape(text.split("\n", maxsplit=1)[0])
    lost = Outcome("what is printed is lost, nothing else", is_mute=True)
    return Call("write", f'1, "{begin}', "standard output",
                faults(("EAGAIN EINTR EIO ENOSPC EPIPE", lost)), path="/tmp/stdout")


def library(name, arguments, errors, role):
    """A call of the C library, which does not need its result."""
    return Call(name, arguments, role, faults((errors, NO_MATTER)) if errors else ())


WAIT = Call(
    "epoll_wait", r"\d+, ", "waits for events",
    faults(("EINTR", Outcome(
        "one line; the loop waits again; nothing is lost",
        adds=("ERROR wait: epoll_wait failed.",),
    ))),
)


def start(node, path="/bin/sleep", delay=None, missing=(), failed=(), lacks=(),
          is_refused=False):
    """The calls of a start, after a delay of milliseconds. `missing` and `failed` are
    the additional lines for a missing program and for any failure, `lacks` the lines
    that are then missing."""
    ok = f"*INFO startInternal: Node start '{node}' ok"
    delays = (f"INFO startInternal: {node} sleep {delay}ms",) if delay else ()
    no_program = Outcome(
        "one line; the node is disabled",
        adds=(f"*ERROR startInternal: Can't find file: {path}", *missing, *failed),
        lacks=(*delays, ok, *lacks), states=((node, State.DISABLED),),
        is_refused=is_refused,
    )
    no_process = Outcome(
        "one line; the node is stopped",
        adds=(f"*ERROR startInternal: name: {node} fork failed.", *failed),
        lacks=(ok, *lacks), states=((node, State.STOPPED),), is_refused=is_refused,
    )
    return (
        Call("newfstatat", f'AT_FDCWD, "{path}"', "looks for a node's program",
             faults(("ENOENT EACCES ENOTDIR ELOOP EIO ENOMEM", no_program))),
        *(call for line in delays for call in (
            log(line),
            Call("clock_nanosleep", r"CLOCK_REALTIME, 0, \{", "the delay of a start",
                 faults(("EINTR", NO_MATTER))))),
        Call("clone", r"child_stack=NULL", "forks a node's process",
             faults(("EAGAIN ENOMEM", no_process))),
        log(ok),
    )


def request(cmd, *inner):
    """The calls of a command. `inner` precede its reply. If the reply is lost, the
    command has been executed."""
    received = f"INFO controlHandler: control cmd: {int(cmd)}"
    lost = Outcome(
        "one line, no reply, no effect; the client may ask again",
        adds=("ERROR controlHandler: received: -1 expected: 132 errno: {errno}",),
        is_unanswered=True, is_asked_again=True,
    )
    what = "one line, no reply; the command has been carried out"
    if any(call.name == "clone" for call in inner):
        what += "; the stream does not end, the new child holds it open"
    carried_out = Outcome(
        what, adds=("ERROR controlHandler: send fail, size: -1",), is_unanswered=True,
    )
    hurried = Outcome(
        "one line; the reply has been sent",
        adds=(POLL_TIMEOUT,),
    )
    return (
        WAIT,
        Call("accept", r"\d+, ", "accepts a client", faults(
            ("EAGAIN ECONNABORTED EINTR EMFILE ENFILE ENOBUFS ENOMEM EPERM", LATER))),
        Call("recvfrom", r"\d+, ", "reads a request", faults(
            ("EINTR", REPEATED), ("EAGAIN ECONNRESET ENOMEM", lost))),
        log(received),
        *inner,
        Call("sendto", r"\d+, ", "sends a reply", faults(
            ("EINTR", REPEATED), ("EAGAIN ECONNRESET ENOBUFS EPIPE", carried_out))),
        Call("poll", r"\[\{fd=\d+, events=0\}\], 1, 100", "waits for the hang-up",
             faults(("EINTR", REPEATED), ("EINVAL ENOMEM", hurried))),
    )


def unanswered_request(cmd, *inner):
    """The calls of a request that never gets a reply."""
    wait, accept, receive, received, *_ = request(cmd)
    lost = tuple(
        (errors, outcome if not outcome.is_unanswered else also(
            outcome, what="one line, no reply, no effect", is_unanswered=False,
            is_asked_again=False, lacks=(received.line, *(c.line for c in inner))))
        for errors, outcome in receive.faults
    )
    return (wait, accept, dataclasses.replace(receive, faults=lost), received, *inner)


UNREAD = Outcome(
    "one line; the loop comes back to it at once; nothing is lost",
    adds=("ERROR handleSignalFd: Failed to read siginfo from signal_fd.",),
)


def restarting(node):
    return f"*INFO reap: Node '{node}' ready to restarting"


def death(node, *turns, number=signal.SIGTERM):
    """The lines of one notification about one child that a signal has terminated;
    `turns` are the lines of reap()."""
    lines = ["INFO handleSignalFd: ssi_signo: 17",
             f"INFO reapOneProcess: si_pid: PID, si_code: 2, si_status: {number:d}"]
    if node:
        lines.append(f"INFO reapOneProcess: '{node}' receive signal: {number:d}.")
    return (*lines, *turns)


def exits(*reaped):
    """The calls of one notification about children that have exited; `reaped` has the
    result of reap() for each."""
    return (
        WAIT,
        Call("read", r'\d+, ("\\21|0x\w+, 128)', "reads a signal",
             faults(("EAGAIN EINTR EIO", UNREAD))),
        info("handleSignalFd: ssi_signo: 17"),
        *(call for calls in reaped for call in calls),
        Call("waitid", r"P_ALL, 0, (\{\}|0x)", "looks for a dead child, finds none",
             faults(("EINTR", REPEATED), ("ECHILD EINVAL", Outcome(
                 "one line; nothing is lost",
                 adds=("ERROR reapOneProcess: waitid failed",))))),
    )


def reap(node, *turns, exited=None, killed=None, next_exit=None):
    """The calls that update a node after its child's exit and collect the child.
    `turns` are the lines of reap(). If this exit is detected only with the next one,
    and no other exit follows, `next_exit` is a node that exits for this purpose."""
    code, status = (1, exited) if killed is None else (2, killed)
    dead = f"INFO reapOneProcess: si_pid: PID, si_code: {code}, si_status: {status}"
    lines = [dead, *turns]
    if node and killed is None:
        lines.insert(1, f"INFO reapOneProcess: '{node}' exited with status: {exited}.")
    elif node:
        lines.insert(1, f"INFO reapOneProcess: '{node}' receive signal: {killed}.")
    unseen = Outcome(
        "one line; the exit is noticed when the next child exits",
        adds=("ERROR reapOneProcess: waitid failed",), next_exit=next_exit,
    )
    if next_exit:
        late = death(next_exit, restarting(next_exit), number=signal.SIGKILL)
        unseen = also(unseen, adds=unseen.adds + late,
                      states=((next_exit, State.RESTARTING),))
    again = [dead]
    if killed == signal.SIGKILL:
        again.append("INFO reapOneProcess: node is killed.")
    uncollected = Outcome("collected at the next look, which repeats the exit's line",
                          adds=tuple(again))
    return (
        Call("waitid", r"P_ALL, 0, (\{si_signo|0x)", "looks for a dead child", faults(
            ("EINTR", REPEATED), ("ECHILD EINVAL", unseen))),
        *(log(line) for line in lines),
        Call("wait4", r"\d+, .*, WNOHANG", "collects a child", faults(
            ("EINTR", REPEATED), ("ECHILD EINVAL", uncollected))),
        Call("clock_nanosleep", r"CLOCK_REALTIME, 0, \{tv_sec=0, tv_nsec=1000000\}",
             "pauses", faults(("EINTR", NO_MATTER))),
    )


def look(*texts, status=0, at_end=False):
    """A check of the process table, whose shell prints these pieces and exits with
    `status`. A check that fails has no effect: the next one replaces it."""
    skipped = Outcome("no line; that look is skipped, the next one counts")
    # The shell can exit after the command, and is then detected separately.
    uncollected = Outcome(
        "the shell is collected as a child of no node, with its line",
        adds=() if at_end else (
            "INFO reapOneProcess: si_pid: PID, si_code: 1, "
            f"si_status: {status}",),
        may_add=("INFO handleSignalFd: ssi_signo: 17",),
    )
    cut = Outcome("no line; the look is cut short, the next one counts")
    return (
        Call("pipe2", r"(\[\d+, \d+\]|0x\w+), O_CLOEXEC", "a look at the process table",
             faults(("EMFILE ENFILE", skipped))),
        *2 * (library("prlimit64", r"0, RLIMIT_NOFILE", "EPERM",
                      "inside popen(3)"),),
        library("rt_sigprocmask", r"SIG_BLOCK, ~\[\]", None, "inside popen(3)"),
        Call("clone3", r"", "a look at the process table",
             faults(("EAGAIN ENOMEM", skipped))),
        library("rt_sigprocmask", r"SIG_SETMASK", None, "inside popen(3)"),
        library("fcntl", r"\d+, F_SETFD, 0", "EINVAL", "inside popen(3)"),
        library("newfstatat", r'\d+, ""', "EACCES ENOMEM", "inside fgets(3)"),
        *(Call("read", rf'\d+, ("{text}"|0x\w+, 4096)', "a look at the process table",
               faults(("EAGAIN EINTR EIO", cut))) for text in texts),
        Call("wait4", r"\d+, .*, 0, NULL", "the end of a look", faults(
            ("EINTR", REPEATED), ("ECHILD", uncollected))),
    )


FOUND_ZOMBIE = look(r"1\\n")
FOUND_NO_ZOMBIE = look(r"0\\n", "", status=1)
FOUND_PRESENT = look(r"[1-9]\\n", "")
PAUSE = Call("clock_nanosleep", r"CLOCK_REALTIME, 0, \{tv_sec=0, tv_nsec=200000000\}",
             "pauses", faults(("EINTR", NO_MATTER)))


def stop(node, looks=FOUND_ZOMBIE, failed=(), **changes):
    """The calls of a stop. If it is refused, the lines `failed` are added; `changes`
    are the other changes of that outcome."""
    line = f"*ERROR stopInternal: kill service '{node}' failed, error: {{error}}"
    refused = Outcome("one line; the node runs on", adds=(line, *failed), **changes)
    return (
        Call("kill", r"\d+, SIGTERM", "asks a node to end",
             faults(("EPERM ESRCH", refused))),
        *looks,
        Call("kill", r"\d+, SIGKILL", "kills what has not ended",
             faults(("EPERM ESRCH", NO_MATTER))),
    )


def without_faults(calls):
    return tuple(dataclasses.replace(call, faults=()) for call in calls)


# -- The start.

def description(index):
    return "Unknown signal 0" if index == 0 else signal.strsignal(index)


FATAL_SIGNALS = ("SIGTERM", "SIGQUIT", "SIGHUP", "SIGSEGV", "SIGBUS", "SIGABRT",
                 "SIGILL", "SIGFPE", "SIGINT", "SIGABRT", "SIGTRAP", "SIGPIPE")


def beginning():
    """The calls up to the command line: the set-up of the log and the fatal signals."""
    return (
        Call("fcntl", r"2, F_GETFD", "is standard error open?", faults(
            ("EBADF", Outcome("no line is ever written; all else is as usual",
                              silent=True)))),
        library("ioctl", r"2, TCGETS", "EIO ENOTTY", "is standard error a terminal?"),
        library("prlimit64", r"0, RLIMIT_FSIZE", "EPERM", "is there a size limit?"),
        library("ioctl", r"1, TCGETS", "EIO ENOTTY", "is standard output a terminal?"),
        *(Call("rt_sigaction", f"{name}, ", "arms the fatal signals", faults(
            ("EINVAL", Outcome(
                "one line on standard output, by the place in the list; goes on",
                stdout=f"Failed to setup fatal sigaction({description(i)})\n"))))
          for i, name in enumerate(FATAL_SIGNALS)),
    )


ABORTED = Outcome("ends by SIGABRT, before any node", ends=-signal.SIGABRT)


def opening(nodes, environment=()):
    """The launch file."""
    missing = Outcome(
        "one line; ends with status 0", ends=0,
        adds=("*ERROR main: No launch file exists: /tmp/launch.yaml",))
    unreadable = Outcome(
        "one line; ends with status 0", ends=0,
        adds=("ERROR Parse: Exception: bad file: /tmp/launch.yaml",))
    unread = also(ABORTED, says="error reading the file: {error}")
    return (
        Call("newfstatat", r'AT_FDCWD, "/tmp/launch.yaml"', "does the file exist?",
             faults(("ENOENT ENOTDIR", missing),
                    ("EACCES EIO ELOOP ENAMETOOLONG ENOMEM",
                     also(ABORTED, says="filesystem error: status: {error}")))),
        Call("openat", r'AT_FDCWD, "/tmp/launch.yaml"', "opens the launch file",
             faults(("ENOENT EACCES EINTR EMFILE ENFILE ENOMEM EIO", unreadable))),
        Call("read", r'\d+, ("\{|0x\w+, 8191)', "reads the launch file",
             faults(("EINTR", REPEATED),
                    ("EIO", Outcome("no line; the file is read once more")))),
        *2 * (Call("read", r'\d+, (""|0x\w+, 8191)', "reads the launch file's end",
                   faults(("EINTR", REPEATED), ("EIO", unread))),),
        *environment,
        *(info(f"addNode: name: {node}") for node in nodes),
    )


TIME_ZONE = library("openat", r'AT_FDCWD, "/usr/share/zoneinfo/', "EACCES EMFILE",
                    "looks for the time zone")
EXPANDED = "INFO parseSetenv: setenv WHERE: /tmp/install/x"


def expansion():
    """An install:// in the launch file."""
    lost = Outcome(
        "no line; the installation root is taken to be /",
        adds=("INFO parseSetenv: setenv WHERE: /x",), lacks=(EXPANDED,))
    return (
        Call("newfstatat", r'AT_FDCWD, "/proc/self/exe"', "finds the installation root",
             faults(("EACCES ENOENT ENOMEM", lost))),
        Call("readlink", r'"/proc/self/exe"', "finds the installation root",
             faults(("EACCES EIO ENOENT ENOMEM", lost))),
        TIME_ZONE,
        log(EXPANDED),
    )


def unsupervised(text, **changes):
    return Outcome(
        "one line; the nodes run, but no exit and no SIGTERM is noticed",
        adds=(f"ERROR {text}",), is_supervising=False, end=signal.SIGINT,
        survivors=("stay",),
        stdout=HANDLED_WITH_INTERRUPT, **changes)


def signals_and_socket():
    """From the event loop to the listening socket."""
    socketless = Outcome("one line; no control socket, the nodes are supervised",
                         has_socket=False)
    created = f"INFO createSocket: Created socket '{SOCKET}' with mode '666'"

    def fails(what):
        return also(socketless, lacks=(created,), adds=(
            f"ERROR createSocket: Failed to {what} 'vornlaunch.sock': {{error}}",))

    refused = "ERROR registerHandler: epoll_ctl failed to add fd."
    no_directory = also(
        ABORTED,
        says="filesystem error: cannot create directories: {error} [/tmp/vornlaunch]")
    return (
        Call("epoll_create1", r"EPOLL_CLOEXEC", "opens the event loop", faults(
            ("EMFILE ENFILE ENOMEM", Outcome(
                "two lines; ends with status 0", ends=0,
                adds=("ERROR open: epoll create failed.",
                      "ERROR main: epoll open failed."))))),
        Call("rt_sigaction", r"SIGCHLD, \{sa_handler=SIG_DFL", "resets SIGCHLD",
             faults(("EINVAL", NO_MATTER))),
        Call("rt_sigprocmask", r"SIG_BLOCK, \[TERM CHLD\]", "blocks the routed signals",
             faults(("EINVAL", also(
                 unsupervised("installSignalHandler: Failed to block signals"),
                 what="one line; the nodes run, but no exit is noticed, and SIGTERM "
                      "leaves them running",
                 has_signal_descriptor=False, end=signal.SIGTERM,
                 stdout="vornlaunch handle with Terminated(15)\n")))),
        Call("signalfd4", r"-1, \[TERM CHLD\]", "makes the signal descriptor", faults(
            ("EMFILE ENFILE ENODEV ENOMEM",
             unsupervised("installSignalHandler: Failed to create signalfd",
                          has_signal_descriptor=False)))),
        Call("epoll_ctl", r"\d+, EPOLL_CTL_ADD", "watches the signal descriptor",
             faults(("ENOMEM ENOSPC", unsupervised(refused.split(maxsplit=1)[1])))),
        Call("newfstatat", r'AT_FDCWD, "/tmp/vornlaunch"', "looks for the directory",
             faults(("EACCES EIO ELOOP", no_directory))),
        Call("newfstatat", r'AT_FDCWD, "/tmp"', "looks for the directory's parent",
             faults(("EACCES EIO ELOOP", NO_MATTER))),
        Call("mkdir", r'"/tmp/vornlaunch", 0777', "makes the directory",
             faults(("EACCES EIO EMLINK ENOSPC EROFS", no_directory))),
        Call("socket", r"AF_UNIX, SOCK_STREAM", "makes the control socket", faults(
            ("EACCES EAFNOSUPPORT EMFILE ENFILE ENOBUFS ENOMEM",
             fails("open socket")))),
        Call("unlink", rf'"{SOCKET}"', "removes an old socket", faults(
            ("EACCES EBUSY EIO EISDIR EPERM EROFS", fails("unlink old socket")))),
        Call("bind", r"\d+, ", "binds the control socket", faults(
            ("EACCES EADDRINUSE EIO ENOMEM ENOSPC EROFS", fails("bind socket")))),
        Call("chmod", rf'"{SOCKET}", 0666', "opens the socket to all", faults(
            ("EACCES EIO EPERM EROFS", Outcome(
                "one line; goes on",
                adds=("WARN createSocket: chmod failed, error: {error}",))))),
        log(created),
        Call("fcntl", r"\d+, F_SETFD, FD_CLOEXEC", "keeps the socket from children",
             faults(("EBADF EINVAL", Outcome("no line; the nodes inherit the socket",
                                             inherited_by=("stay",))))),
        Call("fcntl", r"\d+, F_SETFL, O_RDONLY\|O_NONBLOCK",
             "makes accepting not wait",
             faults(("EBADF EINVAL", NO_MATTER))),
        Call("listen", r"\d+, 5", "listens", faults(
            ("EADDRINUSE ENOBUFS",
             also(socketless, adds=("ERROR init: listen failed",))))),
        Call("epoll_ctl", r"\d+, EPOLL_CTL_ADD", "watches the control socket",
             faults(("ENOMEM ENOSPC", also(socketless, adds=(refused,))))),
    )


def up(paths):
    """A start without a fault. `paths` are the programs of the nodes, None for a
    node that is not started."""
    opened = opening(paths)
    first = next(i for i, call in enumerate(opened) if call.line)
    starts = (
        call for node, path in paths.items() if path for call in start(node, path))
    return without_faults((*beginning(), *opened[:first], TIME_ZONE, *opened[first:],
                           *signals_and_socket(), *starts))


SLEEP = {"path": "/bin/sleep", "argv": "1000"}
# Halts itself; exits with status 3 when it is continued.
HALTING = {"path": "/tmp/bin/halting"}


HANDLED_WITH_INTERRUPT = "vornlaunch handle with Interrupt(2)\n"


START = Scenario(
    "start",
    environment={"WHERE": "install://x"},
    nodes={
        "stay": {**SLEEP, "sleep": 1},
        "missing": {"path": "/tmp/bin/missing"},
        "off": {**SLEEP, "disabled": True},
        "later": {**SLEEP, "autostart": False},
    },
    calls=(
        *beginning(),
        *opening(("stay", "missing", "off", "later"), expansion()),
        *signals_and_socket(),
        *start("stay", delay=1),
        Call("newfstatat", r'AT_FDCWD, "/tmp/bin/missing"',
             "looks for a node's program",
             faults(("EACCES EIO", Outcome("the same line; the node is disabled")))),
        event("startInternal: Can't find file: /tmp/bin/missing", "ERROR"),
        event("startInternal: Node 'later' is not autostart", "WARN"),
        WAIT,
    ),
    states={"stay": State.RUNNING, "missing": State.DISABLED, "off": State.STOPPED,
            "later": State.STOPPED},
)




# -- Commands that stop no node.

COMMANDS = Scenario(
    "commands",
    nodes={"stay": SLEEP, "off": {**SLEEP, "disabled": True}},
    steps=(
        Ask(Cmd.STATUS, "stay", Result.SUCCESS),
        Ask(Cmd.STATUS, "nobody", Result.NOT_FOUND),
        Ask(Cmd.START, "stay", Result.SUCCESS),
        Ask(Cmd.STOP, "off", Result.SUCCESS),
        Ask(Cmd.DISABLE, "off", Result.SUCCESS),
        Ask(Cmd.RESTART, "off", Result.FAILED),
        Ask(Cmd.ENABLE, "off", Result.SUCCESS),
        Ask(Cmd.START, "off", Result.SUCCESS),
        Ask(UNKNOWN_COMMAND, "stay", None),
    ),
    calls=(
        *up({"stay": "/bin/sleep", "off": None}),
        *request(Cmd.STATUS),
        *request(Cmd.STATUS),
        *request(Cmd.START, event("startInternal: Node 'stay' already running")),
        *request(Cmd.STOP),
        *request(Cmd.DISABLE),
        *request(Cmd.RESTART, PAUSE,
                 event("startInternal: Node 'off' disabled", "WARN"),
                 event("restart: Node 'off' failed")),
        *request(Cmd.ENABLE),
        *request(Cmd.START, *start("off", is_refused=True)),
        *unanswered_request(UNKNOWN_COMMAND, log("WARN controlHandler: unknow cmd: 9")),
        WAIT,
    ),
    states={"stay": State.RUNNING, "off": State.RUNNING},
    inherited_by=("off",),
)


# -- Exits.

EXITS = Scenario(
    "exits",
    nodes={"stay": SLEEP, "spare": SLEEP, "once": {**HALTING, "oneshot": True},
           "crash": SLEEP},
    steps=(Exit("once"), Die("crash")),
    calls=(
        *up({"stay": "/bin/sleep", "spare": "/bin/sleep", "once": HALTING["path"],
             "crash": "/bin/sleep"}),
        *exits(reap("once", "*WARN reap: Node 'once' disabled - oneshot!",
                    "*WARN reap: Node 'once' disabled!", exited=3)),
        *exits(reap("crash", restarting("crash"), killed=9, next_exit="spare")),
        WAIT,
    ),
    states={"stay": State.RUNNING, "spare": State.RUNNING, "once": State.DISABLED,
            "crash": State.RESTARTING},
)


# -- A restart.

RESTART = Scenario(
    "restart",
    nodes={"helper": SLEEP, "crash": {**SLEEP, "required": ["helper"]}},
    steps=(Die("crash"), AwaitRestart()),
    calls=(
        *up({"helper": "/bin/sleep", "crash": "/bin/sleep"}),
        *without_faults(exits(reap("crash", restarting("crash"), killed=9))),
        dataclasses.replace(WAIT, repeats=True),
        *stop("helper", lacks=(
            "*INFO startInternal: Node start 'helper' ok", *death(None))),
        PAUSE,
        *start("helper", missing=(
            "INFO reapOneProcess: 'helper' receive signal: 15.",
            "*WARN reap: Node 'helper' disabled!")),
        *start("crash"),
        *without_faults(exits(reap(None, killed=15))),
        *without_faults((WAIT,)),
    ),
    states={"helper": State.RUNNING, "crash": State.RUNNING},
    is_slow=True,
)


# -- Stops.

STOPS = Scenario(
    "stops",
    nodes={"slow": {**HALTING, "required": ["helper"]}, "helper": SLEEP,
           "worker": SLEEP, "other": SLEEP},
    steps=(
        Halt("slow"),
        Ask(Cmd.STOP, "slow", Result.SUCCESS),
        Ask(Cmd.RESTART, "worker", Result.SUCCESS),
        Ask(Cmd.DISABLE, "other", Result.SUCCESS),
    ),
    calls=(
        *up({"slow": HALTING["path"], "helper": "/bin/sleep", "worker": "/bin/sleep",
             "other": "/bin/sleep"}),
        *request(
            Cmd.STOP,
            *stop("slow", (*FOUND_NO_ZOMBIE, *FOUND_PRESENT, PAUSE, *FOUND_ZOMBIE),
                  is_refused=True, states=(("slow", State.RUNNING),),
                  lacks=("*INFO startInternal: Node start 'helper' ok",
                         death(None)[1],
                         *death("slow", "*WARN reap: Node 'slow' stoped"))),
            *stop("helper", lacks=(
                "*INFO startInternal: Node start 'helper' ok", death(None)[1])),
            PAUSE,
            *start("helper", missing=(
                "INFO reapOneProcess: 'helper' receive signal: 15.",
                "*WARN reap: Node 'helper' disabled!")),
        ),
        *exits(reap("slow", "*WARN reap: Node 'slow' stoped", killed=15),
               reap(None, killed=15)),
        *request(
            Cmd.RESTART,
            *stop("worker", failed=("*INFO restart: Node 'worker' failed",),
                  is_refused=True,
                  lacks=("*INFO startInternal: Node start 'worker' ok",
                         "*INFO restart: Node 'worker' success", *death(None))),
            PAUSE,
            *start("worker", is_refused=True,
                   failed=("*INFO restart: Node 'worker' failed",),
                   lacks=("*INFO restart: Node 'worker' success",),
                   missing=("INFO reapOneProcess: 'worker' receive signal: 15.",
                            "*WARN reap: Node 'worker' disabled!")),
            event("restart: Node 'worker' success"),
        ),
        *exits(reap(None, killed=15)),
        *request(
            Cmd.DISABLE,
            *stop("other", is_refused=True, still_runs=("other",),
                  survivors=("other",),
                  lacks=death("other", "*WARN reap: Node 'other' disabled!")),
        ),
        *exits(reap("other", "*WARN reap: Node 'other' disabled!", killed=15,
                    next_exit="worker")),
        WAIT,
    ),
    states={"slow": State.STOPPED, "helper": State.RUNNING, "worker": State.RUNNING,
            "other": State.DISABLED},
    inherited_by=("helper", "worker"),
)


# -- Terminations.

EXIT = library("rt_sigprocmask", r"SIG_BLOCK, \[XFSZ\]", "EINVAL",
               "holds SIGXFSZ off at the exit")

SIGTERM = Scenario(
    "sigterm",
    nodes={"stay": SLEEP, "other": SLEEP},
    steps=(Signal(signal.SIGTERM),),
    calls=(
        *up({"stay": "/bin/sleep", "other": "/bin/sleep"}),
        WAIT,
        Call("read", r'\d+, ("\\17|0x\w+, 128)', "reads a signal", faults(
            ("EAGAIN EINTR EIO", UNREAD))),
        info("handleSignalFd: ssi_signo: 15"),
        *stop("stay", look(r"1\\n", at_end=True), survivors=("stay",)),
        *stop("other", look(r"1\\n", at_end=True), survivors=("other",)),
        EXIT,
    ),
    states={},
    ends=0,
)

SIGINT = Scenario(
    "sigint",
    nodes={"stay": SLEEP},
    steps=(Signal(signal.SIGINT),),
    calls=(
        *up({"stay": "/bin/sleep"}),
        *without_faults((WAIT,)),
        log("ERROR wait: epoll_wait failed."),
        EXIT,
        printed(HANDLED_WITH_INTERRUPT),
    ),
    states={},
    ends=0,
    stdout=HANDLED_WITH_INTERRUPT,
    survivors=("stay",),
)

USAGE = Scenario(
    "usage",
    nodes={},
    arguments=(),
    calls=(
        *without_faults(beginning()),
        EXIT,
        printed("Usage: \n  vornlaunch launch.yaml\n\n\n"),
    ),
    states={},
    ends=1,
    stdout="Usage: \n  vornlaunch launch.yaml\n\n\n",
)


# -- The child, between fork and exec.

WORKER = "/tmp/bin/worker"

CHILD = Scenario(
    "child",
    nodes={"stay": SLEEP, "worker": {"path": WORKER}},
    calls=(
        *up({"stay": "/bin/sleep", "worker": WORKER}),
        Call("rt_sigaction", "SIGCHLD, ", "resets a child's signals",
             faults(("EINVAL", also(NO_MATTER, failures=2))), of_child=True),
        Call("rt_sigaction", "SIGTERM, ", "resets a child's signals",
             faults(("EINVAL", also(NO_MATTER, failures=2))), of_child=True),
        Call("rt_sigprocmask", r"SIG_UNBLOCK, \[TERM CHLD\]",
             "unblocks a child's signals",
             faults(("EINVAL", Outcome(
                 "one line; the node runs with SIGTERM blocked",
                 adds=2 * ("ERROR unblockSignals: failed to unblock signals for PID",),
                 blocked=("stay", "worker"), failures=2,
                 end=signal.SIGINT, survivors=("stay", "worker"),
                 stdout=HANDLED_WITH_INTERRUPT))), of_child=True),
        Call("execve", f'"{WORKER}"', "executes a node's program",
             faults(("E2BIG EACCES EIO ENOENT ENOEXEC ENOMEM ETXTBSY", Outcome(
                 "two lines; the child exits with 127, and is started again after 5 s",
                 adds=(f"*ERROR runChild: Can't execv {WORKER}",
                       "*INFO runChild: Child PID exited",
                       "INFO handleSignalFd: ssi_signo: 17",
                       "INFO reapOneProcess: si_pid: PID, si_code: 1, si_status: 127",
                       "INFO reapOneProcess: 'worker' exited with status: 127.",
                       restarting("worker")),
                 states=(("worker", State.RESTARTING),)))),
             path=WORKER, of_child=True),
    ),
    states={"stay": State.RUNNING, "worker": State.RUNNING},
    traces_children=True,
)

SHELL = Scenario(
    "shell",
    nodes={"stay": SLEEP},
    steps=(Signal(signal.SIGTERM),),
    calls=(
        *up({"stay": "/bin/sleep"}),
        *without_faults((info("handleSignalFd: ssi_signo: 15"),)),
        # Two checks in each of the fifty passes.
        Call("execve", r'"/bin/sh"', "executes the shell of a look",
             faults(("EACCES ENOENT ENOMEM", Outcome(
                 "no line; with no look at all a stop takes its ten seconds",
                 failures=100))),
             path="/bin/sh", of_child=True),
    ),
    states={},
    ends=0,
    traces_children=True,
    is_slow=True,
)

SCENARIOS = (START, COMMANDS, EXITS, RESTART, STOPS, SIGTERM, SIGINT, USAGE, CHILD,
             SHELL)


# Calls that the sweep does not let fail, and the reasons.
LEFT_OUT = {
    # getrandom belongs to malloc, which a sanitizer replaces.
    "a matter of memory": {"brk", "getrandom", "madvise", "mmap", "mprotect", "munmap"},
    "does its work even if it fails": {"close"},
    "cannot fail": {"exit_group", "futex", "getpid", "rt_sigreturn"},
    "a sanitizer's own": {"sigaltstack"},
}


# -- The cases.


def with_error(outcome, error):
    """The outcome with the error's text and number filled in."""
    number = getattr(errno, error)

    def filled(text):
        text = text.replace("{error}", os.strerror(number))
        return text.replace("{errno}", str(number))

    return also(outcome, adds=tuple(filled(line) for line in outcome.adds),
                says=filled(outcome.says))


def cases_of(scenario):
    counts = collections.Counter()
    for position, call in enumerate(scenario.calls):
        kind = (call.name, call.path, call.of_child)
        counts[kind] += 1
        n = counts[kind]
        for errors, outcome in call.faults:
            for error in errors:
                yield Case(scenario, position, n, error, with_error(outcome, error))


def all_cases():
    """Every case, with the first of each kind marked for the short form. The short form
    also runs on sanitized builds and therefore lacks pipe2: a sanitizer creates any
    number of pipes."""
    cases = []
    seen = set()
    for scenario in SCENARIOS:
        for case in cases_of(scenario):
            kind = (case.call.name, case.outcome.what)
            is_short = not (
                kind in seen or scenario.is_slow or case.call.name == "pipe2")
            if is_short:
                seen.add(kind)
            cases.append(dataclasses.replace(case, is_short=is_short))
    return cases


CASES = all_cases()


# -- The printed table.


def spans(numbers):
    """Numbers that grow, as "1, 3-5"."""
    parts = []
    for number in numbers:
        if parts and parts[-1][1] == number - 1:
            parts[-1][1] = number
        else:
            parts.append([number, number])
    return ", ".join(str(a) if a == b else f"{a}-{b}" for a, b in parts)


def table():
    """The table as Markdown: a row for each call, purpose and outcome."""
    rows = {}
    for case in CASES:
        name = case.call.name + (" in a child" if case.call.of_child else "")
        errors, places = rows.setdefault(
            (name, case.call.role, case.outcome.what), ({}, {}))
        errors[case.error] = True
        places.setdefault(case.scenario.name, {})[case.n] = True
    lines = ["| Call | What for | Fails with | Outcome | Which of them |",
             "|---|---|---|---|---|"]
    for (name, role, what), (errors, places) in rows.items():
        which = "; ".join(f"{s} {spans(sorted(ns))}" for s, ns in places.items())
        lines.append(f"| {name} | {role} | {', '.join(errors)} | {what} | {which} |")
    return "\n".join(lines) + "\n"


if __name__ == "__main__":
    print(table(), end="")
