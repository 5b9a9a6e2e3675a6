"""Checks that coverage_not_taken.txt, next to this file, lists exactly the source
lines with a branch that no test takes.

    check_uncovered.py COVERAGE.JSON

Exit status: 1 if an entry is missing or superfluous.
"""

import json
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
EXPLAINED = ROOT / "scripts/coverage_not_taken.txt"
ENTRY = re.compile(r"^([\w.]+): `(.+?)`: ", re.MULTILINE)


def uncovered_lines(report):
    """(file, source line) of every line that has a branch never taken."""
    lines = set()
    for file in json.loads(report.read_text(encoding="utf-8"))["files"]:
        path = ROOT / file["file"]
        source = path.read_text(encoding="utf-8").splitlines()
        for line in file["lines"]:
            if any(branch["count"] == 0 for branch in line["branches"]):
                text = source[line["line_number"] - 1]
                lines.add((path.name, " ".join(text.split())))
    return lines


def main():
    explained = set(ENTRY.findall(EXPLAINED.read_text(encoding="utf-8")))
    uncovered = uncovered_lines(pathlib.Path(sys.argv[1]))
    for file, text in sorted(uncovered - explained):
        print(f"{file}: a branch that no test takes, unexplained: {text}")
    for file, text in sorted(explained - uncovered):
        print(f"{file}: every branch is taken, but explained: {text}")
    return 1 if uncovered != explained else 0


if __name__ == "__main__":
    sys.exit(main())
