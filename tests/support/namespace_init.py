"""Process 1 of a test's own namespaces: prepares them, runs one command and
collects orphans until it is killed.

    namespace_init.py TMP COMMAND [ARGUMENT...]

The directory TMP becomes /tmp, and the directory .run in it /run. The command's pid
goes to /tmp/.init/pid, its exit status, as Popen.returncode gives it, to
/tmp/.init/status. SIGUSR1 makes it run another command, whose words are in
/tmp/.init/command, separated by NULs; from then on the two files are about that command.
"""

import ctypes
import fcntl
import os
import signal
import socket
import struct
import sys

MS_BIND = 4096
SIOCGIFFLAGS = 0x8913
SIOCSIFFLAGS = 0x8914
IFF_UP = 1
# Pids of five digits: the launcher looks for a pid's digits anywhere in the
# process table, and short ones are found in others.
LAST_PID = 10000


def bind_mount(source, target):
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.mount(source.encode(), target.encode(), None, MS_BIND, None) != 0:
        error = ctypes.get_errno()
        raise OSError(error, os.strerror(error), target)


def bring_loopback_up():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as control:
        request = struct.pack("16sh14x", b"lo", 0)
        reply = fcntl.ioctl(control, SIOCGIFFLAGS, request)
        flags = struct.unpack("16sh14x", reply)[1] | IFF_UP
        fcntl.ioctl(control, SIOCSIFFLAGS, struct.pack("16sh14x", b"lo", flags))


def publish(name, value):
    path = "/tmp/.init/" + name
    with open(path + ".new", "w", encoding="ascii") as file:
        file.write(str(value))
    os.rename(path + ".new", path)


def run(command):
    """Runs the command in a process of its own. Returns the pid."""
    pid = os.fork()
    if pid == 0:
        try:
            # Python ignores these two.
            signal.signal(signal.SIGPIPE, signal.SIG_DFL)
            signal.signal(signal.SIGXFSZ, signal.SIG_DFL)
            os.execvp(command[0], command)
        except OSError as error:
            print(f"{command[0]}: {error.strerror}", file=sys.stderr)
        os._exit(127)
    publish("pid", pid)
    return pid


def main():
    tmp, command = sys.argv[1], sys.argv[2:]
    bind_mount(tmp, "/tmp")
    os.makedirs("/tmp/.run", exist_ok=True)
    bind_mount("/tmp/.run", "/run")
    bring_loopback_up()
    try:
        with open("/proc/sys/kernel/ns_last_pid", "w", encoding="ascii") as file:
            file.write(str(LAST_PID))
    except OSError:
        pass  # only makes the tests a little less strict
    os.chdir("/tmp")
    os.makedirs("/tmp/.init", exist_ok=True)

    pid = run(command)

    def run_another(*_):
        nonlocal pid
        with open("/tmp/.init/command", encoding="utf-8") as file:
            pid = run(file.read().split("\0"))

    signal.signal(signal.SIGUSR1, run_another)
    while True:
        try:
            collected, status = os.wait()
        except ChildProcessError:
            signal.pause()
        if collected == pid:
            pid = None
            publish("status", os.waitstatus_to_exitcode(status))


if __name__ == "__main__":
    main()
