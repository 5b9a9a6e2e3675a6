"""Runs vornctl on a terminal, or in the background."""

import contextlib
import os
import pathlib
import pty
import select
import signal
import subprocess
import termios
import time

from support.waiting import PATIENCE, eventually

VORNCTL = "/tmp/install/bin/vornctl"
ENTER, LEAVE = "\x1b[?1049h", "\x1b[?1049l"  # the alternate screen of xterm


def read_terminal(terminal, until=None):
    """The output of the terminal up to this text, or to its end."""
    text = b""
    deadline = time.monotonic() + PATIENCE
    while until is None or until not in text.decode(errors="replace"):
        ready, _, _ = select.select([terminal], [], [], PATIENCE)
        assert ready and time.monotonic() < deadline, f"only {text!r} came"
        try:
            piece = os.read(terminal, 4096)
        except OSError:  # EIO: the other end is closed
            break
        if not piece:
            break
        text += piece
    return text.decode(errors="replace")


def on_terminal(machine, *arguments, question=None, answer=None, environment=None,
                columns=0):
    """Runs vornctl on a terminal with this many columns (0: unknown), answers the
    `question`, and returns the exit status and the whole output."""
    terminal, other_end = pty.openpty()
    termios.tcsetwinsize(other_end, (24 if columns else 0, columns))
    environment = {"TERM": "xterm", **(environment or {})}
    process = subprocess.Popen(
        machine.enter(VORNCTL, *arguments),
        stdin=other_end, stdout=other_end, stderr=other_end,
        env=machine.environment(environment),
    )
    os.close(other_end)
    shown = ""
    if question is not None:
        shown = read_terminal(terminal, until=question)
        os.write(terminal, answer.encode())
    shown += read_terminal(terminal)
    os.close(terminal)
    return process.wait(timeout=PATIENCE), shown


def typed_ahead(command, environment, rows=24, columns=80):
    """Runs the command on a terminal on which "q" has already been typed. Returns its
    exit status, the output on the terminal, its errors, and whether it has restored
    the terminal."""
    terminal, other_end = pty.openpty()
    termios.tcsetwinsize(other_end, (rows, columns))
    before = termios.tcgetattr(other_end)
    os.write(terminal, b"q\n")
    with subprocess.Popen(command, stdin=other_end, stdout=other_end,
                          stderr=subprocess.PIPE, encoding="utf-8",
                          env=environment) as process:
        # A screen fits into the buffer of the terminal.
        try:
            _, errors = process.communicate(timeout=PATIENCE)
        finally:
            process.kill()
    after = termios.tcgetattr(other_end)
    os.close(other_end)
    shown = read_terminal(terminal)
    os.close(terminal)
    is_restored = before == after and shown.rfind(LEAVE) >= shown.rfind(ENTER)
    return process.returncode, shown, errors, is_restored


class Running:
    """A vornctl that runs in the machine, with pipes for its output."""

    def __init__(self, machine, arguments, environment, wrapper):
        self.popen = subprocess.Popen(
            machine.enter(*wrapper, VORNCTL, *arguments),
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, encoding="utf-8",
            env=machine.environment(environment),
        )
        self._read = b""  # and not yet read
        self.host_pid = eventually(self._find, "vornctl runs")

    def _find(self):
        """The child of nsenter, after it has executed vornctl."""
        own = self.popen.pid
        children = pathlib.Path(f"/proc/{own}/task/{own}/children")
        try:
            for pid in children.read_text(encoding="ascii").split():
                name = pathlib.Path(f"/proc/{pid}/comm").read_text(encoding="ascii")
                if name == "vornctl\n":
                    return int(pid)
        except (FileNotFoundError, ProcessLookupError):
            pass
        assert self.popen.poll() is None, self.popen.communicate()
        return None

    def line(self):
        """The next line of its output, without the line's end."""
        while b"\n" not in self._read:
            ready, _, _ = select.select([self.popen.stdout], [], [], PATIENCE)
            assert ready, "no line came"
            piece = os.read(self.popen.stdout.fileno(), 4096)
            assert piece, self.popen.communicate()
            self._read += piece
        line, _, self._read = self._read.partition(b"\n")
        return line.decode()

    def signal(self, number):
        os.kill(self.host_pid, number)

    def wait_until_polling(self):
        """Waits until it sleeps in a system call."""
        wchan = pathlib.Path(f"/proc/{self.host_pid}/wchan")
        eventually(lambda: b"poll" in wchan.read_bytes(), "vornctl waits")

    @contextlib.contextmanager
    def stopped(self):
        """Suspends it within this context."""
        self.signal(signal.SIGSTOP)
        # nsenter stops and continues together with its child.
        stat = pathlib.Path(f"/proc/{self.popen.pid}/stat")
        eventually(lambda: stat.read_text(encoding="ascii").split()[2] == "T",
                   "vornctl is stopped")
        yield
        self.popen.send_signal(signal.SIGCONT)

    def end(self):
        """Waits until it exits. Returns its exit status or the negative number of a
        signal, and the rest of its output and errors."""
        out, err = self.popen.communicate(timeout=PATIENCE)
        return self.popen.returncode, self._read.decode() + out, err


@contextlib.contextmanager
def running(machine, *arguments, environment=None, wrapper=()):
    """A running vornctl, which is killed at the end of the context."""
    client = Running(machine, arguments, environment or {}, wrapper)
    try:
        yield client
    finally:
        if client.popen.poll() is None:
            with contextlib.suppress(ProcessLookupError, subprocess.TimeoutExpired):
                if machine.counted:  # it writes its counters
                    client.signal(signal.SIGTERM)
                    client.popen.wait(timeout=5.0)
                client.signal(signal.SIGKILL)
            client.popen.kill()
        client.popen.stdout.close()
        client.popen.stderr.close()
        client.popen.wait()
