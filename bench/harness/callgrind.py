"""The launcher under callgrind: instructions, which are the same from run to run."""

import contextlib
import os
import re
import signal

from harness.world import World
from support.process_tree import has_ended
from support.blocking import NO_LIMIT, limit_of_wait
from support.waiting import eventually

OUTPUT = "callgrind.out"
# The C library must not choose variants of its functions by the processor.
TUNABLES = "GLIBC_TUNABLES=glibc.cpu.hwcaps=-AVX2,-AVX512F,-AVX512VL,-ERMS,-FSRM"
WRAPPER = ("setarch", "-R", "env", TUNABLES, "valgrind", "--quiet",
           "--tool=callgrind", "--compress-strings=no", "--compress-pos=no",
           f"--callgrind-out-file=/tmp/bench/{OUTPUT}.%p")


class Profile:
    """What callgrind has written: instructions of all, and calls."""

    def __init__(self, text):
        self.total = int(re.search(r"^(?:totals|summary): (\d+)$", text, re.M)[1])
        self.calls = []  # (caller, called, how often, instructions in it)
        caller = called = None
        lines = iter(text.splitlines())
        for line in lines:
            if line.startswith("fn="):
                caller = line[3:]
            elif line.startswith("cfn="):
                called = line[4:]
            elif line.startswith("calls="):
                times = int(line[6:].split()[0])
                cost = int(next(lines).split()[1])
                self.calls.append((caller, called, times, cost))

    def calls_of(self, name):
        """How often the functions of this name were called, and what it took."""
        found = [(times, cost) for caller, called, times, cost in self.calls
                 if name in called and name not in caller]
        return sum(times for times, _ in found), sum(cost for _, cost in found)


class Profiled:
    """A launcher that runs under callgrind."""

    def __init__(self, world):
        self.world = world
        self.pid = world.launcher()

    def wait_until_idle(self):
        def read(file):
            with open(f"/proc/{self.pid}/{file}", "rb") as opened:
                return opened.read()

        eventually(lambda: limit_of_wait(read) == NO_LIMIT, "the launcher is idle")

    def end(self):
        """Ends the launcher, which leaves its nodes. Returns its profile."""
        os.kill(self.pid, signal.SIGINT)
        eventually(lambda: has_ended(self.pid), "the launcher has ended")
        # A child writes none: it executes its program before it ends.
        path, = (self.world.tmp / "bench").glob(OUTPUT + ".*")
        return Profile(path.read_text(encoding="utf-8"))


@contextlib.contextmanager
def profiled(build, subject, count, expected=None):
    """A launcher that has started its nodes and is idle."""
    with World(build, subject, count) as world:
        world.start(expected, wrapper=WRAPPER)
        launcher = Profiled(world)
        launcher.wait_until_idle()
        yield launcher
