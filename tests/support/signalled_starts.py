"""Starts launchers one after the other and sends SIGINT to each while it
computes.

    signalled_starts.py RESULTS LAUNCHER FILE times RUNS SEED
    signalled_starts.py RESULTS LAUNCHER FILE allocations LIBRARY

Runs in the machine. With "times" the signal arrives at a random time between the
installation of its handler and the end of the start-up. With "allocations" LIBRARY
raises it in the first allocation, in the next start in the second, and so on until the
start-up has no further one or fails. For each start, RESULTS gets a JSON document in a
line: `status`, the number that subprocess gives, None for a launcher that had to be
killed; and `stdout`."""

import json
import os
import random
import signal
import subprocess
import sys
import time

OUTPUT = "/tmp/launcher.out"
PATIENCE = 60.0
NO_SUCH_ALLOCATION = 98


def start(launcher, file, environment=None):
    with open(OUTPUT, "wb") as output:
        return subprocess.Popen([launcher, file], stdin=subprocess.DEVNULL,
                                stdout=output, stderr=subprocess.DEVNULL,
                                env={**os.environ, **(environment or {})})


def has_signal(process, field, number):
    """Whether a signal is in one of the sets that /proc/PID/status shows."""
    with open(f"/proc/{process.pid}/status", encoding="ascii") as status:
        fields = dict(line.rstrip("\n").split(":\t", 1) for line in status)
    return bool(int(fields[field], 16) & 1 << (number - 1))


def wait_until(condition):
    deadline = time.monotonic() + PATIENCE
    while not condition():
        assert time.monotonic() < deadline, "the launcher does not start"


def wait_until_handled(process):
    """Waits until the launcher handles SIGINT."""
    wait_until(lambda: has_signal(process, "SigCgt", signal.SIGINT))


def load_time(launcher, file):
    """The seconds from the installation of the handler of SIGINT until the launcher
    blocks SIGCHLD, after it has read the file."""
    process = start(launcher, file)
    wait_until_handled(process)
    begin = time.monotonic()
    wait_until(lambda: has_signal(process, "SigBlk", signal.SIGCHLD))
    end = time.monotonic()
    process.kill()
    process.wait()
    return end - begin


def result_of(process):
    try:
        status = process.wait(PATIENCE)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()
        status = None
    with open(OUTPUT, encoding="utf-8", errors="replace") as output:
        return {"status": status, "stdout": output.read()}


def at_random_times(launcher, file, runs, seed):
    generator = random.Random(int(seed))
    # The first one reads the program and the file from the disk.
    duration = max(load_time(launcher, file) for _ in range(3))
    for _ in range(int(runs)):
        process = start(launcher, file)
        wait_until_handled(process)
        end = time.monotonic() + generator.uniform(0, duration)
        while time.monotonic() < end:
            pass  # a sleep would be too coarse
        process.send_signal(signal.SIGINT)
        yield result_of(process)


def in_allocations(launcher, file, library):
    number = 1
    while True:
        result = result_of(start(launcher, file, {
            "LD_PRELOAD": library, "SIGNAL_AT": str(number)}))
        if result["status"] == NO_SUCH_ALLOCATION:
            return
        yield {**result, "allocation": number}
        if result["status"] != 0:
            return
        number += 1


def main():
    target, launcher, file, form, *arguments = sys.argv[1:]
    starts = {"times": at_random_times, "allocations": in_allocations}[form]
    with open(target, "w", encoding="utf-8") as results:
        for result in starts(launcher, file, *arguments):
            print(json.dumps(result), file=results, flush=True)


if __name__ == "__main__":
    main()
