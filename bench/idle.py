"""Idle: the activity of supervisors while their 100 nodes do nothing."""

import contextlib
import pathlib
import subprocess
import time

from harness.subjects import LAUNCHER, LAUNCHER_DYNAMIC, PEERS
from harness.sandbox import Sandbox

NODES = 100
SECONDS, QUICK_SECONDS = 30, 5
SETTLING = 6  # some supervisors check again 5 s after their start


def scheduling(pids):
    """The processor time in nanoseconds and the number of wake-ups, of all processes
    together."""
    run = given = 0
    for pid in pids:
        text = pathlib.Path(f"/proc/{pid}/schedstat").read_text(encoding="ascii")
        run += int(text.split()[0])
        given += int(text.split()[2])
    return run, given


def count_calls(pids, seconds):
    """Starts counting the system calls."""
    # Not with ptrace, which interrupts waiting processes.
    return subprocess.Popen(
        ["perf", "stat", "-x,", "-e", "raw_syscalls:sys_enter",
         "-p", ",".join(map(str, pids)), "sleep", str(seconds)],
        stderr=subprocess.PIPE, text=True)


def calls_counted(said, wake_ups):
    """The count in the output of perf, which lists no process that has not run; None if
    perf could not count."""
    number = said.split(",")[0]
    if number.isdigit():
        return int(number)
    return 0 if wake_ups == 0 else None


def measure(build, quick):
    """The system calls, wake-ups and processor seconds of each subject."""
    seconds = QUICK_SECONDS if quick else SECONDS
    result = {"seconds": seconds, "nodes": NODES, "subjects": {}}
    with contextlib.ExitStack() as stack:
        watched = {}
        for subject in (LAUNCHER, LAUNCHER_DYNAMIC, *PEERS):
            sandbox = stack.enter_context(Sandbox(build, subject, NODES))
            sandbox.start()
            watched[subject.name] = sandbox.processes()[0]
        time.sleep(SETTLING)
        before = {name: scheduling(pids) for name, pids in watched.items()}
        counters = {name: count_calls(pids, seconds) for name, pids in watched.items()}
        for name, counter in counters.items():
            _, said = counter.communicate()
            run, given = scheduling(watched[name])
            wake_ups = given - before[name][1]
            result["subjects"][name] = {
                "system calls": calls_counted(said, wake_ups),
                "wake-ups": wake_ups,
                "processor seconds": (run - before[name][0]) / 1e9,
            }
    return result
