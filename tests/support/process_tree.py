"""Processes as the host sees them in /proc. All pids are the host's."""

import os
import re
import signal

from support.waiting import eventually


_HAS_TWO_PIDS = re.compile(rb"^NSpid:\t\d+\t", re.MULTILINE)


def read_proc(host_pid, file):
    """The bytes of a file in the process's /proc directory; none if the process does
    not exist."""
    try:
        with open(f"/proc/{host_pid}/{file}", "rb", buffering=0) as opened:
            return opened.read()
    except (FileNotFoundError, ProcessLookupError):
        return b""


def is_in_a_pid_namespace(host_pid):
    """Whether the process is in a pid namespace below this one; much faster than the
    fields of its status."""
    return _HAS_TWO_PIDS.search(read_proc(host_pid, "status")) is not None


def status_fields(host_pid):
    """The fields of /proc/PID/status; none if the process does not exist."""
    lines = read_proc(host_pid, "status").decode().splitlines()
    return dict(line.split(":\t", 1) for line in lines if ":\t" in line)


def status_field(host_pid, field):
    """A field of /proc/PID/status; "" if the process does not exist."""
    return status_fields(host_pid).get(field, "").strip()


def children_of(host_pid):
    """A process's children, zombies included."""
    pids = read_proc(host_pid, f"task/{host_pid}/children").split()
    return [int(pid) for pid in pids]


def descendants_of(host_pid):
    """A process's children and their descendants, zombies included."""
    children = children_of(host_pid)
    return children + [pid for child in children for pid in descendants_of(child)]


def is_zombie(host_pid):
    return status_field(host_pid, "State").startswith("Z")


def has_ended(host_pid):
    return status_field(host_pid, "State")[:1] in ("", "X", "Z")


def is_stopped(host_pid):
    return status_field(host_pid, "State").startswith("T")


def waits_in(host_pid, kernel_function):
    """Whether the process sleeps in a kernel function of this kind."""
    return kernel_function.encode() in read_proc(host_pid, "wchan")


class ProcessTree:
    """The launcher of a machine, and its children."""

    def __init__(self, machine, pid=None):
        self.pid = pid or machine.process.host_pid

    def signal(self, number):
        os.kill(self.pid, number)

    def children(self):
        """Zombies included."""
        return children_of(self.pid)

    def zombies(self):
        return [child for child in self.children() if is_zombie(child)]

    def by_machine_pid(self):
        """Each child by the pid that it has in the machine."""
        found = {status_field(child, "NSpid"): child for child in self.children()}
        return {int(pids.split()[-1]): child for pids, child in found.items() if pids}

    def wait_until_no_zombie_is_left(self):
        eventually(lambda: not self.zombies(), "every exited child is collected")

    def hold(self):
        """Stops the launcher until resume()."""
        self.signal(signal.SIGSTOP)
        eventually(lambda: is_stopped(self.pid), "the launcher is stopped")

    def resume(self):
        self.signal(signal.SIGCONT)

    def descriptors(self):
        """The number of open descriptors of the launcher."""
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def memory(self):
        """The resident memory of the launcher in KiB."""
        return int(status_field(self.pid, "VmRSS").split()[0])
