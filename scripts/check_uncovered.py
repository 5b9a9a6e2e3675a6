"""Checks that docs/reliability.md says of every line with a branch that no test
takes why that is so.

    check_uncovered.py COVERAGE.JSON

An entry there is a list item "- `file.cpp`: `the source line`: the reason".
Exit status: 1 when an entry is missing or too many.
"""

import json
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
DOCUMENT = ROOT / "docs/reliability.md"
SECTION = re.compile(r"^## Coverage\n(.*?)(?=^## )", re.MULTILINE | re.DOTALL)
ENTRY = re.compile(r"^- `([\w.]+)`:\s+`(.+?)`:", re.MULTILINE | re.DOTALL)


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
    section = SECTION.search(DOCUMENT.read_text(encoding="utf-8"))[1]
    explained = {
        (file, " ".join(text.split())) for file, text in ENTRY.findall(section)
    }
    uncovered = uncovered_lines(pathlib.Path(sys.argv[1]))
    for file, text in sorted(uncovered - explained):
        print(f"{file}: a branch that no test takes, unexplained: {text}")
    for file, text in sorted(explained - uncovered):
        print(f"{file}: every branch is taken, but explained: {text}")
    return 1 if uncovered != explained else 0


if __name__ == "__main__":
    sys.exit(main())
