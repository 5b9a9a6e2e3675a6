"""The output of one node in rotated files: MB per second of the writers of logs, and the
memory of vornrun's."""

import pathlib
import shutil
import subprocess
import sys
import tempfile
import time

from harness.figures import Table, summary
from memory import memory_of
from support.process_tree import children_of, status_field
from support.waiting import eventually

BYTES, QUICK_BYTES = 1_000_000_000, 300_000_000
ROUNDS, QUICK_ROUNDS = 5, 3
FILE_SIZE = 10_000_000

# Lines of 100 bytes in writes of 64 KiB, as from a program with a large buffer.
WRITE = """
import os, sys
left, lines = int(sys.argv[1]), (b"x" * 99 + b"\\n") * 655
while left > 0:
    left -= os.write(1, lines[:left])
"""


def commands(build, directory):
    """The command of each writer, after which a program and its arguments follow."""
    def pipe(*logger):
        return ["sh", "-c", '"$@" | ' + " ".join([*logger, str(directory)]), "sh"]

    vornrun = [build / "bin/vornrun", "--state-dir", directory / "state"]
    return {
        "vornrun --log-dir": [
            *vornrun, "--log-dir", directory, "--log-size", str(FILE_SIZE),
            "--log-keep", "5", "--"],
        "s6-log": pipe("s6-log", "n5", f"s{FILE_SIZE}"),
        "multilog": pipe("multilog", "n5", f"s{FILE_SIZE}"),
    }


def seconds_for(command, size):
    """From the start until all output is in the files and the writer has exited."""
    # Every process of the writer has the pipe open.
    begin = time.monotonic()
    subprocess.run([*command, sys.executable, "-c", WRITE, str(size)], check=True,
                   stdin=subprocess.DEVNULL, stderr=subprocess.PIPE)
    return time.monotonic() - begin


def monitor_memory(build, directory):
    """KiB of the monitor and of its guardian, after 1 MB of output."""
    name = "monitor-memory"
    command = commands(build, directory)["vornrun --log-dir"]
    with subprocess.Popen(
            [*command, sys.executable, "-c", WRITE + "sys.stdin.read()", "1000000",
             name], stdin=subprocess.PIPE) as node:
        eventually(lambda: (directory / "current").exists() and
                   (directory / "current").stat().st_size == 1_000_000, "it is written")
        pids = [int(path.name) for path in pathlib.Path("/proc").glob("[0-9]*")
                if status_field(path.name, "Name") == "vornrun-monitor"
                and name.encode() in (path / "cmdline").read_bytes()]
        monitor, guardian = sorted(pids, key=lambda pid: len(children_of(pid)))
        found = {"monitor": memory_of(monitor), "guardian": memory_of(guardian)}
        node.stdin.close()
    return found


def measure(build, quick):
    """MB/s by writer, with the ratio to the faster of the others, and KiB."""
    size = QUICK_BYTES if quick else BYTES
    rates = Table("MB/s")
    with tempfile.TemporaryDirectory(dir="/dev/shm") as root:
        directory = pathlib.Path(root) / "log"
        for _ in range(QUICK_ROUNDS if quick else ROUNDS):
            for name, command in commands(build, directory).items():
                shutil.rmtree(directory, ignore_errors=True)
                directory.mkdir()
                rates.add(name, size / 1e6 / seconds_for(command, size))
        shutil.rmtree(directory)
        memory = monitor_memory(build, directory)
    medians = {name: summary(values)["median"] for name, values in rates.values.items()}
    base = max(("s6-log", "multilog"), key=medians.get)
    return {"bytes": size, "rate": rates.as_json(base, "vornrun --log-dir"),
            "memory": memory}
