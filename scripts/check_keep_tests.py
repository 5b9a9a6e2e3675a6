"""Checks that every test that a KEEP: comment names exists.

A comment names a unit test as "Test: Suite.Name" and a whole-program test as "Test:
test_file.py, test_name". Exit status: 1 if a test is missing.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
COMMENT = re.compile(r"// KEEP:.*?(?=\n\s*(?!\s*//))", re.DOTALL)
NAME = re.compile(r"Test: (?:(\w+)\.(\w+)$|(test_\w+\.py), *(test_\w+))", re.MULTILINE)
UNIT_TEST = re.compile(r"^TEST(?:_F|_P)?\((\w+),\s*(\w+)\)", re.MULTILINE)
SYSTEM_TEST = re.compile(r"^def (test_\w+)\(", re.MULTILINE)


def files_below(*patterns):
    """The files of our C++ directories that match one of the patterns."""
    return sorted(
        path
        for directory in ("include", "libvornclient", "libvornlib", "libvornrun", "tools")
        for pattern in patterns
        for path in (ROOT / directory).rglob(pattern)
    )


def existing_tests():
    """Every existing test, as (suite or file, name)."""
    tests = set()
    for path in files_below("*_test.cpp"):
        tests.update(UNIT_TEST.findall(path.read_text(encoding="utf-8")))
    for path in (ROOT / "tests").rglob("test_*.py"):
        text = path.read_text(encoding="utf-8")
        tests.update((path.name, name) for name in SYSTEM_TEST.findall(text))
    return tests


def main():
    tests = existing_tests()
    status = 0
    for source in files_below("src/*.h", "src/*.cpp"):
        for comment in COMMENT.findall(source.read_text(encoding="utf-8")):
            text = re.sub(r"\n\s*// ?", "\n", comment).replace(",\n", ", ")
            match = NAME.search(text)
            wanted = match and (match[1] or match[3], match[2] or match[4])
            if wanted not in tests:
                print(f"{source.relative_to(ROOT)}: {wanted or 'no test'}: {text}")
                status = 1
    return status


if __name__ == "__main__":
    sys.exit(main())
