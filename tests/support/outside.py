"""The launcher as /proc shows it, without a call of its own."""

import os
import pathlib
import re
import signal

from support.waiting import eventually


def _status(host_pid):
    text = pathlib.Path(f"/proc/{host_pid}/status").read_text(encoding="utf-8")
    return dict(line.split(":\t", 1) for line in text.splitlines() if ":\t" in line)


def _children(host_pid):
    path = pathlib.Path(f"/proc/{host_pid}/task/{host_pid}/children")
    return [int(pid) for pid in path.read_text(encoding="ascii").split()]


def node_of(host_pid):
    """The node that a process runs; None before it has executed its program and
    while it dies."""
    try:
        environment = pathlib.Path(f"/proc/{host_pid}/environ").read_bytes()
    except (FileNotFoundError, ProcessLookupError):
        return None
    match = re.search(rb"(?:^|\0)__VORN_NODE_NAME__=(.*?)\(vornlaunch\)\0", environment)
    return match[1].decode() if match else None


class Child:
    """A child of the launcher."""

    def __init__(self, host_pid):
        fields = _status(host_pid)
        self.host_pid = host_pid
        self.pid = int(fields["NSpid"].split()[-1])
        self.state = fields["State"][0]
        self.node = node_of(host_pid)

    @property
    def is_zombie(self):
        return self.state in "ZX"


class Outside:
    """Looks at the launcher of a machine that has been started. Cheaper than
    the machine's own looks, which go through all processes."""

    def __init__(self, machine):
        [init] = _children(machine.unshare.pid)
        self.host_pid = next(
            pid for pid in _children(init)
            if _status(pid)["NSpid"].split()[-1] == str(machine.pid)
        )
        self._machine = machine

    def _read(self, file):
        return pathlib.Path(f"/proc/{self.host_pid}/{file}").read_text(encoding="ascii")

    def is_quiet(self, notices_exits=True, without_limit=False):
        """Whether it waits for events and has served all there were. Without
        `notices_exits` those of children do not count; `without_limit`: no
        restart is due either."""
        if notices_exits:
            fields = _status(self.host_pid)
            pending = int(fields["SigPnd"], 16) | int(fields["ShdPnd"], 16)
            if pending >> (signal.SIGCHLD - 1) & 1:
                return False
        if not re.search("epoll|ep_poll", self._read("wchan")):
            return False
        if without_limit:
            # The number of the call, then its arguments; "running" while awake.
            fields = self._read("syscall").split()
            return len(fields) > 4 and int(fields[4], 16) & 0xFFFFFFFF == 0xFFFFFFFF
        return True

    def wait_until_quiet(self, **options):
        """Waits for that, or for the launcher's end."""

        def quiet():
            try:
                return self._machine.has_ended or self.is_quiet(**options)
            except (FileNotFoundError, ProcessLookupError):
                return False

        eventually(quiet, "the launcher has served everything")

    def children(self):
        """Its children, zombies included."""
        found = []
        for host_pid in _children(self.host_pid):
            try:
                found.append(Child(host_pid))
            except (FileNotFoundError, ProcessLookupError):
                pass  # collected meanwhile
        return found

    def node(self, name):
        """The process of a node, or None."""
        return next((child for child in self.children() if child.node == name), None)

    def descriptors(self):
        """What its open descriptors are, in order, without their numbers."""
        folder = f"/proc/{self.host_pid}/fd"
        links = [os.readlink(f"{folder}/{fd}") for fd in os.listdir(folder)]
        return sorted(re.sub(r":\[\d+\]$", "", link) for link in links)
