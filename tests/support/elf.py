"""The protections against exploits in a program's ELF headers."""

import re
import subprocess


def is_position_independent(program):
    """Whether the kernel chooses the addresses of the program."""
    return "position independent" in protections(program)


def protections(program):
    """The protections of the program, out of those that this project requires."""
    text = subprocess.run(
        ["readelf", "--wide", "--file-header", "--program-headers", "--dynamic",
         program], check=True, stdout=subprocess.PIPE, encoding="utf-8",
        env={"LC_ALL": "C", "PATH": "/usr/bin:/bin"}).stdout
    found = {
        "position independent": r"FLAGS_1\).*\bPIE\b",
        "read-only relocations": r"^ +GNU_RELRO ",
        "immediate binding": r"FLAGS_1\).*\bNOW\b",
        "stack not executable": r"^ +GNU_STACK .* RW ",
    }
    names = {name for name, pattern in found.items()
             if re.search(pattern, text, re.MULTILINE)}
    if "(TEXTREL)" not in text:
        names.add("code not relocated")
    return names


ALL_PROTECTIONS = {
    "position independent", "read-only relocations", "immediate binding",
    "stack not executable", "code not relocated",
}
