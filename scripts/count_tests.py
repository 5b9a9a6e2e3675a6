"""Adds up the JUnit result files of a directory and prints
"N passed, N failed, N skipped", and why tests were skipped.

    count_tests.py [--allow-skips] DIRECTORY

A skipped test counts as failed. Exit status: 1 if a test failed, none ran, or one was
skipped without --allow-skips.
"""

import argparse
import collections
import pathlib
import sys
import xml.etree.ElementTree as ElementTree


def count(paths):
    """The numbers of passed and of failed tests in the files, and a Counter of
    the reasons for which tests were skipped."""
    passed = failed = 0
    skipped = collections.Counter()
    for path in paths:
        for case in ElementTree.parse(path).iter("testcase"):
            skip = case.find("skipped")
            if case.find("failure") is not None or case.find("error") is not None:
                failed += 1
            elif skip is not None:
                skipped[skip.get("message") or "no reason given"] += 1
            else:
                passed += 1
    return passed, failed, skipped


def report_skips(skipped, are_allowed):
    """Prints the reasons of skipped tests and the remedy on standard error."""
    bar = "!" * 72
    print(f"{bar}\n{skipped.total()} TESTS WERE SKIPPED:", file=sys.stderr)
    for reason, number in skipped.most_common():
        print(f"  {number:5} {' '.join(reason.split())}", file=sys.stderr)
    if not are_allowed:
        print("This run proves nothing about them, and therefore fails. Provide what "
              "is\nmissing, or accept this with --allow-skips.", file=sys.stderr)
    print(bar, file=sys.stderr)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--allow-skips", action="store_true")
    parser.add_argument("directory", type=pathlib.Path)
    arguments = parser.parse_args()
    passed, failed, skipped = count(arguments.directory.glob("*.xml"))
    if skipped:
        report_skips(skipped, arguments.allow_skips)
    print(f"{passed} passed, {failed} failed, {skipped.total()} skipped")
    if not passed:
        print("no test was run; does the filter match any?", file=sys.stderr)
    is_incomplete = bool(skipped) and not arguments.allow_skips
    return 1 if failed or not passed or is_incomplete else 0


if __name__ == "__main__":
    sys.exit(main())
