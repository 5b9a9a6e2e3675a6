"""Namespaces of its own, with a private /tmp, for each measured supervisor."""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests"))

from support.machine import INIT, PYTHON, unshare_command  # noqa: E402
from support.process_tree import children_of, descendants_of  # noqa: E402
from support.waiting import eventually  # noqa: E402

NODE = "bench-node"
# The prefix that runs a program next to a pinned sandbox.
NEXT_TO_SANDBOX = ("taskset", "-c", str(min(os.sched_getaffinity(0))))
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8"}


class DidNotStart(Exception):
    """The supervisor has not started its nodes within the time limit."""


class Sandbox:
    """A supervisor with `count` nodes. `tmp` is its /tmp, where the directory bench has
    the programs and the files of the run. Use it as a context, which kills everything
    in it at its end."""

    def __init__(self, build, subject, count):
        self._build, self._subject, self._count = build, subject, count
        self._process = None
        self.tmp = None

    def __enter__(self):
        directory = self._build / "sandboxes"
        directory.mkdir(exist_ok=True)
        self.tmp = pathlib.Path(tempfile.mkdtemp(prefix="w", dir=directory))
        self.tmp.chmod(0o755)
        bench = self.tmp / "bench"
        bench.mkdir()
        programs = [NODE, "bench-stopwatch", *self._subject.programs]
        for program in programs:
            shutil.copy2(self._build / "bin" / program, bench)
        command = self._subject.prepare(bench, self._count)
        # A page that is not yet written to disk counts as private.
        os.sync()
        self._command = [str(part) for part in command]
        return self

    def start(self, expected=None, timeout=120.0, wrapper=()):
        """Starts the supervisor, by the command `wrapper` if there is one.
        Returns the seconds from its exec until `expected` nodes ran, usually
        all."""
        if expected is None:
            expected = self._count
        self._process = subprocess.Popen(
            [*unshare_command(), PYTHON, "-I", "-S", str(INIT), str(self.tmp),
             "/tmp/bench/bench-stopwatch", str(expected), *wrapper, *self._command],
            stdin=subprocess.DEVNULL, env=ENVIRONMENT,
        )
        time = self.tmp / "bench/time"
        try:
            eventually(lambda: time.exists() or self._process.poll() is not None,
                       f"{self._subject.name} has started {expected} nodes", timeout)
        except AssertionError as error:
            raise DidNotStart(str(error)) from None
        if not time.exists():
            raise DidNotStart(f"{self._subject.name} has ended:\n{self.log()}")
        return int(time.read_text(encoding="ascii")) / 1e9

    def log(self):
        try:
            return (self.tmp / "bench/log").read_text(encoding="utf-8")
        except FileNotFoundError:
            return ""

    def __exit__(self, *_):
        if self._process is not None:
            self._process.kill()
            self._process.wait()
        shutil.rmtree(self.tmp)

    def processes(self):
        """The host pids of the supervising processes, and those of the nodes."""
        supervisors, nodes = [], []
        # Process 1 has the stopwatch as its child, which has the supervisor.
        [init] = children_of(self._process.pid)
        started = [pid for child in children_of(init) for pid in descendants_of(child)]
        for pid in started:
            try:
                program = os.path.basename(os.readlink(f"/proc/{pid}/exe"))
            except (FileNotFoundError, ProcessLookupError):
                continue  # a zombie
            (nodes if program == NODE else supervisors).append(pid)
        return supervisors, nodes

    def pin(self):
        """Moves everything in it to the last processor. The measuring process uses the
        first one; otherwise they would compete at random."""
        for pids in self.processes():
            for pid in pids:
                os.sched_setaffinity(pid, {max(os.sched_getaffinity(0))})

    @property
    def process_id(self):
        """The host pid of the process that has created the namespaces."""
        return self._process.pid

    def launcher(self):
        """The host pid of the only supervising process."""
        supervisors, _ = self.processes()
        assert len(supervisors) == 1, supervisors
        return supervisors[0]
