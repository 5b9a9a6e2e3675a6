"""Blocks the launcher, so that it handles several events in one iteration of its
loop."""

import contextlib
import os
import re

from support.waiting import eventually

NO_LIMIT = 0xFFFFFFFF  # -1, as the kernel shows it


def wait_until_blocked(machine, kernel_function):
    """Waits until the launcher sleeps in a kernel function of this kind, such as
    "futex" or "pipe"."""

    def is_there():
        return kernel_function.encode() in machine.process.read("wchan")

    eventually(is_there, f"the launcher waits in {kernel_function}")


def start_signalled_while_reading(machine, launch_file, number):
    """Starts the launcher on the text of a launch file, and sends it this signal
    while it waits for that text."""
    pipe = machine.tmp / "launch.pipe"
    os.mkfifo(pipe)
    machine.start(arguments=["/tmp/launch.pipe"], wait_until_up=False)
    with open(pipe, "w", encoding="ascii") as file:
        wait_until_blocked(machine, "pipe_read")
        machine.signal(number)
        file.write(launch_file)


@contextlib.contextmanager
def held(machine):
    """Within this context the launcher waits for a client's request and does
    nothing else."""
    with machine.connect() as client:
        wait_until_blocked(machine, "unix_stream")
        yield client


def limit_of_wait(read):
    """The timeout of the launcher's wait for events in milliseconds, or NO_LIMIT; None
    while it does something else. `read` returns the bytes of a file in its /proc
    directory."""
    if not re.search(b"epoll|ep_poll", read("wchan")):
        return None
    # The number of the call, then its arguments; "running" while awake.
    fields = read("syscall").split()
    return int(fields[4], 16) & 0xFFFFFFFF if len(fields) > 4 else None


def wait_until_idle(machine):
    """Waits until the launcher waits for events without a limit, which means that no
    node is about to be restarted."""
    eventually(
        lambda: limit_of_wait(machine.process.read) == NO_LIMIT,
        "the launcher waits without a limit")
