"""Adds up the JUnit result files of a folder and prints
"N passed, N failed, N skipped".

    count_tests.py [--no-skips] FOLDER

Exit status: 1 when a test failed or none ran, or was skipped with --no-skips.
"""

import argparse
import pathlib
import sys
import xml.etree.ElementTree as ElementTree


def count(paths):
    """The numbers of (passed, failed, skipped) tests in the files."""
    passed = failed = skipped = 0
    for path in paths:
        for case in ElementTree.parse(path).iter("testcase"):
            if case.find("failure") is not None or case.find("error") is not None:
                failed += 1
            elif case.find("skipped") is not None:
                skipped += 1
            else:
                passed += 1
    return passed, failed, skipped


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--no-skips", action="store_true")
    parser.add_argument("folder", type=pathlib.Path)
    arguments = parser.parse_args()
    passed, failed, skipped = count(arguments.folder.glob("*.xml"))
    print(f"{passed} passed, {failed} failed, {skipped} skipped")
    if not passed:
        print("no test was run; does the filter match any?", file=sys.stderr)
    return 1 if failed or not passed or (arguments.no_skips and skipped) else 0


if __name__ == "__main__":
    sys.exit(main())
