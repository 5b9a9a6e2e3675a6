"""Holding the launcher still, so that what happens meanwhile meets it at once."""

import contextlib
import re

from support.waiting import eventually


def wait_until_blocked(machine, kernel_function):
    """Waits until the launcher sleeps in a kernel function of this kind, such as
    "futex" or "pipe"."""

    def is_there():
        return kernel_function.encode() in machine.process.read("wchan")

    eventually(is_there, f"the launcher waits in {kernel_function}")


@contextlib.contextmanager
def held(machine):
    """Within this context the launcher waits for a client's request and does
    nothing else."""
    with machine.connect() as client:
        wait_until_blocked(machine, "unix_stream")
        yield client


def wait_until_idle(machine):
    """Waits until the launcher waits for events without a limit, which it does
    while no node is about to be restarted."""

    def has_no_limit():
        if not re.search(b"epoll|ep_poll", machine.process.read("wchan")):
            return False
        # The number of the call, then its arguments; "running" while awake.
        fields = machine.process.read("syscall").split()
        return len(fields) > 4 and int(fields[4], 16) & 0xFFFFFFFF == 0xFFFFFFFF

    eventually(has_no_limit, "the launcher waits without a limit")
