"""Reading of a launch file: the time by size, and its distribution."""

import dataclasses

from harness.callgrind import profiled
from harness.figures import Table, summary
from harness.subjects import LAUNCHER, NODE_PATH, node_name
from harness.sandbox import Sandbox

COUNTS = (10, 100, 1000, 5000, 10000)
ROUNDS, QUICK_ROUNDS = 7, 2
PROFILED, QUICK_PROFILED = 5000, 500

# Only the last node is started, and indicates that the file has been read.
KEYS = """\
    argv: --rate 30 --camera front
    required: [{other}]
    environment:
      CAMERA_DEVICE: /dev/video0
    disabled: {disabled}
"""


def _prepare(bench, count):
    nodes = [
        f"  {node_name(i)}:\n    path: {NODE_PATH}\n"
        + KEYS.format(other=node_name(0), disabled=str(i < count - 1).lower())
        for i in range(count)
    ]
    path = bench / "launch.yaml"
    path.write_text("vornnode:\n" + "".join(nodes), encoding="ascii")
    return ["/tmp/bench/vornlaunch", "/tmp/bench/launch.yaml"]


SUBJECT = dataclasses.replace(LAUNCHER, prepare=_prepare)


def profile(build, count):
    """The shares of the instructions by component."""
    with profiled(build, SUBJECT, count, expected=1) as launcher:
        found = launcher.end()

    def is_ours(function):
        return "vorn::" in function or function.startswith("main")

    def is_library(function):
        return "YAML::" in function and not is_ours(function)

    # The instructions of our functions without those of the library, which does not
    # call ours.
    library = sum(cost for caller, called, _, cost in found.calls
                  if is_ours(caller) and is_library(called))
    _, logging = found.calls_of("vorn::vtrace")
    return {"nodes": count, "instructions": found.total,
            "a node": found.total / count, "yaml-cpp": library / found.total,
            "own": 1 - library / found.total, "own, logging": logging / found.total}


def measure(build, quick):
    """The seconds by number of nodes, and the profile of a large file."""
    table = Table("s")
    for _ in range(QUICK_ROUNDS if quick else ROUNDS):
        for count in COUNTS:
            with Sandbox(build, SUBJECT, count) as sandbox:
                table.add(str(count), sandbox.start(1))
    return {
        "unit": "s",
        "counts": {count: summary(values) for count, values in table.values.items()},
        "profile": profile(build, QUICK_PROFILED if quick else PROFILED),
    }
