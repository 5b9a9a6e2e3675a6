"""The commands of the tutorials."""

import pathlib

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
TUTORIALS = sorted((ROOT / "docs/tutorials").glob("*.md"))

# A reader links the client library without the options of a sanitized build.
MARKS = {"client": [pytest.mark.plain]}


# The commands use the machine's own compiler and programs, and find launchers by name.
@pytest.mark.native
@pytest.mark.parametrize("path", [
    pytest.param(path, id=path.stem, marks=MARKS.get(path.stem, []))
    for path in TUTORIALS
])
def test_a_tutorial_prints_what_it_shows(path, shell):
    shell.follow(path, "console", "sh")


def test_there_are_tutorials():
    assert len(TUTORIALS) >= 4
