"""The time of a stop and of a shutdown: fixed pauses, pipelines that read the process
table, and the launcher."""

import contextlib
import os
import re
import select
import signal
import subprocess
import time

from deaths import processor_time
from harness.figures import summary
from harness.subjects import LAUNCHER, node_name
from harness.sandbox import Sandbox
from support import control
from support.control import Cmd, Result
from support.waiting import PATIENCE

NODES = 10
ROUNDS, QUICK_ROUNDS = 9, 2
CALL = re.compile(r" *(?P<begin>[\d.]+) \( *(?P<length>[\d.]+) ms\): .*?"
                  r"(?P<name>clock_nanosleep|vfork|clone3|clone|wait4)\(")


def _parts(trace, begin_calls=("vfork", "clone3", "clone")):
    """The seconds in pauses and in pipelines, from the output of perf trace."""
    pauses = pipelines = 0.0
    begin = None
    for line in trace.splitlines():
        match = CALL.match(line)
        if not match:
            continue
        start, length = float(match["begin"]), float(match["length"])
        if match["name"] == "clock_nanosleep":
            pauses += length
        elif match["name"] in begin_calls:
            begin = start
        elif begin is not None:
            pipelines += start + length - begin
            begin = None
    return pauses / 1e3, pipelines / 1e3


@contextlib.contextmanager
def traced(pid, path):
    """Within this context perf records the calls of the process."""
    perf = subprocess.Popen(
        ["perf", "trace", "-p", str(pid), "-o", path, "-e",
         "clock_nanosleep,vfork,clone,clone3,wait4"], stderr=subprocess.DEVNULL)
    time.sleep(0.5)  # perf does not report its start
    try:
        yield
    finally:
        perf.send_signal(signal.SIGINT)
        perf.wait()


def _measure(sandbox, act):
    """Runs `act`; returns the total seconds and their shares."""
    pid = sandbox.launcher()
    path = sandbox.tmp / "perf"
    with traced(pid, path):
        before, begin = processor_time(pid), time.monotonic()
        act()
        whole = time.monotonic() - begin
        own = processor_time(pid) - before
    pauses, pipelines = _parts(path.read_text(encoding="utf-8", errors="replace"))
    return {"seconds": whole, "pauses": pauses / whole, "pipelines": pipelines / whole,
            "rest": 1 - (pauses + pipelines) / whole, "own processor time": own / whole}


def _stop(sandbox):
    def act():
        response = control.exchange(sandbox.tmp / "vornlaunch", Cmd.STOP, node_name(3))
        assert response.result == Result.SUCCESS

    return _measure(sandbox, act)


def _shut_down(sandbox):
    pid = sandbox.launcher()

    def act():
        with os.fdopen(os.pidfd_open(pid)) as process:
            os.kill(pid, signal.SIGTERM)
            ended, _, _ = select.select([process], [], [], PATIENCE)
        assert ended, "the launcher has not ended"

    return _measure(sandbox, act)


def _summaries(results):
    return {name: summary([result[name] for result in results]) for name in results[0]}


def measure(build, quick):
    """The seconds and shares of one stop and of a shutdown of 10 nodes."""
    stops, shutdowns = [], []
    for _ in range(QUICK_ROUNDS if quick else ROUNDS):
        with Sandbox(build, LAUNCHER, NODES) as sandbox:
            sandbox.start()
            stops.append(_stop(sandbox))
        with Sandbox(build, LAUNCHER, NODES) as sandbox:
            sandbox.start()
            shutdowns.append(_shut_down(sandbox))
    return {"stop of one of 10 nodes": _summaries(stops),
            "shutdown of 10 nodes": _summaries(shutdowns)}
