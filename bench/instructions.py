"""Instructions of the launcher's usual work, compared with the recorded baseline.

    instructions.py [--build DIRECTORY] [--update]

Fails if one of them has grown by more than 5 %. Each is the difference of two runs that
differ in nothing else, so that one-time work does not count.
"""

import argparse
import json
import os
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parent))

from harness.sandbox import ROOT  # noqa: E402

from harness.callgrind import profiled  # noqa: E402
from harness.subjects import LAUNCHER, launcher  # noqa: E402
from status import Served, asked_nodes  # noqa: E402
from support.waiting import eventually  # noqa: E402

KEPT = pathlib.Path(__file__).with_name("instructions.json")
ALLOWED = 1.05

ONESHOT = launcher(keys="    oneshot: true\n")


def started(build, count):
    """The profile of a launcher that starts this number of nodes."""
    with profiled(build, LAUNCHER, count) as found:
        return found.end()


def asked(build, requests):
    """The profile of a launcher of 10 nodes with this number of STATUS requests."""
    with profiled(build, LAUNCHER, 10) as found:
        Served(build, found.sandbox, LAUNCHER, asked_nodes(10)).ask(requests)
        found.wait_until_idle()
        return found.end()


def reaped(build, deaths):
    """The profile of a launcher with 40 nodes, of which this number dies."""
    with profiled(build, ONESHOT, 40) as found:
        for pid in sorted(found.sandbox.processes()[1])[:deaths]:
            os.kill(pid, 9)
            eventually(lambda: not os.path.exists(f"/proc/{pid}"), "it is collected")
            found.wait_until_idle()
        return found.end()


def count(build):
    """The instructions of each kind of work."""
    few, many = started(build, 10), started(build, 60)
    fewer_asked, more_asked = asked(build, 50), asked(build, 250)
    fewer_reaped, more_reaped = reaped(build, 5), reaped(build, 35)
    lines, cost = (
        more - fewer for more, fewer in zip(more_asked.calls_of("vorn::vtrace"),
                                            fewer_asked.calls_of("vorn::vtrace")))
    return {
        "start-up with 10 nodes": few.total,
        "one more node": round((many.total - few.total) / 50),
        "one STATUS": round((more_asked.total - fewer_asked.total) / 200),
        "one log line": round(cost / lines),
        "one reap": round((more_reaped.total - fewer_reaped.total) / 30),
    }


def compare(counts, kept):
    """Prints both; returns the operations that have grown too much."""
    grown = []
    for name, number in counts.items():
        growth = number / kept[name] - 1
        print(f"{name:24} {number:10} kept {kept[name]:10} {growth:+8.2%}")
        if number > kept[name] * ALLOWED:
            grown.append(name)
    return grown


def main():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build")
    parser.add_argument("--update", action="store_true",
                        help="keep what is counted now")
    options = parser.parse_args()
    counts = count(options.build.resolve())
    if options.update:
        KEPT.write_text(json.dumps(counts, indent=2) + "\n", encoding="ascii")
        print(KEPT.read_text(encoding="ascii"), end="")
        return 0
    grown = compare(counts, json.loads(KEPT.read_text(encoding="ascii")))
    for name in grown:
        print(f"more than {ALLOWED - 1:.0%} above what is kept: {name}; if it must be,"
              " bench/instructions.py --update")
    return 1 if grown else 0


if __name__ == "__main__":
    sys.exit(main())
