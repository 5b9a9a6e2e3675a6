"""A small Debian root for a test, in which packages can be installed and programs can
run without any effect on this machine."""

import contextlib
import os
import pathlib
import signal
import subprocess

from support.process_tree import children_of
from support.waiting import eventually

# The changes are in memory and disappear with the mount namespace, which contains no
# other root. `cat` keeps the namespace until the test closes the pipe or exits.
MAKE_VIEW = """
set -e
mount --make-rprivate /
mount -t tmpfs vornlaunch-test "$2"
mkdir "$2/changes" "$2/work" "$2/root"
mount -t overlay overlay "$2/root" \\
  -o "lowerdir=$1,upperdir=$2/changes,workdir=$2/work"
mount -t devpts devpts "$2/root/dev/pts" -o newinstance,ptmxmode=0666
cp -L /etc/resolv.conf "$2/root/etc/resolv.conf"
mount -t proc proc "$2/root/proc"  # umount wants it
cd "$2/root"
pivot_root . mnt
cd /
umount -l /mnt /proc
echo made
exec cat
"""

# Pids of five digits: the launcher looks for a pid's digits anywhere in the
# process table, and short ones are found in others.
RUN = 'echo 10000 >/proc/sys/kernel/ns_last_pid; exec "$@"'


class Started:
    """A program that runs as process 1 of its own pid namespace."""

    def __init__(self, process):
        self._process = process
        pids = eventually(
            lambda: process.poll() is not None or children_of(process.pid),
            "it is started")
        assert process.returncode is None, "it has ended at once"
        self.host_pid = pids[0]

    def signal(self, number):
        os.kill(self.host_pid, number)

    @property
    def has_ended(self):
        return self._process.poll() is not None

    def wait(self, timeout=120.0):
        """Waits until the program exits. Returns its exit status; 1 after a signal."""
        return self._process.wait(timeout)

    def kill(self):
        """Kills it and everything that it has started."""
        with contextlib.suppress(ProcessLookupError):  # it is exiting
            if not self.has_ended:
                self.signal(signal.SIGKILL)
        self._process.wait()


class DebianRoot:
    """A private view of the Debian root in the directory `lower`: only this view shows
    the changes. `mount_point` is an empty directory. With `above`, both directories are
    in that view, which must not change afterwards."""

    def __init__(self, lower, mount_point, above=None):
        self._started = []
        enter = [] if above is None else above.enter()
        self._holder = subprocess.Popen(
            [*enter, "unshare", "--mount", "sh", "-c", MAKE_VIEW, "sh", str(lower),
             str(mount_point)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, encoding="utf-8")
        assert self._holder.stdout.readline() == "made\n"

    def view(self):
        """A private view of this view."""
        return DebianRoot("/", "/mnt", above=self)

    def enter(self):
        """The command that runs a command in the view."""
        return ["nsenter", f"--target={self._holder.pid}", "--mount", "--root", "--wd"]

    def path(self, inside):
        """The path of the file `inside`, an absolute path of the view, for this
        test. Symbolic links in the path must have relative targets."""
        return pathlib.Path(f"/proc/{self._holder.pid}/root{inside}")

    def execute(self, *command, check=False, timeout=300.0, of=None, **options):
        """Runs a command to its end; returns what subprocess.run() does, with
        standard error in the output. The options are those of command()."""
        finished = subprocess.run(
            self.command(*command, of=of, **options), env=self._environment(),
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, encoding="utf-8", timeout=timeout, check=False)
        if check:
            said = finished.stdout[-4000:]
            assert finished.returncode == 0, f"{command}:\n{said}"
        return finished

    def run(self, *command, **options):
        """As execute(), for a command that must succeed; returns its output."""
        return self.execute(*command, check=True, **options).stdout

    def start(self, *command, stdout=None, stderr=None, **options):
        """Starts a program as process 1 of a pid namespace. close() kills it if it
        still runs. The options are those of command()."""
        process = subprocess.Popen(
            self.command(*command, **options), env=self._environment(),
            stdin=subprocess.DEVNULL, stdout=stdout, stderr=stderr)
        self._started.append(Started(process))
        return self._started[-1]

    def command(self, *command, network=False, of=None):
        """The command that runs a command in the view, as process 1 of its own pid
        namespace, or of the program `of` that start() returned. It has no network, or
        that of this machine."""
        if of is not None:
            return ["nsenter", f"--target={of.host_pid}", "--mount", "--root",
                    "--wd", "--pid", "--net", *command]
        enter = [*self.enter(), "unshare", "--mount", "--pid", "--fork",
                 "--kill-child", "--mount-proc"]
        if not network:
            enter.append("--net")
        return [*enter, "sh", "-c", RUN, "sh", *command]

    @staticmethod
    def _environment():
        return {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8",
                "DEBIAN_FRONTEND": "noninteractive"}

    def close(self):
        """Kills all programs in the view, and removes the view."""
        for started in self._started:
            started.kill()
        self._holder.communicate()
