"""Starts launchers one after the other, and records the result of each.

    launch_many.py OUTCOMES LAUNCHER FILE...

Runs in the machine, next to copies of control.py. For each file, OUTCOMES gets a JSON
document in a line: `status`, the number that subprocess gives, None for a launcher that
has started its nodes; `log`, all it wrote to standard error; `pid`; and `children`,
with `argv` and `environment` of each that has executed a program and still runs."""

import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).parent))

import control  # noqa: E402

SOCKETS = "/tmp/vornlaunch"
LOG = "/tmp/launcher.log"
PAUSE = 0.001
PATIENCE = 60.0


def answers():
    """Whether the launcher has started its nodes and serves commands."""
    try:
        control.exchange(SOCKETS, control.Cmd.STATUS, "no such node")
        return True
    except (FileNotFoundError, ConnectionError):
        return False


def wait_for(condition):
    deadline = time.monotonic() + PATIENCE
    while not condition():
        assert time.monotonic() < deadline, "the launcher does not come up"
        time.sleep(PAUSE)


def words(path):
    return [word.decode(errors="replace")
            for word in pathlib.Path(path).read_bytes().split(b"\0")[:-1]]


def children_of(pid):
    text = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text(
        encoding="ascii")
    return [int(child) for child in text.split()]


def describe(pid, launcher):
    """A child that has executed its program and waits; None before that, and an empty
    dictionary if it has exited. A stopped worker has certainly executed its program:
    during the exec, its arguments can be missing."""
    directory = pathlib.Path(f"/proc/{pid}")
    try:
        stat = (directory / "stat").read_text(encoding="ascii", errors="replace")
        state = stat.rsplit(")", 1)[1].split()[0]
        if state in "ZX":
            return {}
        if state not in "TS" or os.readlink(directory / "exe") == launcher:
            return None
        return {"argv": words(directory / "cmdline"),
                "environment": words(directory / "environ")}
    except (FileNotFoundError, ProcessLookupError):
        return {}


def launch(launcher, file):
    shutil.rmtree(SOCKETS, ignore_errors=True)
    with open(LOG, "wb") as log:
        process = subprocess.Popen([launcher, file], stderr=log,
                                   stdin=subprocess.DEVNULL)
    wait_for(lambda: process.poll() is not None or answers())
    outcome = {"file": file, "status": process.returncode, "pid": process.pid}
    children = []
    if process.returncode is None:
        pids = children_of(process.pid)

        def all_described():
            children[:] = [describe(pid, launcher) for pid in pids]
            return None not in children

        wait_for(all_described)
        process.send_signal(signal.SIGKILL)
        process.wait()
        for pid in pids:
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
    outcome["children"] = [child for child in children if child]
    outcome["log"] = pathlib.Path(LOG).read_text(encoding="utf-8",
                                                 errors="replace")
    return outcome


def main():
    target, launcher, *files = sys.argv[1:]
    with open(target, "w", encoding="utf-8") as outcomes:
        for file in files:
            print(json.dumps(launch(launcher, file)), file=outcomes, flush=True)


if __name__ == "__main__":
    main()
