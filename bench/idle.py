"""Idle: what supervisors do while their 100 nodes do nothing."""

import contextlib
import pathlib
import subprocess
import time

from harness.subjects import LAUNCHER, LAUNCHER_DYNAMIC, PEERS
from harness.world import World

NODES = 100
SECONDS, QUICK_SECONDS = 30, 5
SETTLING = 6  # some peers look again 5 s after their start


def scheduling(pids):
    """Nanoseconds on a processor and how often one was given, of all together."""
    run = given = 0
    for pid in pids:
        text = pathlib.Path(f"/proc/{pid}/schedstat").read_text(encoding="ascii")
        run += int(text.split()[0])
        given += int(text.split()[2])
    return run, given


def count_calls(pids, seconds):
    """Starts to count the system calls."""
    # Not by ptrace, which itself interrupts what waits.
    return subprocess.Popen(
        ["perf", "stat", "-x,", "-e", "raw_syscalls:sys_enter",
         "-p", ",".join(map(str, pids)), "sleep", str(seconds)],
        stderr=subprocess.PIPE, text=True)


def calls_counted(said, wake_ups):
    """By the output of perf, which counts nothing of what has not run at all;
    None if it could not count."""
    number = said.split(",")[0]
    if number.isdigit():
        return int(number)
    return 0 if wake_ups == 0 else None


def measure(build, quick):
    """Of each subject: system calls, wake-ups and seconds of processor time."""
    seconds = QUICK_SECONDS if quick else SECONDS
    result = {"seconds": seconds, "nodes": NODES, "subjects": {}}
    with contextlib.ExitStack() as stack:
        watched = {}
        for subject in (LAUNCHER, LAUNCHER_DYNAMIC, *PEERS):
            world = stack.enter_context(World(build, subject, NODES))
            world.start()
            watched[subject.name] = world.processes()[0]
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
