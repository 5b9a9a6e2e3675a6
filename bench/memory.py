"""Memory of all supervising processes while their nodes idle, in KiB."""

import pathlib
import re

from harness.figures import summary
from harness.subjects import LAUNCHER, LAUNCHER_DYNAMIC, PEERS, Subject
from harness.sandbox import Sandbox

COUNTS = (10, 100, 1000, 5000)
QUICK_COUNTS = (10, 100)
ROUNDS = 3
MANY = 1000  # from here on one round, because the values hardly differ
FIELDS = {"pss": ("Pss",), "private": ("Private_Clean", "Private_Dirty"),
          "private_dirty": ("Private_Dirty",)}


def _minimal(name, program):
    return Subject(name, lambda bench, count: [f"/tmp/bench/{program}"], (program,))


FLOORS = (
    _minimal("minimal program", "bench-memory-floor"),
    _minimal("minimal program, dynamic", "bench-memory-floor-dynamic"),
)


def memory_of(pid):
    text = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text(encoding="ascii")
    values = dict(re.findall(r"^(\w+): +(\d+) kB$", text, re.MULTILINE))
    return {name: sum(int(values[field]) for field in fields)
            for name, fields in FIELDS.items()}


def measure_sandbox(sandbox):
    supervisors, _ = sandbox.processes()
    found = [memory_of(pid) for pid in supervisors]
    return {"processes": len(found),
            **{name: sum(one[name] for one in found) for name in FIELDS}}


def measure_subject(build, subject, count, rounds, expected=None):
    results = []
    for _ in range(rounds):
        with Sandbox(build, subject, count) as sandbox:
            sandbox.start(expected)
            results.append(measure_sandbox(sandbox))
    return {name: summary([result[name] for result in results])
            for name in results[0]}


def bytes_per_node(by_count, subject, field):
    """The smallest and the largest number of nodes of the subject."""
    counts = [count for count in by_count if subject in by_count[count]["subjects"]]
    first, last = counts[0], counts[-1]
    if first == last:
        return None
    values = [by_count[n]["subjects"][subject][field]["median"] for n in (first, last)]
    return (values[1] - values[0]) * 1024 / (int(last) - int(first))


def measure(build, quick):
    """KiB by number of nodes, subject and kind of memory, and bytes per node."""
    rounds = 1 if quick else ROUNDS
    result = {"unit": "KiB", "floors": {}, "counts": {}, "bytes_per_node": {}}
    for subject in FLOORS:
        result["floors"][subject.name] = measure_subject(build, subject, 0, rounds, 0)
    for count in QUICK_COUNTS if quick else COUNTS:
        subjects, capped = {}, {}
        for subject in (LAUNCHER, LAUNCHER_DYNAMIC, *PEERS):
            if count > subject.limit:
                capped[subject.name] = subject.limit_reason
                continue
            subjects[subject.name] = measure_subject(
                build, subject, count, rounds if count < MANY else 1)
        result["counts"][str(count)] = {"subjects": subjects, "capped": capped}
    for name in result["counts"]["10"]["subjects"]:
        result["bytes_per_node"][name] = {
            field: bytes_per_node(result["counts"], name, field) for field in FIELDS}
    return result
