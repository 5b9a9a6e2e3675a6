"""The launcher under callgrind, which counts instructions, the same in every run."""

import contextlib
import functools
import os
import re
import signal

from harness.sandbox import Sandbox
from support.blocking import NO_LIMIT, limit_of_wait
from support.process_tree import has_ended, read_proc
from support.waiting import eventually

OUTPUT = "callgrind.out"
# The C library must not select its functions by the processor.
TUNABLES = "GLIBC_TUNABLES=glibc.cpu.hwcaps=-AVX2,-AVX512F,-AVX512VL,-ERMS,-FSRM"
WRAPPER = ("setarch", "-R", "env", TUNABLES, "valgrind", "--quiet",
           "--tool=callgrind", "--compress-strings=no", "--compress-pos=no",
           f"--callgrind-out-file=/tmp/bench/{OUTPUT}.%p")


class Profile:
    """The output of callgrind: all instructions, and the calls."""

    def __init__(self, text):
        self.total = int(re.search(r"^(?:totals|summary): (\d+)$", text, re.M)[1])
        self.calls = []  # (caller, callee, count, instructions in the callee)
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
        """The number of calls of the functions with this name, and their
        instructions."""
        found = [(times, cost) for caller, called, times, cost in self.calls
                 if name in called and name not in caller]
        return sum(times for times, _ in found), sum(cost for _, cost in found)


class Profiled:
    """A launcher that runs under callgrind."""

    def __init__(self, sandbox):
        self.sandbox = sandbox
        self.pid = sandbox.launcher()

    def wait_until_idle(self):
        read = functools.partial(read_proc, self.pid)
        eventually(lambda: limit_of_wait(read) == NO_LIMIT, "the launcher is idle")

    def end(self):
        """Terminates the launcher, but not its nodes. Returns its profile."""
        os.kill(self.pid, signal.SIGINT)
        eventually(lambda: has_ended(self.pid), "the launcher has ended")
        # A child writes no profile: it executes its program before it exits.
        path, = (self.sandbox.tmp / "bench").glob(OUTPUT + ".*")
        return Profile(path.read_text(encoding="utf-8"))


@contextlib.contextmanager
def profiled(build, subject, count, expected=None):
    """A launcher that has started its nodes and is idle."""
    with Sandbox(build, subject, count) as sandbox:
        sandbox.start(expected, wrapper=WRAPPER)
        launcher = Profiled(sandbox)
        launcher.wait_until_idle()
        yield launcher
