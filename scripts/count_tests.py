"""Adds up JUnit result files and prints "N passed, N failed, N skipped".

Exit status: 1 when a test failed or none ran.
"""

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
    passed, failed, skipped = count(sys.argv[1:])
    print(f"{passed} passed, {failed} failed, {skipped} skipped")
    return 1 if failed or not passed else 0


if __name__ == "__main__":
    sys.exit(main())
