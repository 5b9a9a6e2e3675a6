"""Checks that every include of a file of this project points to the same layer
or a lower one. LAYERS is the order, from the lowest to the highest; layers on
one line do not include each other."""

import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).parents[1]
VORNCTL = "tools/vornctl/src/"
VORNRUN = "tools/vornrun/src/"
LAYERS = [
    ["include/vorn/"],
    ["libvornlib/"],
    ["libvornclient/", "libvornrun/", "tools/vornlaunch/"],
    [VORNRUN + "report"],
    [VORNRUN + "process/"],
    [VORNRUN + "start/"],
    [VORNRUN + "monitor/"],
    [VORNRUN + "main.cpp"],
    [VORNCTL + "system/", VORNCTL + "output/"],
    [VORNCTL + "launchfile/"],
    [VORNCTL + "check/", VORNCTL + "import/", VORNCTL + "live/"],
    [VORNCTL + "context/"],
    [VORNCTL + "commands/"],
    [VORNCTL + "cli/"],
    [VORNCTL + "main.cpp"],
]
# Where a quoted include is looked up, after the directory of the including file.
INCLUDE_PATH = ["include/", "libvornlib/include/", "libvornclient/src/",
                "libvornrun/src/", "tools/vornlaunch/src/", VORNCTL, VORNRUN]


def layer_of(path):
    """(height, name) of the layer of a file; None for a file in none."""
    for height, names in enumerate(LAYERS):
        for name in names:
            if path.startswith(name):
                return height, name
    return None


def resolve(source, included, files):
    """The file of the project that an include names, or None."""
    here = source.rpartition("/")[0] + "/"
    for directory in [here, *INCLUDE_PATH]:
        if directory + included in files:
            return directory + included
    return None


def upward_includes(files):
    """A message for each include that points to a higher or a parallel layer."""
    for source in sorted(files):
        layer = layer_of(source)
        if layer is None or "/tests/" in source:
            continue
        text = (ROOT / source).read_text(encoding="utf-8")
        for number, line in enumerate(text.splitlines(), 1):
            match = re.match(r'#include "([^"]+)"', line)
            target = match and resolve(source, match[1], files)
            other = target and layer_of(target)
            if other and other != layer and other[0] >= layer[0]:
                yield (f"{source}:{number}: {layer[1]} must not include {target}, which"
                       " is in a higher or a parallel layer")


def main():
    listed = subprocess.run(["git", "ls-files", "*.h", "*.cpp"], cwd=ROOT, check=True,
                            stdout=subprocess.PIPE, encoding="utf-8").stdout
    messages = list(upward_includes(set(listed.split())))
    print(*messages, sep="\n", end="\n" if messages else "")
    return 1 if messages else 0


if __name__ == "__main__":
    sys.exit(main())
