"""Start: from the exec of the supervisor until all its nodes run."""

from harness.figures import Table
from harness.subjects import LAUNCHER, LAUNCHER_DYNAMIC, PEERS, START_FLOOR
from harness.subjects import floor
from harness.sandbox import DidNotStart, Sandbox

SUBJECTS = (
    START_FLOOR,
    floor("floor, dynamic", "bench-start-floor-dynamic"),
    LAUNCHER,
    LAUNCHER_DYNAMIC,
    *PEERS,
)
# Rounds by number of nodes.
ROUNDS = {10: 21, 100: 9, 1000: 5, 5000: 3}
QUICK_ROUNDS = {10: 5, 100: 2, 1000: 3}
QUICK_PEER_LIMIT = 100


def left_out(count, quick):
    """The subjects that are left out, and the reasons."""
    capped = {subject.name: subject.limit_reason
              for subject in SUBJECTS if count > subject.limit}
    if quick and count > QUICK_PEER_LIMIT:
        capped.update({peer.name: "takes part in the full run alone"
                       for peer in PEERS})
    return capped


def measure_count(build, count, rounds, quick):
    table, capped = Table("s"), left_out(count, quick)
    for _ in range(rounds):
        for subject in SUBJECTS:
            if subject.name in capped:
                continue
            try:
                with Sandbox(build, subject, count) as sandbox:
                    table.add(subject.name, sandbox.start())
            except DidNotStart as error:
                capped[subject.name] = str(error)
    return {**table.as_json(START_FLOOR.name), "capped": capped}


def measure(build, quick):
    """The seconds of each subject by number of nodes, and the subjects that were left
    out."""
    rounds = QUICK_ROUNDS if quick else ROUNDS
    return {str(n): measure_count(build, n, rounds[n], quick) for n in rounds}
