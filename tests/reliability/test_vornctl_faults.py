"""Each system call of vornctl fails, one per run, by strace on the real program."""

import collections
import dataclasses
import json
import re
import subprocess

import pytest

from support import log_texts
from support.control import Cmd, State
from support.trace import on_every_machine, parse_trace, without_counters
from support.vornctl import VORNCTL, typed_ahead
from support.waiting import PATIENCE

FILE = "/tmp/launch.yaml"
NEW = "/tmp/new.yaml"
# Restarts the launcher of the machine, for apply; two may run at the same time.
SYSTEMCTL = """
[ "$1" = restart ] || exit 0
for launcher in $(pidof vornlaunch); do
  kill $launcher
  while pidof vornlaunch | grep -qw $launcher; do sleep 0.01; done
done
setsid /tmp/install/bin/vornlaunch /tmp/launch.yaml </dev/null >>/tmp/stdout 2>>/tmp/stderr &
until pidof vornlaunch >/dev/null; do sleep 0.01; done
"""
COMMANDS = {
    "status": [], "status-wide": ["-o", "wide"], "why": ["worker"], "history": [],
    "logs": ["-n", "5"], "stop": ["worker"], "restart": ["worker"],
    "wait": ["--state", "stopped", "--timeout", "0.1", "worker"],
    "check": [FILE], "graph": [FILE], "names": [], "metrics": [], "ps": ["--ports"],
    "orphans": [], "doctor": [], "report": ["-o", "/tmp/report.html"],
    "diff": [FILE, "/tmp/other.yaml"], "health": [],
    "apply": ["--launch-file", FILE, "--for", "10ms", NEW], "top": [],
}
# The exit status without a fault if it is not 0.
STATUS = {"wait": 6, "diff": 1}
# The errors of the calls that can fail with others than EIO.
ERRORS = {
    call: errors.split() for calls, errors in {
        "openat openat2": "EACCES EINTR EMFILE EIO ENOMEM",
        "read pread64": "EIO EINTR",
        "newfstatat faccessat2 access readlink": "EACCES EIO ENOMEM",
        "mmap munmap": "ENOMEM",
        "clone clone3 vfork": "EAGAIN ENOMEM",
        "pipe2 pidfd_open": "EMFILE ENOMEM",
        "socket": "EMFILE ENOBUFS EACCES",
        "connect": "EACCES ECONNREFUSED EINTR EAGAIN",
        "getsockopt": "ENOBUFS",
        "sendto": "EINTR EPIPE ENOBUFS",
        "recvfrom": "EINTR ECONNRESET ENOMEM",
        "poll": "EINTR ENOMEM",
        "write": "EINTR EIO ENOSPC",
        "fsync rename mkdir": "EACCES EIO ENOSPC",
        "fchmod kill": "EPERM",
        "flock": "EINTR ENOLCK",
        "clock_nanosleep": "EINTR",
        "wait4": "EINTR ECHILD",
        "fcntl": "EBADF",
    }.items() for call in calls.split()
}
# strace cannot imitate a failure of brk(), which returns the old end of the memory.
LEFT_OUT = {"brk", "close", "end", "exit_group", "futex", "geteuid", "getpid",
            "gettid", "getuid", "rt_sigprocmask", "rt_sigreturn"}
DOCUMENTED = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 21}
ACTIONS = {"stop": Cmd.STOP, "restart": Cmd.RESTART}
# The terminal cannot be restored if this fails.
RESTORING = re.compile(r"ioctl\(\d, (SNDCTL_TMR_STOP or )?TCSETS|write\(1, ")
FIRST_OWN_CALL = "fcntl(0, F_GETFD)"
SHORT = 2  # faults per command in the short form


@dataclasses.dataclass
class Done:
    """The results of a run."""

    status: int
    stdout: str
    stderr: str
    is_restored: bool = True  # the terminal
    calls: list = dataclasses.field(default_factory=list, repr=False)
    sent: int = 0  # requests for the action


class Client:
    """Runs a command of vornctl under strace, again and again."""

    def __init__(self, machine, command):
        self.machine = machine
        self.command = command.partition("-")[0]
        self.arguments = [self.command, *COMMANDS[command]]
        self.runs = 0

    def run(self, *strace):
        """Runs the command with these options of strace."""
        self.prepare()
        old = self.read("launch.yaml")
        log = self.machine.tmp / "stderr"
        size = log.stat().st_size
        command = self.machine.enter(
            "strace", "-o", "/tmp/trace", *on_every_machine(strace), VORNCTL,
            *self.arguments)
        run = run_on_terminal if self.command == "top" else run_on_pipes
        done = run(command, self.environment())
        if self.command == "apply":
            # With one fault, the old file can be put back.
            is_applied = not done.status or "standard output" in done.stderr
            assert self.read("launch.yaml") == (
                self.read("new.yaml") if is_applied else old), (strace, done)
        if self.command in ACTIONS:
            text = log.read_bytes()[size:].decode()
            done.sent = text.count(log_texts.command(ACTIONS[self.command]) + "\n")
        trace = (self.machine.tmp / "trace").read_text(errors="replace")
        done.calls = parse_trace(re.sub("^", "1 ", trace, flags=re.MULTILINE))
        return done

    def prepare(self):
        """Restores the state that the command needs."""
        self.runs += 1
        if self.command == "stop":
            self.machine.request(Cmd.START, "worker")
            self.machine.wait_for_state("worker", State.RUNNING)
        if self.command == "apply":
            self.machine.file("new.yaml", launch_file(self.runs))

    def read(self, name):
        path = self.machine.tmp / name
        return path.read_text(encoding="utf-8") if path.exists() else None

    def environment(self):
        return self.machine.environment({"PATH": "/tmp/bin:/usr/bin:/bin",
                                         "TERM": "xterm"})


def run_on_pipes(command, environment):
    done = subprocess.run(command, capture_output=True, stdin=subprocess.DEVNULL,
                          encoding="utf-8", env=environment, timeout=PATIENCE,
                          check=False)
    return Done(done.returncode, done.stdout, done.stderr)


def run_on_terminal(command, environment):
    return Done(*typed_ahead(command, environment))


def launch_file(tag):
    return json.dumps({"vornnode": {
        "worker": {"path": "/tmp/bin/worker", "argv": str(tag)},
        "other": {"path": "/tmp/bin/worker", "required": ["worker"]}}})


@pytest.fixture(name="robot")
def fixture_robot(machine):
    machine.script("worker", "exec sleep 1000")
    machine.script("systemctl", SYSTEMCTL)
    machine.file("other.yaml", launch_file("other"))
    return machine.start(launch_file("old"))


def faults(calls):
    """strace's options for each fault of the calls of main(): a call, by its number
    among those of its name, and an error."""
    first = next(i for i, call in enumerate(calls) if call.text == FIRST_OWN_CALL)
    numbers = collections.Counter()
    found = []
    for i, call in enumerate(without_counters(calls)):
        numbers[call.name] += 1
        if i < first or call.name in LEFT_OUT:
            continue
        for error in ERRORS.get(call.name, ["EIO"]):
            found.append(
                ("-e", f"inject={call.name}:error={error}:when={numbers[call.name]}"))
    return found


def check(command, done, usual, fault):
    """The rule that every run with a fault follows."""
    what = f"{fault[1]}: {done}"
    failed = next((call for call in done.calls if call.was_injected), None)
    failed = failed.text if failed else ""
    assert done.status in DOCUMENTED, what
    assert "terminate called" not in done.stderr, what
    if done.status in (0, usual.status) or failed.startswith("write(2, "):
        pass
    elif command == "doctor" and not done.stderr:
        assert re.search("^(error|warning) ", done.stdout, re.MULTILINE), what
    else:
        assert re.fullmatch(r"(vornctl: [^\n]{10,}\n)+", done.stderr), what
    assert done.sent <= 1, what
    assert done.is_restored or RESTORING.match(failed), what


def sweep(machine, command, count=None):
    """Runs the command with each fault, or with `count` of them. Returns how many runs
    with faults were made, and in how many of them the call was made."""
    client = Client(machine, command)
    if count is None:
        client.run()  # creates files that later runs find
    usual = client.run()
    assert usual.status == STATUS.get(command, 0), usual
    assert usual.sent == (command in ACTIONS), usual
    chosen = faults(usual.calls)
    if count is not None:
        begin = list(COMMANDS).index(command) * 7  # other calls for each command
        chosen = [chosen[(begin + i * len(chosen) // count) % len(chosen)]
                  for i in range(count)]
    made = 0
    for fault in chosen:
        done = client.run(*fault)
        check(command, done, usual, fault)
        made += any(call.was_injected for call in done.calls)
    return len(chosen), made


# The sanitizers' own calls must not fail.
@pytest.mark.plain
@pytest.mark.native
def test_vornctl_survives_some_faults_of_each_command(robot):
    runs, made = map(sum, zip(*(sweep(robot, each, SHORT) for each in COMMANDS)))
    assert made > runs / 2


@pytest.mark.plain
@pytest.mark.native
@pytest.mark.long
@pytest.mark.parametrize("command", COMMANDS)
def test_vornctl_survives_every_fault(robot, command):
    runs, made = sweep(robot, command)
    assert made > runs / 2
