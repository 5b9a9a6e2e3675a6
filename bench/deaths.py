"""Deaths: the time for which an exited child is a zombie, and 200 simultaneous
exits."""

import array
import contextlib
import pathlib
import subprocess
import time

from harness.figures import Table, summary
from harness.subjects import LAUNCHER, LAUNCHER_DYNAMIC, PEERS, SUPERVISORD, floor
from harness.sandbox import NEXT_TO_SANDBOX, Sandbox

SINGLE_NODES = 100
ROUNDS, QUICK_ROUNDS = 80, 9
MASS_NODES = 200
MASS_ROUNDS, QUICK_MASS_ROUNDS = 7, 1
REAP_PAUSE = 0.001

WAIT_FLOOR = floor("floor", "bench-reap-floor", "wait")
CALLS_FLOOR = floor("floor, same calls", "bench-reap-floor", "calls")


def kill(build, pids):
    """Seconds for which the last child was a zombie; seconds until all were
    collected."""
    killer = subprocess.run(
        [*NEXT_TO_SANDBOX, build / "bin/bench-killer", *map(str, pids)],
        stdout=subprocess.PIPE, check=True)
    zombie, whole = array.array("q", killer.stdout)
    return zombie / 1e9, whole / 1e9


def measure_single(build, rounds):
    table = Table("s")
    with contextlib.ExitStack() as stack:
        victims = {}
        for subject in (WAIT_FLOOR, CALLS_FLOOR, LAUNCHER, LAUNCHER_DYNAMIC, *PEERS):
            sandbox = stack.enter_context(Sandbox(build, subject, SINGLE_NODES))
            sandbox.start()
            sandbox.pin()
            victims[subject.name] = iter(sandbox.processes()[1])
        for _ in range(rounds):
            for name, pids in victims.items():
                table.add(name, kill(build, [next(pids)])[0])
                time.sleep(0.01)  # until the pauses after a death are over
    return table


def processor_time(pid):
    """The processor time of the process in seconds."""
    schedstat = pathlib.Path(f"/proc/{pid}/schedstat").read_text(encoding="ascii")
    return int(schedstat.split()[0]) / 1e9


def measure_mass(build, rounds):
    table, own = Table("s"), []
    for _ in range(rounds):
        for subject in (WAIT_FLOOR, CALLS_FLOOR, LAUNCHER, SUPERVISORD):
            with Sandbox(build, subject, MASS_NODES) as sandbox:
                sandbox.start()
                sandbox.pin()
                _, nodes = sandbox.processes()
                before = processor_time(sandbox.launcher())
                _, whole = kill(build, nodes)
                table.add(subject.name, whole)
                if subject is LAUNCHER:
                    own.append((processor_time(sandbox.launcher()) - before) / whole)
    return table, own


def measure(build, quick):
    """The seconds of each subject, and the share of the launcher's own work."""
    single = measure_single(build, QUICK_ROUNDS if quick else ROUNDS)
    mass, own = measure_mass(build, QUICK_MASS_ROUNDS if quick else MASS_ROUNDS)
    return {
        "death to collection": single.as_json(WAIT_FLOOR.name),
        "death to collection, same calls": single.as_json(CALLS_FLOOR.name),
        "200 deaths": mass.as_json(CALLS_FLOOR.name),
        "200 deaths, pauses alone": MASS_NODES * REAP_PAUSE,
        "200 deaths, own share of the time": summary(own),
    }
