"""A fatal signal arrives while the launcher computes."""

import json
import pathlib
import shutil
import subprocess

import pytest
from support.machine import PYTHON

SUPPORT = pathlib.Path(__file__).parents[1] / "support"
ENDED_BY_SIGINT = {"status": 0, "stdout": "vornlaunch handle with Interrupt(2)\n"}


def signalled_starts(machine, program, content, *arguments):
    """The different results of signalled_starts.py."""
    shutil.copy2(SUPPORT / "signalled_starts.py", machine.tmp)
    shutil.copy2(program, machine.install / "bin/launcher")
    file = machine.launch_file(content)
    machine.start_without_launcher()
    machine.run(PYTHON, "-I", "/tmp/signalled_starts.py", "/tmp/results",
                "/tmp/install/bin/launcher", file, *arguments, timeout=1200)
    lines = (machine.tmp / "results").read_text(encoding="utf-8").splitlines()
    return [json.loads(line) for line in lines]


def sleeping_nodes(count):
    """A launch file whose nodes are not started."""
    return {"vornnode": {
        f"node{i}": {"path": "/bin/sleep", "argv": "1 2 3", "autostart": False,
                     "environment": {"NAME": f"a value of node {i}"}}
        for i in range(count)}}


def test_sigint_at_a_random_time_of_the_start_up_terminates_the_launcher(
        machine, program, is_long):
    runs, nodes = (3000, 4000) if is_long else (300, 400)
    if machine.sanitized:
        runs //= 5  # each takes much longer
    results = signalled_starts(machine, program, sleeping_nodes(nodes), "times",
                               str(runs), "1")
    assert len(results) == runs
    assert [x for x in results if x != ENDED_BY_SIGINT] == []


@pytest.mark.native
@pytest.mark.plain  # a sanitizer has an allocator of its own
def test_the_handler_of_sigint_never_allocates_within_an_allocation(
        machine, program):
    dynamic = program.with_name("vornlaunch-dynamic")
    library = machine.tmp / "signal_in_allocation.so"
    subprocess.run(
        ["cc", "-shared", "-fPIC", "-O1", "-Wall", "-Wextra", "-Werror", "-o",
         library, SUPPORT / "signal_in_allocation.c"], check=True)
    results = signalled_starts(
        machine, dynamic if dynamic.exists() else program, sleeping_nodes(1),
        "allocations", f"/tmp/{library.name}")
    assert len(results) > 100  # reading the launch file needs more
    failed = [x for x in results if {**x, **ENDED_BY_SIGINT} != x]
    assert failed == []
