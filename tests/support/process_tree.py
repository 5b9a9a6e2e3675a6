"""The launcher and its children as the host sees them, at low cost even for many
children."""

import os
import pathlib
import signal

from support.waiting import eventually


def _read(host_pid, file):
    """A file in the process's /proc directory; "" if the process does not exist."""
    try:
        return pathlib.Path(f"/proc/{host_pid}/{file}").read_text(encoding="utf-8")
    except (FileNotFoundError, ProcessLookupError):
        return ""


def status_field(host_pid, field):
    """A field of /proc/PID/status; "" if the process does not exist."""
    for line in _read(host_pid, "status").splitlines():
        if line.startswith(field + ":"):
            return line.split(":")[1].strip()
    return ""


def children_of(host_pid):
    """The host pids of a process's children, zombies included."""
    return [int(pid) for pid in _read(host_pid, f"task/{host_pid}/children").split()]


def is_zombie(host_pid):
    return status_field(host_pid, "State").startswith("Z")


def has_ended(host_pid):
    return status_field(host_pid, "State")[:1] in ("", "X", "Z")


def is_stopped(host_pid):
    return status_field(host_pid, "State").startswith("T")


def waits_in(host_pid, kernel_function):
    """Whether the process sleeps in a kernel function of this kind."""
    return kernel_function in _read(host_pid, "wchan")


class ProcessTree:
    """The launcher of a machine, and its children; pids are the host's."""

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
