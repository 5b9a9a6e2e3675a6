"""Finds phrases that are not plain technical English in the tracked files: in
documents, manual pages, comments, messages and names.

    prose_lint.py

banned_phrases.txt, next to this file, lists the phrases and their replacements, and
prose_exceptions.txt the places where a phrase is right. Exit status: 1 if there is a
phrase, or an exception that has no effect.
"""

import fnmatch
import pathlib
import re
import subprocess
import sys

HERE = pathlib.Path(__file__).parent
ROOT = HERE.parent
# Characters that can separate two words of a comment or of a string literal.
GAP = r"""(?:[ "'\\]*\n[\s#/*"'>]*| +)"""


def entries(name):
    """The fields of each line of a list next to this file."""
    lines = (HERE / name).read_text(encoding="utf-8").splitlines()
    return [line.split("\t") for line in lines if line and not line.startswith("#")]


def tracked_texts():
    """(path, text) of each tracked text file."""
    names = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, check=True,
                           capture_output=True).stdout.decode().split("\0")
    for name in filter(None, names):
        path = ROOT / name
        if path.is_file() and not path.is_symlink():
            try:
                yield name, path.read_text(encoding="utf-8")
            except UnicodeDecodeError:
                pass  # not a text file


def matching(lists, name):
    """The entries whose path pattern matches the name."""
    return [entry for entry in lists if fnmatch.fnmatchcase(name, entry[0])]


def main():
    phrases = [(re.compile(phrase.replace(" ", GAP), re.IGNORECASE), replacement)
               for phrase, replacement in entries("banned_phrases.txt")]
    exceptions = entries("prose_exceptions.txt")
    used, errors = [], []
    for name, text in tracked_texts():
        for phrase, replacement in phrases:
            for match in phrase.finditer(text):
                found = " ".join(match[0].split())
                excused = [
                    entry for entry in matching(exceptions, name)
                    if re.search(entry[1], found, re.IGNORECASE)
                ]
                used += excused
                if not excused:
                    line = text.count("\n", 0, match.start()) + 1
                    errors.append(f"{name}:{line}: '{found}': write {replacement}")
    errors += [f"scripts: remove the entry '{entry[0]}': it has no effect"
               for entry in exceptions if entry not in used]
    print("\n".join(errors), end="\n" if errors else "")
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
