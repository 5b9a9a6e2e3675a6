"""Stop and shutdown, and where the time goes: into the fixed pauses, into the
process table's pipelines, or into the launcher."""

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
from harness.world import World
from support import control
from support.control import Cmd, Result
from support.waiting import PATIENCE

NODES = 10
ROUNDS, QUICK_ROUNDS = 9, 2
CALL = re.compile(r" *(?P<begin>[\d.]+) \( *(?P<length>[\d.]+) ms\): .*?"
                  r"(?P<name>clock_nanosleep|vfork|clone3|clone|wait4)\(")


def _parts(trace, begin_calls=("vfork", "clone3", "clone")):
    """Seconds in pauses and in pipelines, by the output of perf trace."""
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
    time.sleep(0.5)  # perf does not tell when it has begun
    try:
        yield
    finally:
        perf.send_signal(signal.SIGINT)
        perf.wait()


def _measure(world, act):
    """Runs `act`; seconds in all, and the shares of it."""
    pid = world.launcher()
    path = world.tmp / "perf"
    with traced(pid, path):
        before, begin = processor_time(pid), time.monotonic()
        act()
        whole = time.monotonic() - begin
        own = processor_time(pid) - before
    pauses, pipelines = _parts(path.read_text(encoding="utf-8", errors="replace"))
    return {"seconds": whole, "pauses": pauses / whole, "pipelines": pipelines / whole,
            "rest": 1 - (pauses + pipelines) / whole, "own processor time": own / whole}


def _stop(world):
    def act():
        response = control.exchange(world.tmp / "vornlaunch", Cmd.STOP, node_name(3))
        assert response.result == Result.SUCCESS

    return _measure(world, act)


def _shut_down(world):
    pid = world.launcher()

    def act():
        with os.fdopen(os.pidfd_open(pid)) as process:
            os.kill(pid, signal.SIGTERM)
            ended, _, _ = select.select([process], [], [], PATIENCE)
        assert ended, "the launcher has not ended"

    return _measure(world, act)


def _summaries(results):
    return {name: summary([result[name] for result in results]) for name in results[0]}


def measure(build, quick):
    """Of one stop and of a shutdown of 10 nodes: seconds and shares."""
    stops, shutdowns = [], []
    for _ in range(QUICK_ROUNDS if quick else ROUNDS):
        with World(build, LAUNCHER, NODES) as world:
            world.start()
            stops.append(_stop(world))
        with World(build, LAUNCHER, NODES) as world:
            world.start()
            shutdowns.append(_shut_down(world))
    return {"stop of one of 10 nodes": _summaries(stops),
            "shutdown of 10 nodes": _summaries(shutdowns)}
