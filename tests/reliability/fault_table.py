"""The system calls of the launcher's own code, the errors that the fault sweep
injects into them, and the outcomes.

An outcome is the difference from a run of the same scenario without a fault. Run
as a program, this file prints the table. Calls that are not in the table are made
by libraries; test_fault_sweep.py checks a general rule for them.
"""

import dataclasses
import errno
import os
import pathlib
import re
import signal
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

from support.control import Cmd, State  # noqa: E402

UNKNOWN_COMMAND = 9
SOCKET = "/tmp/vornlaunch/vornlaunch.sock"
WORKER = "/tmp/bin/worker"
# Also appears if a client takes more than 100 ms to close its connection.
POLL_TIMEOUT = "WARN controlHandler: poll timeout"


# -- The scenarios.


@dataclasses.dataclass(frozen=True)
class Ask:
    """A client's request."""

    cmd: int
    node: str


@dataclasses.dataclass(frozen=True)
class Exit:
    """A node that has stopped itself is continued and exits."""

    node: str


@dataclasses.dataclass(frozen=True)
class Die:
    """A node is killed from outside."""

    node: str


@dataclasses.dataclass(frozen=True)
class AwaitRestart:
    """The nodes in state RESTARTING are started."""


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
    nodes: dict = dataclasses.field(default_factory=dict, hash=False)
    steps: tuple = ()
    environment: dict = dataclasses.field(default=None, hash=False)
    arguments: tuple = None  # in place of a launch file
    ends: bool = False  # the launcher exits by itself
    restarting: tuple = ()  # nodes that are in this state at the end
    traces_children: bool = False
    is_slow: bool = False  # waits for a restart: only the rows that name it


SLEEP = {"path": "/bin/sleep", "argv": "1000"}
# Halts itself; exits with status 3 when it is continued.
HALTING = {"path": "/tmp/bin/halting"}

START = Scenario(
    "start",
    environment={"WHERE": "install://x"},
    nodes={
        "stay": {**SLEEP, "sleep": 1},
        "missing": {"path": "/tmp/bin/missing"},
        "off": {**SLEEP, "disabled": True},
        "later": {**SLEEP, "autostart": False},
    },
)
# Commands that stop no node.
COMMANDS = Scenario(
    "commands",
    nodes={"stay": SLEEP, "off": {**SLEEP, "disabled": True}},
    steps=(
        Ask(Cmd.STATUS, "stay"), Ask(Cmd.STATUS, "nobody"), Ask(Cmd.START, "stay"),
        Ask(Cmd.STOP, "off"), Ask(Cmd.DISABLE, "off"), Ask(Cmd.RESTART, "off"),
        Ask(Cmd.ENABLE, "off"), Ask(Cmd.START, "off"), Ask(UNKNOWN_COMMAND, "stay"),
    ),
)
EXITS = Scenario(
    "exits",
    nodes={"stay": SLEEP, "spare": SLEEP, "once": {**HALTING, "oneshot": True},
           "crash": SLEEP},
    steps=(Exit("once"), Die("crash")),
    restarting=("crash",),
)
RESTART = Scenario(
    "restart",
    nodes={"helper": SLEEP, "crash": {**SLEEP, "required": ["helper"]}},
    steps=(Die("crash"), AwaitRestart()),
    is_slow=True,
)
STOPS = Scenario(
    "stops",
    nodes={"slow": {**HALTING, "required": ["helper"]}, "helper": SLEEP,
           "worker": SLEEP, "other": SLEEP},
    steps=(Halt("slow"), Ask(Cmd.STOP, "slow"), Ask(Cmd.RESTART, "worker"),
           Ask(Cmd.DISABLE, "other")),
)
SIGTERM = Scenario("sigterm", nodes={"stay": SLEEP, "other": SLEEP},
                   steps=(Signal(signal.SIGTERM),), ends=True)
SIGINT = Scenario("sigint", nodes={"stay": SLEEP}, steps=(Signal(signal.SIGINT),),
                  ends=True)
USAGE = Scenario("usage", arguments=(), ends=True)
# The child, between fork and exec.
CHILD = Scenario("child", nodes={"stay": SLEEP, "worker": {"path": WORKER}},
                 traces_children=True)

SCENARIOS = (START, COMMANDS, EXITS, RESTART, STOPS, SIGTERM, SIGINT, USAGE, CHILD)


# -- The outcomes.


@dataclasses.dataclass(frozen=True)
class Outcome:
    """How a run with a fault differs from one without. In a line, {error} and
    {errno} are the error's text and number, and PID is any pid."""

    what: str  # for the reader of the table
    adds: tuple = ()  # additional log lines
    lacks: tuple = ()  # missing log lines
    may_add: bool = False  # any other log lines may appear
    loses_line: bool = False  # the log line that the failed call carries
    silent: bool = False  # without a log line
    stdout: str = ""  # on standard output in addition
    is_mute: bool = False  # the usual standard output is lost
    reply: str = ""  # to the request: "none", "none, no effect" or "FAILED"
    states: tuple = ()  # (node, state): the nodes that end in another state
    ends: int = None  # the launcher exits immediately, with this status
    may_abort: bool = False  # the launcher may abort before it starts a node
    says: str = ""  # standard error contains this
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

    def after(self, error):
        """The outcome with the error's text and number filled in."""
        number = getattr(errno, error)

        def filled(text):
            text = text.replace("{error}", os.strerror(number))
            return text.replace("{errno}", str(number))

        return also(self, adds=tuple(map(filled, self.adds)), says=filled(self.says))


def also(outcome, **changes):
    return dataclasses.replace(outcome, **changes)


def line(text, **changes):
    """One line more; in general its text says enough."""
    return Outcome(changes.pop("what", "one line"), adds=(text,), **changes)


REPEATED = Outcome("the call is repeated; nothing is lost")
NO_EFFECT = Outcome("no line, no effect")
ABORTED = Outcome("ends by SIGABRT, before any node", ends=-signal.SIGABRT)
NO_SOCKET = Outcome("one line; no control socket, the nodes are supervised",
                    has_socket=False)
INTERRUPTED = "vornlaunch handle with Interrupt(2)\n"
NO_INSTALL_ROOT = Outcome(
    "no line; the installation root is taken to be /",
    adds=("INFO parseSetenv: setenv WHERE: /x",),
    lacks=("INFO parseSetenv: setenv WHERE: /tmp/install/x",))
UNSUPERVISED = Outcome(
    "one line; the nodes run, but no exit and no SIGTERM is noticed",
    is_supervising=False, end=signal.SIGINT, survivors=("stay",), stdout=INTERRUPTED)
# The general rule, for the calls of libraries.
OF_A_LIBRARY = Outcome(
    "every log line, reply and state is as usual; or it aborts before any node",
    may_add=True, may_abort=True)

NO_EPOLL = "ERROR registerHandler: epoll_ctl failed to add fd."
UNNOTICED = "ERROR reapOneProcess: waitid failed"
CHILD_SIGNAL = "INFO handleSignalFd: ssi_signo: 17"


def started(node):
    return f"*INFO startInternal: Node start '{node}' ok"


def restarting(node):
    return f"*INFO reap: Node '{node}' ready to restarting"


def dead(code, status):
    return f"INFO reapOneProcess: si_pid: PID, si_code: {code}, si_status: {status}"


def killed(node, number=signal.SIGTERM):
    return f"INFO reapOneProcess: '{node}' receive signal: {number:d}."


def no_socket(failed):
    """The control socket cannot be created."""
    text = f"ERROR createSocket: Failed to {failed} 'vornlaunch.sock': {{error}}"
    return also(NO_SOCKET, adds=(text,), lacks=(
        f"INFO createSocket: Created socket '{SOCKET}' with mode '666'",))


def no_program(node, adds=(), **changes):
    """A start finds no program; `adds` are further lines."""
    return Outcome(
        "one line; the node is disabled",
        adds=("*ERROR startInternal: Can't find file: /bin/sleep", *adds),
        lacks=(started(node), *changes.pop("lacks", ())),
        states=((node, State.DISABLED),), **changes)


def no_process(node, adds=(), **changes):
    """A fork fails; `adds` are further lines."""
    return Outcome(
        "one line; the node is stopped",
        adds=(f"*ERROR startInternal: name: {node} fork failed.", *adds),
        lacks=(started(node), *changes.pop("lacks", ())),
        states=((node, State.STOPPED),), **changes)


def not_stopped(node, adds=(), **changes):
    """A SIGTERM cannot be sent; `adds` are further lines."""
    text = f"*ERROR stopInternal: kill service '{node}' failed, error: {{error}}"
    return Outcome("one line; the node runs on", adds=(text, *adds), **changes)


def noticed_late(node):
    """An exit is noticed only with the next one, for which `node` is killed."""
    return Outcome(
        "one line; the exit is noticed when the next child exits",
        adds=(UNNOTICED, CHILD_SIGNAL, dead(2, 9), killed(node, signal.SIGKILL),
              restarting(node)),
        next_exit=node, states=((node, State.RESTARTING),))


def collected_late(*lines):
    return Outcome("collected by the next search, which repeats the exit's line",
                   adds=lines)


# -- The table.


@dataclasses.dataclass(frozen=True)
class Row:
    """A system call of the launcher's own code. `faults` are (errors, outcome,
    scenario, number): of a scenario each such call, or only the one of that
    number from 1; without a scenario each such call in every one."""

    name: str
    arguments: str  # their beginning, a regular expression
    role: str
    faults: tuple
    path: str = None  # only calls with this file count
    of_child: bool = False  # made by a child of the launcher before its exec

    def matches(self, call):
        return call.name == self.name and re.match(self.arguments, call.arguments)


def fault(errors, outcome, scenario=None, number=None):
    return tuple(errors.split()), outcome, scenario, number


def row(name, arguments, role, *faults, **options):
    return Row(name, arguments, role, faults, **options)


FATAL_SIGNALS = ("SIGTERM", "SIGQUIT", "SIGHUP", "SIGSEGV", "SIGBUS", "SIGABRT",
                 "SIGILL", "SIGFPE", "SIGINT", "SIGABRT", "SIGTRAP", "SIGPIPE")


def not_armed(index):
    name = signal.strsignal(index) if index else "Unknown signal 0"
    return Outcome("one line on standard output, by the index in the list; goes on",
                   stdout=f"Failed to setup fatal sigaction({name})\n")


START_UP_ROWS = (
    row("fcntl", r"2, F_GETFD", "is standard error open?",
        fault("EBADF", Outcome("no line is ever written; all else is as usual",
                               silent=True), START)),
    row("ioctl", r"[12], TCGETS", "is it a terminal?", fault("EIO", NO_EFFECT)),
    row("prlimit64", r"0, RLIMIT_FSIZE", "is there a size limit?",
        fault("EPERM", NO_EFFECT)),
    row("rt_sigaction", r"SIG\w+, \{sa_handler=0x", "arms the fatal signals",
        *(fault("EINVAL", not_armed(i), START, i + 1)
          for i in range(len(FATAL_SIGNALS)))),
    row("newfstatat", r'AT_FDCWD, "/tmp/launch.yaml"', "does the file exist?",
        fault("ENOENT ENOTDIR", line(
            "*ERROR main: No launch file exists: /tmp/launch.yaml", ends=0,
            what="one line; ends with status 0"), START),
        fault("EACCES EIO ELOOP ENAMETOOLONG ENOMEM", also(
            ABORTED, says="filesystem error: status: {error}"), START)),
    row("openat", r'AT_FDCWD, "/tmp/launch.yaml"', "opens the launch file",
        fault("ENOENT EACCES EINTR EMFILE ENFILE ENOMEM EIO", line(
            "ERROR Parse: Exception: bad file: /tmp/launch.yaml", ends=0,
            what="one line; ends with status 0"), START)),
    row("newfstatat", r'AT_FDCWD, "/proc/self/exe"', "finds the installation root",
        fault("EACCES ENOENT ENOMEM", NO_INSTALL_ROOT, START)),
    row("readlink", r'"/proc/self/exe"', "finds the installation root",
        fault("EACCES EIO ENOENT ENOMEM", NO_INSTALL_ROOT, START)),
    row("epoll_create1", r"EPOLL_CLOEXEC", "opens the event loop",
        fault("EMFILE ENFILE ENOMEM", Outcome(
            "two lines; ends with status 0", ends=0,
            adds=("ERROR open: epoll create failed.",
                  "ERROR main: epoll open failed.")), START)),
    row("rt_sigaction", r"SIGCHLD, \{sa_handler=SIG_DFL", "resets SIGCHLD",
        fault("EINVAL", NO_EFFECT, START)),
    row("rt_sigprocmask", r"SIG_BLOCK, \[TERM CHLD\]", "blocks the routed signals",
        fault("EINVAL", also(
            UNSUPERVISED, has_signal_descriptor=False, end=signal.SIGTERM,
            what="one line; the nodes run, but no exit is noticed, and SIGTERM "
                 "leaves them running",
            adds=("ERROR installSignalHandler: Failed to block signals",),
            stdout="vornlaunch handle with Terminated(15)\n"), START)),
    row("signalfd4", r"-1, \[TERM CHLD\]", "makes the signal descriptor",
        fault("EMFILE ENFILE ENODEV ENOMEM", also(
            UNSUPERVISED, has_signal_descriptor=False,
            adds=("ERROR installSignalHandler: Failed to create signalfd",)), START)),
    row("epoll_ctl", r"\d+, EPOLL_CTL_ADD", "watches a descriptor",
        fault("ENOMEM ENOSPC", also(UNSUPERVISED, adds=(NO_EPOLL,)), START, 1),
        fault("ENOMEM ENOSPC", also(NO_SOCKET, adds=(NO_EPOLL,)), START, 2)),
    row("mkdir", r'"/tmp/vornlaunch", 0777', "makes the directory",
        fault("EACCES EIO EMLINK ENOSPC EROFS", also(
            ABORTED, says="filesystem error: cannot create directories: {error} "
                          "[/tmp/vornlaunch]"), START)),
    row("socket", r"AF_UNIX, SOCK_STREAM", "makes the control socket",
        fault("EACCES EAFNOSUPPORT EMFILE ENFILE ENOBUFS ENOMEM",
              no_socket("open socket"), START)),
    row("unlink", rf'"{SOCKET}"', "removes an old socket",
        fault("EACCES EBUSY EIO EISDIR EPERM EROFS",
              no_socket("unlink old socket"), START)),
    row("bind", r"\d+, ", "binds the control socket",
        fault("EACCES EADDRINUSE EIO ENOMEM ENOSPC EROFS",
              no_socket("bind socket"), START)),
    row("chmod", rf'"{SOCKET}", 0666', "opens the socket to all",
        fault("EACCES EIO EPERM EROFS", line(
            "WARN createSocket: chmod failed, error: {error}",
            what="one line; goes on"), START)),
    row("fcntl", r"\d+, F_SETFD, FD_CLOEXEC", "keeps the socket from children",
        fault("EBADF EINVAL", Outcome("no line; the nodes inherit the socket",
                                      inherited_by=("stay",)), START)),
    row("fcntl", r"\d+, F_SETFL, O_RDONLY\|O_NONBLOCK", "makes accepting not wait",
        fault("EBADF EINVAL", NO_EFFECT)),
    row("listen", r"\d+, 5", "listens", fault(
        "EADDRINUSE ENOBUFS", also(NO_SOCKET, adds=("ERROR init: listen failed",)),
        START)),
)

RUNNING_ROWS = (
    row("write", r'2, ".*\\n"', "a log line",
        fault("EINTR", REPEATED),
        fault("EAGAIN EIO ENOSPC EPIPE",
              Outcome("that line is lost, nothing else", loses_line=True))),
    row("write", r'1, "', "standard output",
        fault("EAGAIN EINTR EIO ENOSPC EPIPE", Outcome(
            "what is printed is lost, nothing else", is_mute=True))),
    row("epoll_wait", r"\d+, ", "waits for events",
        fault("EINTR", line("ERROR wait: epoll_wait failed.",
                            what="one line; the loop waits again"))),
    row("accept", r"\d+, ", "accepts a client",
        fault("EAGAIN ECONNABORTED EINTR EMFILE ENFILE ENOBUFS ENOMEM EPERM", Outcome(
            "no line; the loop returns to it at once; nothing is lost"))),
    row("recvfrom", r"\d+, ", "reads a request",
        fault("EINTR", REPEATED),
        fault("EAGAIN ECONNRESET ENOMEM", line(
            "ERROR controlHandler: received: -1 expected: 132 errno: {errno}",
            reply="none, no effect",
            what="one line, no reply, no effect; the client may ask again"))),
    row("sendto", r"\d+, ", "sends a reply",
        fault("EINTR", REPEATED),
        fault("EAGAIN ECONNRESET ENOBUFS EPIPE", line(
            "ERROR controlHandler: send fail, size: -1", reply="none",
            what="one line, no reply; the command has been carried out; a child "
                 "that it has started keeps the connection open"))),
    row("poll", r"\[\{fd=\d+, events=0\}\], 1, 100", "waits for the hang-up",
        fault("EINTR", REPEATED),
        fault("EINVAL ENOMEM", line(POLL_TIMEOUT,
                                    what="one line; the reply has been sent"))),
    row("read", r'\d+, ("\\(17|21)\\0\\0\\0|0x\w+, 128$)', "reads a signal",
        fault("EAGAIN EINTR EIO", line(
            "ERROR handleSignalFd: Failed to read siginfo from signal_fd.",
            what="one line; the loop returns to it at once; nothing is lost"))),
    row("clock_nanosleep", r"CLOCK_REALTIME, 0, \{", "pauses",
        fault("EINTR", NO_EFFECT)),
    row("rt_sigprocmask", r"SIG_BLOCK, \[XFSZ\]", "blocks SIGXFSZ before the exit",
        fault("EINVAL", NO_EFFECT)),
)

NODE_ROWS = (
    row("newfstatat", r'AT_FDCWD, "(/bin/sleep|/tmp/bin/(halting|missing|worker))"',
        "searches for a node's program",
        fault("ENOENT EACCES ENOTDIR ELOOP EIO ENOMEM", no_program(
            "stay", lacks=("INFO startInternal: stay sleep 1ms",)), START, 1),
        fault("EACCES EIO", Outcome("the same line; the node is disabled"), START, 2),
        fault("ENOENT", no_program("off", reply="FAILED"), COMMANDS, 2),
        fault("ENOENT", no_program("helper", adds=(
            killed("helper"), "*WARN reap: Node 'helper' disabled!")), STOPS, 5),
        fault("ENOENT", no_program("crash"), RESTART, 4),
        fault("ENOENT", no_program(
            "worker", reply="FAILED",
            adds=(killed("worker"), "*WARN reap: Node 'worker' disabled!",
                  "*INFO restart: Node 'worker' failed"),
            lacks=("*INFO restart: Node 'worker' success",)), STOPS, 6)),
    row("clone", r"child_stack=NULL", "forks a node's process",
        fault("EAGAIN ENOMEM", no_process("stay"), START, 1),
        fault("EAGAIN", no_process("off", reply="FAILED"), COMMANDS, 2),
        fault("EAGAIN", no_process("helper"), STOPS, 5),
        fault("EAGAIN", no_process("crash"), RESTART, 4),
        fault("EAGAIN", no_process(
            "worker", reply="FAILED", adds=("*INFO restart: Node 'worker' failed",),
            lacks=("*INFO restart: Node 'worker' success",)), STOPS, 6)),
    row("kill", r"\d+, SIGTERM", "asks a node to exit",
        fault("EPERM ESRCH", not_stopped(
            "slow", reply="FAILED", states=(("slow", State.RUNNING),),
            lacks=(started("helper"), CHILD_SIGNAL, dead(2, 15), dead(2, 15),
                   killed("slow"), "*WARN reap: Node 'slow' stoped")), STOPS, 1),
        fault("EPERM ESRCH", not_stopped("helper", lacks=(
            started("helper"), dead(2, 15))), STOPS, 2),
        fault("EPERM ESRCH", not_stopped(
            "worker", reply="FAILED", adds=("*INFO restart: Node 'worker' failed",),
            lacks=(started("worker"), "*INFO restart: Node 'worker' success",
                   CHILD_SIGNAL, dead(2, 15))), STOPS, 3),
        fault("EPERM ESRCH", not_stopped(
            "other", reply="FAILED", still_runs=("other",), survivors=("other",),
            lacks=(CHILD_SIGNAL, dead(2, 15), killed("other"),
                   "*WARN reap: Node 'other' disabled!")), STOPS, 4),
        fault("EPERM ESRCH", not_stopped("stay", survivors=("stay",)), SIGTERM, 1),
        fault("EPERM ESRCH", not_stopped("other", survivors=("other",)), SIGTERM, 2)),
    row("kill", r"\d+, SIGKILL", "kills a node that has not exited",
        fault("EPERM ESRCH", Outcome("no line, no effect on a zombie"))),
    row("waitid", r"P_ALL, 0, (\{|0x)", "searches for an exited child",
        fault("EINTR", REPEATED),
        fault("ECHILD EINVAL", Outcome(
            "one line; the exit is noticed when the next child exits",
            adds=(UNNOTICED,)), EXITS, 1),
        fault("ECHILD EINVAL", noticed_late("spare"), EXITS, 3),
        fault("ECHILD EINVAL", line(
            UNNOTICED, what="one line if there is none; nothing is lost"), EXITS, 4)),
    row("wait4", r"\d+, .*, WNOHANG", "collects a child",
        fault("EINTR", REPEATED),
        fault("ECHILD EINVAL", collected_late(dead(1, 3)), EXITS, 1),
        fault("ECHILD EINVAL", collected_late(
            dead(2, 9), "INFO reapOneProcess: node is killed."), EXITS, 2)),
)

CHILD_ROWS = (
    row("rt_sigaction", r"SIG(CHLD|TERM), ", "resets a child's signals",
        fault("EINVAL", also(NO_EFFECT, failures=2), CHILD, 1),
        fault("EINVAL", also(NO_EFFECT, failures=2), CHILD, 2), of_child=True),
    row("rt_sigprocmask", r"SIG_UNBLOCK, \[TERM CHLD\]", "unblocks a child's signals",
        fault("EINVAL", Outcome(
            "one line; the node runs with SIGTERM blocked",
            adds=2 * ("ERROR unblockSignals: failed to unblock signals for PID",),
            blocked=("stay", "worker"), failures=2, end=signal.SIGINT,
            survivors=("stay", "worker"), stdout=INTERRUPTED), CHILD, 1),
        of_child=True),
    row("execve", f'"{WORKER}"', "executes a node's program",
        fault("E2BIG EACCES EIO ENOENT ENOEXEC ENOMEM ETXTBSY", Outcome(
            "two lines; the child exits with 127 and is started again after 5 s",
            adds=(f"*ERROR runChild: Can't execv {WORKER}",
                  "*INFO runChild: Child PID exited", CHILD_SIGNAL, dead(1, 127),
                  "INFO reapOneProcess: 'worker' exited with status: 127.",
                  restarting("worker")),
            states=(("worker", State.RESTARTING),)), CHILD, 1),
        path=WORKER, of_child=True),
)

ROWS = (*START_UP_ROWS, *RUNNING_ROWS, *NODE_ROWS, *CHILD_ROWS)

# Libraries make calls of these names as well: one that is not in the table is
# theirs. A call of any other name in the table is the launcher's own.
SHARED_WITH_LIBRARIES = {"clock_nanosleep", "fcntl", "ioctl", "newfstatat", "openat",
                         "prlimit64", "read", "readlink", "rt_sigaction",
                         "rt_sigprocmask", "wait4", "write"}

# Calls that do not fail in any test, and why.
LEFT_OUT = {
    # getrandom belongs to malloc, which a sanitizer replaces.
    "a matter of memory": {"brk", "getrandom", "madvise", "mmap", "mprotect", "munmap"},
    "does its work even if it fails": {"close"},
    "cannot fail": {"exit_group", "futex", "getpid", "rt_sigreturn", "umask"},
    "a sanitizer's own": {"sigaltstack"},
}

# Calls that libraries make with valid arguments, so that they cannot fail; the
# libraries use the former signal mask without a check.
CANNOT_FAIL_IN_LIBRARIES = {"rt_sigaction", "rt_sigprocmask"}

# Functions that the sources call, with the system call if that has another name.
# None: it makes no system call or several, or none in any scenario: fstat() needs
# the journal, and sigtimedwait() a size limit.
FUNCTIONS = {
    "_exit": "exit_group", "clock_gettime": None, "execv": "execve", "fork": "clone",
    "fstat": None, "getenv": None, "getrlimit": "prlimit64", "gmtime_r": None,
    "isatty": "ioctl", "malloc_trim": None, "pclose": None, "popen": None,
    "pthread_atfork": None, "recv": "recvfrom", "send": "sendto", "setenv": None,
    "sigaction": "rt_sigaction", "sigaddset": None, "sigdescr_np": None,
    "sigemptyset": None, "signalfd": "signalfd4", "sigprocmask": "rt_sigprocmask",
    "sigtimedwait": None, "stat": "newfstatat", "strnlen": None, "strsignal": None,
    "strtok_r": None, "usleep": "clock_nanosleep", "waitpid": "wait4",
}


# -- The cases.


@dataclasses.dataclass(frozen=True)
class Case:
    """An error of a call: of the one of this number in the scenario, or of each."""

    row: Row
    error: str
    outcome: Outcome
    scenario: Scenario  # None: any in which it is made
    number: int
    is_short: bool  # a case of the short form as well

    @property
    def id(self):
        where = self.scenario.name if self.scenario else "any"
        return f"{where}-{self.row.name}-{self.number or 'each'}-{self.error}"


def all_cases():
    """Every case; for the short form one of each call and outcome that takes no
    time."""
    cases = []
    for each in ROWS:
        seen = set()
        for errors, outcome, scenario, number in each.faults:
            is_short = outcome.what not in seen and not (scenario and scenario.is_slow)
            if is_short:
                seen.add(outcome.what)
            for error in errors:
                cases.append(Case(each, error, outcome.after(error), scenario, number,
                                  is_short))
                is_short = False
    return cases


CASES = all_cases()


def table():
    """The table as Markdown."""
    rows = {}
    for each in ROWS:
        name = each.name + (" in a child" if each.of_child else "")
        for errors, outcome, scenario, number in each.faults:
            where = scenario.name if scenario else "all"
            where += f" {number}" if number else ""
            key = name, each.role, ", ".join(errors), outcome.what
            rows.setdefault(key, []).append(where)
    lines = ["| Call | Purpose | Fails with | Outcome | Scenario and number |",
             "|---|---|---|---|---|"]
    for key, places in rows.items():
        lines.append(f"| {' | '.join(key)} | {', '.join(places)} |")
    lines.append(f"| other calls | of libraries | ENOMEM, EINTR | {OF_A_LIBRARY.what} "
                 "| all |")
    return "\n".join(lines) + "\n"


if __name__ == "__main__":
    print(table(), end="")
