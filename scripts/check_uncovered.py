"""Checks that the tests take enough branches of each component, and that
coverage_not_taken.txt, next to this file, lists exactly the lines of the launcher's
sources with the others.

    check_uncovered.py COVERAGE.JSON PERCENT BUILD

Exit status: 1 if a component has fewer branches taken than PERCENT, or if an entry is
missing or superfluous.
"""

import collections
import json
import pathlib
import re
import sys

from normal_branches import normal_branches

ROOT = pathlib.Path(__file__).resolve().parent.parent
EXPLAINED = ROOT / "scripts/coverage_not_taken.txt"
ENTRY = re.compile(r"^([\w./]+): `(.+?)`: ", re.MULTILINE)
# The component of each directory.
COMPONENTS = {
    "include": "vornlaunch",
    "libvornlib": "vornlaunch",
    "libvornclient": "client library",
    "libvornrun": "vornrun",
    "tools/vornctl": "vornctl",
    "tools/vornlaunch": "vornlaunch",
    "tools/vornrun": "vornrun",
}


def component_of(path):
    return next(name for directory, name in COMPONENTS.items()
                if path.startswith(directory + "/"))


def branches_by_component(files, normal):
    """The numbers of taken and of all branches; `normal` is the number of each line
    without those of exceptions."""
    taken, existing = collections.Counter(), collections.Counter()
    for file in files:
        component = component_of(file["file"])
        path = str((ROOT / file["file"]).resolve())
        for line in file["lines"]:
            counts = [branch["count"] for branch in line["branches"]]
            hits = sum(count > 0 for count in counts)
            taken[component] += hits
            existing[component] += min(
                len(counts), max(hits, normal[path, line["line_number"]]))
    return {name: (taken[name], existing[name]) for name in existing}


def uncovered_lines(files):
    """(file, source line) of the launcher's lines that have a branch never taken."""
    lines = set()
    for file in files:
        if component_of(file["file"]) != "vornlaunch":
            continue
        source = (ROOT / file["file"]).read_text(encoding="utf-8").splitlines()
        for line in file["lines"]:
            if any(branch["count"] == 0 for branch in line["branches"]):
                text = source[line["line_number"] - 1]
                lines.add((file["file"], " ".join(text.split())))
    return lines


def main():
    report, wanted = pathlib.Path(sys.argv[1]), float(sys.argv[2])
    files = json.loads(report.read_text(encoding="utf-8"))["files"]
    status = 0
    branches = branches_by_component(files, normal_branches(sys.argv[3]))
    for name, (taken, existing) in sorted(branches.items()):
        percent = 100 * taken / existing
        print(f"{name}: {taken} of {existing} branches, {percent:.1f} %")
        if percent < wanted:
            status = 1
    explained = set(ENTRY.findall(EXPLAINED.read_text(encoding="utf-8")))
    uncovered = uncovered_lines(files)
    for file, text in sorted(uncovered - explained):
        print(f"{file}: a branch that no test takes, unexplained: {text}")
    for file, text in sorted(explained - uncovered):
        print(f"{file}: every branch is taken, but explained: {text}")
    return status or int(uncovered != explained)


if __name__ == "__main__":
    sys.exit(main())
