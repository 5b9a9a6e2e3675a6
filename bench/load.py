"""Load of a launch file: how the time grows with it, and where it goes."""

import dataclasses

from harness.callgrind import profiled
from harness.figures import Table, summary
from harness.subjects import LAUNCHER, NODE_PATH, node_name
from harness.world import World

COUNTS = (10, 100, 1000, 5000, 10000)
ROUNDS, QUICK_ROUNDS = 7, 2
PROFILED, QUICK_PROFILED = 5000, 500

# The last node alone is started, and says that the file has been read.
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
    """The shares of the instructions by whom they are spent for."""
    with profiled(build, SUBJECT, count, expected=1) as launcher:
        found = launcher.end()

    def is_ours(function):
        return "vorn::" in function or function.startswith("main")

    def is_library(function):
        return "YAML::" in function and not is_ours(function)

    # What our functions spend, less what they have the library do; it does not
    # call ours.
    library = sum(cost for caller, called, _, cost in found.calls
                  if is_ours(caller) and is_library(called))
    _, logging = found.calls_of("vorn::vtrace")
    return {"nodes": count, "instructions": found.total,
            "a node": found.total / count, "yaml-cpp": library / found.total,
            "own": 1 - library / found.total, "own, logging": logging / found.total}


def measure(build, quick):
    """By number of nodes: seconds; and the profile of a large file."""
    table = Table("s")
    for _ in range(QUICK_ROUNDS if quick else ROUNDS):
        for count in COUNTS:
            with World(build, SUBJECT, count) as world:
                table.add(str(count), world.start(1))
    return {
        "unit": "s",
        "counts": {count: summary(values) for count, values in table.values.items()},
        "profile": profile(build, QUICK_PROFILED if quick else PROFILED),
    }
