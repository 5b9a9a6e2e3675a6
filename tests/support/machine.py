"""A small machine of its own for each test: mount, pid and network namespaces
in which the launcher runs with a private /tmp and /run."""

import contextlib
import dataclasses
import functools
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys

from support import control
from support.control import Cmd
from support.log import parse_log
from support.process_tree import (
    children_of,
    is_in_a_pid_namespace,
    status_fields,
)
from support.trace import on_every_machine
from support.waiting import eventually

INIT = pathlib.Path(__file__).with_name("namespace_init.py")
PYTHON = "/usr/bin/python3" if os.path.exists("/usr/bin/python3") else sys.executable


def unshare_command():
    """The command that creates the namespaces; the appended command runs as process
    1."""
    command = ["unshare", "--mount", "--pid", "--net", "--fork"]
    command += ["--kill-child", "--mount-proc"]
    if os.geteuid() != 0:
        command += ["--user", "--map-root-user"]
    return command


@dataclasses.dataclass(frozen=True)
class Process:
    """A process of the machine; `pid` as the machine sees it, `host_pid` as the
    test does."""

    pid: int
    host_pid: int
    parent: int  # host pid
    name: str
    state: str  # one letter, "Z" for a zombie

    @property
    def is_alive(self):
        return self.state not in "ZX"

    def read(self, file):
        """The bytes of a file of its /proc directory."""
        return pathlib.Path(f"/proc/{self.host_pid}/{file}").read_bytes()

    @property
    def argv(self):
        """Empty if the process has exited since it was found."""
        try:
            cmdline = self.read("cmdline")
        except (FileNotFoundError, ProcessLookupError):
            return []
        words = [part.decode() for part in cmdline.split(b"\0")[:-1]]
        # The emulator's own path and that of the program precede the arguments.
        return words[2:] if words and is_emulator(words[0]) else words

    @property
    def environment(self):
        pairs = (p.split(b"=", 1) for p in self.read("environ").split(b"\0") if p)
        return {name.decode(): value.decode() for name, value in pairs}

    @property
    def descriptors(self):
        """The targets of its open descriptors, by number. A program that has just been
        executed has others for a moment: the dynamic linker opens libraries."""
        directory = f"/proc/{self.host_pid}/fd"
        targets = {}
        for fd in os.listdir(directory):
            with contextlib.suppress(FileNotFoundError):
                targets[int(fd)] = os.readlink(f"{directory}/{fd}")
        return targets

    def signal(self, number):
        os.kill(self.host_pid, number)


def machine_of(program):
    """The architecture of a program, as the bytes in its ELF header."""
    with open(program, "rb") as file:
        return file.read(20)[18:]


def is_emulated(program):
    """Whether the program is for another architecture than this machine's."""
    return machine_of(program) != machine_of(sys.executable)


def is_emulator(path):
    """Whether it is the emulator with which the kernel starts programs of other
    architectures."""
    return path.startswith("/usr/libexec/qemu-binfmt/")


@functools.cache
def is_sanitized(program):
    """Whether the program was built with the address sanitizer."""
    return b"__asan_init" in program.read_bytes()


class Machine:
    """The files that a test puts into the machine, and the launcher that runs in it.
    The directory `tmp` is the machine's /tmp, `tmp`/.run its /run; /tmp/install is the
    launcher's installation root. Use start() once."""

    def __init__(self, tmp, program):
        self.tmp = tmp
        self.unshare = None
        (tmp / ".init").mkdir()
        self.install = tmp / "install"
        (self.install / "bin").mkdir(parents=True)
        for name, source in (("vornlaunch", program),
                             ("vornctl", program.with_name("vornctl"))):
            if source.exists():
                self._install(name, source)
        self._vornrun = program.with_name("vornrun")
        self.sanitized = is_sanitized(program)
        self.counted = b"__gcov_dump" in program.read_bytes()

    def _install(self, name, source):
        """Puts a program into the installation root: a link to a copy that it shares
        with the machines in the same directory, since programs with sanitizers are
        large."""
        copy = self.tmp.parent / f".{name}"
        if not copy.exists() or copy.stat().st_mtime_ns != source.stat().st_mtime_ns:
            copy.unlink(missing_ok=True)
            shutil.copy2(source, copy)
            copy.chmod(0o755)  # for other users, whatever the umask was
        os.link(copy, self.install / "bin" / name)

    # -- Before the start.

    def wrapped(self, options, *command, **keys):
        """The node that runs this command by vornrun with these options."""
        if not (self.install / "bin/vornrun").exists():
            self._install("vornrun", self._vornrun)
        return {"path": "/tmp/install/bin/vornrun",
                "argv": " ".join([options, "--", *command]), **keys}

    def script(self, name, body):
        """Writes a node program in POSIX shell; returns its path in the
        machine."""
        return self.file(f"bin/{name}", f"#!/bin/sh\n{body}\n", mode=0o755)

    def file(self, name, text, mode=0o644):
        """Writes /tmp/`name`; returns that path."""
        path = self.tmp / name
        path.parent.mkdir(parents=True, exist_ok=True)
        if isinstance(text, bytes):
            path.write_bytes(text)
        else:
            path.write_text(text, encoding="utf-8")
        path.chmod(mode)
        return f"/tmp/{name}"

    def launch_file(self, content):
        """Writes /tmp/launch.yaml from YAML text or from a dictionary."""
        text = content if isinstance(content, (str, bytes)) else json.dumps(content)
        return self.file("launch.yaml", text)

    def start(self, content=None, *, arguments=None, environment=None, strace=None,
              traces_children=True, wrapper=(), stderr=None, stdout=None,
              wait_until_up=True):
        """Starts the launcher on a launch file of this `content`, or with the
        given `arguments`, and waits until it has started the nodes.
        `environment` adds to a bare one, None as a value removes. `strace` is
        strace's options; its output goes to /tmp/strace.log, without pids if
        the children are not traced. `wrapper` is a command that runs the
        launcher. Standard output and error go to /tmp/stdout and /tmp/stderr,
        or where the arguments say."""
        if arguments is None:
            arguments = [self.launch_file(content)]
        command = list(wrapper)
        if strace is not None:
            # -D: the launcher, not strace, is the direct child.
            command += ["strace", "-D", "-o", "/tmp/strace.log"]
            command += on_every_machine(strace)
            command += ["-f"] * traces_children
        command += ["/tmp/install/bin/vornlaunch", *arguments]
        # The check for leaks cannot work under another tracer.
        self._boot(command, self._environment(environment or {}, strace is None),
                   stderr=stderr, stdout=stdout)
        if wait_until_up:
            self.wait_until_up()
        return self

    def start_without_launcher(self):
        """Starts the machine without a launcher, for commands in it."""
        self._boot(["true"], self.environment({}))
        return self

    def _boot(self, command, environment, stderr=None, stdout=None):
        """Starts the machine with this command, and waits until the command has a
        pid."""
        with open(self.tmp / "stdout", "ab") as out, open(
            self.tmp / "stderr", "ab"
        ) as err:
            self.unshare = subprocess.Popen(
                [*unshare_command(), PYTHON, "-I", "-S", str(INIT), str(self.tmp),
                 *command],
                stdin=subprocess.DEVNULL,
                stdout=stdout if stdout is not None else out,
                stderr=stderr if stderr is not None else err,
                env=environment,
            )
        eventually(
            lambda: (self.tmp / ".init/pid").exists()
            or self.unshare.poll() is not None,
            "the machine is up",
        )
        assert self.unshare.poll() is None, self.stderr()

    def start_again(self, wait_until_up=True):
        """Starts another launcher on the launch file of the first, which has exited or
        continues. From now on this class refers to the new launcher; the log is that of
        both."""
        init = self.tmp / ".init"
        before = self._socket_identity()
        (init / "command").write_text(
            "/tmp/install/bin/vornlaunch\0/tmp/launch.yaml", encoding="utf-8"
        )
        (init / "pid").unlink()
        (init / "status").unlink(missing_ok=True)
        os.kill(self._init, signal.SIGUSR1)
        eventually((init / "pid").exists, "another launcher is started")
        if wait_until_up:
            # The first launcher may still answer.
            eventually(lambda: self._socket_identity() not in (None, before),
                       "another launcher creates its control socket")
            self.wait_until_up()

    def _socket_identity(self):
        """The identity of the control socket, another one for each launcher; None
        without a socket."""
        try:
            status = (self.tmp / "vornlaunch/vornlaunch.sock").stat()
        except FileNotFoundError:
            return None
        return status.st_ino, status.st_ctime_ns

    def _environment(self, changes, checks_leaks):
        environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8"}
        if self.sanitized:
            environment["ASAN_OPTIONS"] = f"detect_leaks={int(checks_leaks)}"
            environment["UBSAN_OPTIONS"] = "print_stacktrace=1"
        for name, value in changes.items():
            if value is None:
                environment.pop(name, None)
            else:
                environment[name] = value
        return environment

    def environment(self, changes):
        """The environment of a command in the machine, for `changes` as for start().
        Without the check for leaks, which would be a third of the time of a short
        command; the unit tests have it."""
        return self._environment(changes, checks_leaks=False)

    def wait_until_up(self):
        """Waits until the control socket answers, after the start of all
        nodes."""
        eventually(self._answers, "the launcher answers on its control socket")

    def _answers(self):
        if self.has_ended:
            raise AssertionError("the launcher has ended:\n" + self.stderr())
        try:
            control.exchange(self.tmp / "vornlaunch", Cmd.STATUS, "no such node")
            return True
        except (FileNotFoundError, ConnectionError):
            return False

    # -- The launcher.

    @property
    def pid(self):
        """The launcher's pid in the machine."""
        return int((self.tmp / ".init/pid").read_text(encoding="ascii"))

    @property
    def process(self):
        """The launcher's process; None after it has been collected."""
        return self.find_process(self.pid)

    @property
    def has_ended(self):
        return (self.tmp / ".init/status").exists()

    def signal(self, number):
        self.process.signal(number)

    def wait(self, timeout=120.0):
        """Waits until the launcher exits. Returns its exit status, or the negative
        number of a signal."""
        eventually(lambda: self.has_ended, "the launcher ends", timeout)
        return int((self.tmp / ".init/status").read_text(encoding="ascii"))

    def stdout(self):
        return (self.tmp / "stdout").read_text(encoding="utf-8", errors="replace")

    def stderr(self):
        return (self.tmp / "stderr").read_text(encoding="utf-8", errors="replace")

    def log(self):
        """Every log line so far."""
        return parse_log(self.stderr())

    def heads(self):
        """(level, event, function, text) of every log line so far."""
        return [line.head for line in self.log()]

    def log_lines(self, text):
        """The log lines with this text."""
        return [line for line in self.log() if line.text == text]

    def wait_for_log(self, text, count=1):
        """Waits for `count` log lines with exactly this text; returns them."""

        def found():
            lines = self.log_lines(text)
            return lines if len(lines) >= count else None

        try:
            return eventually(found, f"{count} log line(s) '{text}'")
        except AssertionError as error:
            raise AssertionError(f"{error}\n{self.stderr()}") from None

    def strace(self):
        """The lines of the trace so far, without the pids."""
        text = (self.tmp / "strace.log").read_text(encoding="utf-8", errors="replace")
        return [line.split(maxsplit=1)[-1] for line in text.splitlines()]

    # -- The control socket.

    def connect(self):
        return control.connect(self.tmp / "vornlaunch")

    def request(self, cmd, name):
        return control.exchange(self.tmp / "vornlaunch", cmd, name)

    def status(self, name):
        return self.request(Cmd.STATUS, name)

    def wait_for_state(self, name, state):
        """Waits until `name` is in `state`; returns the status."""

        def reached():
            status = self.status(name)
            return status if status.state == state else None

        return eventually(reached, f"{name} is {state.name}")

    # -- The processes.

    @property
    def _init(self):
        """The host's pid of process 1."""
        return children_of(self.unshare.pid)[0]

    def processes(self):
        """Every process of the machine but process 1."""
        namespace = os.readlink(f"/proc/{self._init}/ns/pid")
        found = []
        for entry in os.listdir("/proc"):
            if not entry.isdigit() or not is_in_a_pid_namespace(entry):
                continue
            fields = status_fields(entry)
            if not fields:
                continue
            try:
                pids = fields["NSpid"].split()
                # The namespace of a zombie cannot be read.
                own = (
                    fields["State"][0] == "Z"
                    or os.readlink(f"/proc/{entry}/ns/pid") == namespace
                )
            except (FileNotFoundError, ProcessLookupError, PermissionError):
                continue
            if own and pids[-1] != "1" and self._is_descendant(int(entry)):
                found.append(
                    Process(
                        pid=int(pids[-1]),
                        host_pid=int(entry),
                        parent=int(fields["PPid"]),
                        name=fields["Name"],
                        state=fields["State"][0],
                    )
                )
        return found

    def _is_descendant(self, host_pid):
        init = self._init
        while host_pid not in (0, 1, init):
            host_pid = int(status_fields(host_pid).get("PPid", 0))
        return host_pid == init

    def find_process(self, pid):
        """The process of this pid in the machine, or None."""
        return next((p for p in self.processes() if p.pid == pid), None)

    def child(self, name, argv):
        """The node's process, after it has executed the program with these arguments:
        the reply to a start precedes the exec."""

        def executed():
            process = self.find_process(self.status(name).pid)
            return process if process and process.argv == argv else None

        return eventually(executed, f"{name} runs as {argv}")

    def is_alive(self, pid):
        process = self.find_process(pid)
        return process is not None and process.is_alive

    def vornctl(self, *arguments, **options):
        """Runs vornctl in the machine; returns what subprocess.run() does."""
        return self.execute("/tmp/install/bin/vornctl", *arguments, **options)

    def run(self, *command, timeout=60.0, check=True):
        """Runs a command in the machine; returns its standard output."""
        finished = self.execute(
            *command, timeout=timeout, check=check, stderr=None
        )
        return finished.stdout

    def enter(self, *command):
        """The command that runs a command in the machine."""
        enter = ["nsenter", f"--target={self._init}", "--mount", "--root"]
        enter += ["--pid", "--net"]
        if os.geteuid() != 0:
            enter += ["--user", "--preserve-credentials"]
        return [*enter, *command]

    def execute(self, *command, environment=None, timeout=60.0, check=False,
                stdin="", stderr=subprocess.PIPE):
        """Runs a command in the machine, with the text `stdin` as its standard
        input; returns what subprocess.run() does. `environment` as for
        start()."""
        return subprocess.run(
            self.enter(*command), input=stdin, stdout=subprocess.PIPE,
            stderr=stderr, check=check, timeout=timeout, encoding="utf-8",
            env=self.environment(environment or {}),
        )

    def shut_down(self):
        """Kills everything that runs in the machine. Its files remain, except for the
        large ones."""
        if self.unshare is not None:
            if self.counted:
                self._end_with_counters()
            self.unshare.send_signal(signal.SIGKILL)
            self.unshare.wait()
        shutil.rmtree(self.install)

    def _end_with_counters(self):
        """Lets the programs of the coverage build write their counters: the launcher,
        vornctl, and the monitors, which exit after their nodes."""
        try:
            self.signal(signal.SIGINT)
            self.wait(timeout=5.0)
        except (AssertionError, AttributeError, OSError):
            pass  # it has exited or is blocked
        ends = {"vornctl": signal.SIGTERM, "vornrun": signal.SIGTERM,
                "vornrun-monitor": signal.SIGCONT}
        with contextlib.suppress(AssertionError, IndexError, OSError):
            eventually(lambda: not self._signal_counted(ends), "counters", 10.0)

    def _signal_counted(self, ends):
        """Sends the signal for its name to each living process, SIGKILL to those with
        other names. Returns whether one of those names is alive."""
        living = [p for p in self.processes() if p.is_alive and p.pid != self.pid]
        for process in living:
            with contextlib.suppress(ProcessLookupError):
                process.signal(ends.get(process.name, signal.SIGKILL))
        return any(process.name in ends for process in living)
