"""Namespaces of its own, a private /tmp included, for each supervisor that is
measured."""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests"))

from support.machine import INIT, PYTHON, unshare_command  # noqa: E402
from support.waiting import eventually  # noqa: E402

NODE = "bench-node"
# The command that runs a program beside a world that is pinned.
BESIDE = ("taskset", "-c", str(min(os.sched_getaffinity(0))))
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8"}


class DidNotStart(Exception):
    """The supervisor has not started its nodes in the time it was given."""


class World:
    """A supervisor with `count` nodes. `tmp` is its /tmp, where the directory bench
    has the programs and the files of the run. To be used as a context; at its
    end everything in it is killed."""

    def __init__(self, build, subject, count):
        self._build, self._subject, self._count = build, subject, count
        self._process = None
        self.tmp = None

    def __enter__(self):
        directory = self._build / "worlds"
        directory.mkdir(exist_ok=True)
        self.tmp = pathlib.Path(tempfile.mkdtemp(prefix="w", dir=directory))
        self.tmp.chmod(0o755)
        bench = self.tmp / "bench"
        bench.mkdir()
        programs = [NODE, "bench-stopwatch", *self._subject.programs]
        for program in programs:
            shutil.copy2(self._build / "bin" / program, bench)
        command = self._subject.prepare(bench, self._count)
        # A page of a file that is still to be written counts as private.
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

    def _descendants(self):
        children = {}
        for entry in os.listdir("/proc"):
            if entry.isdigit():
                try:
                    stat = pathlib.Path(f"/proc/{entry}/stat").read_text("utf-8")
                except (FileNotFoundError, ProcessLookupError):
                    continue
                parent = int(stat.rpartition(")")[2].split()[1])
                children.setdefault(parent, []).append(int(entry))
        # unshare, process 1, the stopwatch; then what is measured.
        found = [self._process.pid]
        for _ in range(2):
            found = [child for pid in found for child in children.get(pid, [])]
        descendants = []
        while found:
            found = [child for pid in found for child in children.get(pid, [])]
            descendants += found
        return descendants

    def processes(self):
        """The host pids of the supervising processes, and those of the nodes."""
        supervisors, nodes = [], []
        for pid in self._descendants():
            try:
                program = os.path.basename(os.readlink(f"/proc/{pid}/exe"))
            except (FileNotFoundError, ProcessLookupError):
                continue  # a zombie
            (nodes if program == NODE else supervisors).append(pid)
        return supervisors, nodes

    def pin(self):
        """From now on everything in it runs on the last processor. The first is
        for the one who measures; else it is a matter of chance whether they get
        in each other's way."""
        for pids in self.processes():
            for pid in pids:
                os.sched_setaffinity(pid, {max(os.sched_getaffinity(0))})

    def launcher(self):
        """The host pid of the only supervising process."""
        supervisors, _ = self.processes()
        assert len(supervisors) == 1, supervisors
        return supervisors[0]
