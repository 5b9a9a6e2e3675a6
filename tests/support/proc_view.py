"""The launcher as /proc shows it, without a request to it."""

import functools
import os
import re
import signal

from support.blocking import NO_LIMIT, limit_of_wait
from support.process_tree import children_of, read_proc, status_field
from support.waiting import eventually

# The signals that the launcher blocks for its signal descriptor, as a mask.
_ROUTED = 1 << (signal.SIGCHLD - 1) | 1 << (signal.SIGTERM - 1)


def node_of(host_pid):
    """The node that a process runs; None before it has executed its program and while
    it exits."""
    environment = read_proc(host_pid, "environ")
    match = re.search(rb"(?:^|\0)__VORN_NODE_NAME__=(.*?)\(vornlaunch\)\0", environment)
    return match[1].decode() if match else None


def descriptors_of(host_pid):
    """The sorted targets of a process's open descriptors, without inode numbers."""
    directory = f"/proc/{host_pid}/fd"
    links = []
    for fd in os.listdir(directory):
        try:
            links.append(os.readlink(f"{directory}/{fd}"))
        except FileNotFoundError:
            pass  # closed in the meantime
    return sorted(re.sub(r":\[\d+\]$", "", link) for link in links)


class Child:
    """A child of the launcher; its `state` is "" after it has been collected."""

    def __init__(self, host_pid):
        self.host_pid = host_pid
        self.node = node_of(host_pid)
        self.state = status_field(host_pid, "State")[:1]

    @property
    def is_zombie(self):
        return self.state in ("Z", "X")

    @property
    def is_traced(self):
        """The launcher is not told of its exit while it is."""
        return status_field(self.host_pid, "TracerPid") not in ("", "0")

    @property
    def pid(self):
        """The pid in the machine."""
        return int(status_field(self.host_pid, "NSpid").split()[-1])

    @property
    def has_socket(self):
        return "socket" in descriptors_of(self.host_pid)

    @property
    def blocks_signals(self):
        """Whether it blocks signals of the launcher's signal descriptor."""
        return bool(int(status_field(self.host_pid, "SigBlk"), 16) & _ROUTED)


class LauncherView:
    """Observes the launcher of a machine that has been started. Cheaper than the
    machine's own methods, which read all processes."""

    def __init__(self, machine):
        [init] = children_of(machine.unshare.pid)
        found = [pid for pid in children_of(init)
                 if status_field(pid, "NSpid").split()[-1] == str(machine.pid)]
        assert found, "the launcher has ended:\n" + machine.stderr()
        self.host_pid = found[0]
        self._machine = machine

    def is_quiet(self, notices_exits=True, without_limit=False):
        """Whether it waits for events and has handled all of them. Without
        `notices_exits`, exits of children do not count; with `without_limit`, no
        restart is due either."""
        if notices_exits:
            pending = int(status_field(self.host_pid, "ShdPnd") or "0", 16)
            if pending >> (signal.SIGCHLD - 1) & 1:
                return False
        limit = limit_of_wait(functools.partial(read_proc, self.host_pid))
        return limit is not None and (not without_limit or limit == NO_LIMIT)

    def wait_until_quiet(self, **options):
        """Waits until it is quiet or has exited."""

        def quiet():
            try:
                return self._machine.has_ended or self.is_quiet(**options)
            except (FileNotFoundError, ProcessLookupError):
                return False

        eventually(quiet, "the launcher has served everything")

    def children(self):
        """Its children, zombies included."""
        children = [Child(host_pid) for host_pid in children_of(self.host_pid)]
        return [child for child in children if child.state]

    def node(self, name):
        """The process of a node, or None."""
        return next((child for child in self.children() if child.node == name), None)

    def descriptors(self):
        """The sorted targets of its open descriptors."""
        return descriptors_of(self.host_pid)
