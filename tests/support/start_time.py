"""The start times of processes from the kernel."""

import os

from support.waiting import eventually

_START_TIME = 22 - 3  # of /proc/PID/stat, counted from the third field on

# A crashed node is started again when this long has passed since its start.
RESTART_TICKS = 5 * os.sysconf("SC_CLK_TCK")


def start_ticks(process):
    """The time of the fork, in clock ticks since boot."""
    fields = process.read("stat").decode().rpartition(")")[2].split()
    return int(fields[_START_TIME])


def wait_for_start(machine, node, other_than=0):
    """Waits until `node` runs with another pid than `other_than`. Returns the
    pid and the time of the fork, in clock ticks since boot."""

    def running():
        pid = machine.status(node).pid
        process = machine.find_process(pid) if pid not in (0, other_than) else None
        try:
            return process and (pid, start_ticks(process))
        except (FileNotFoundError, ProcessLookupError):
            return None  # it has crashed in the meantime

    return eventually(running, f"{node} is started")
