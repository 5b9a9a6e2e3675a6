"""The commands of the tutorials."""

import pathlib

import pytest

pytestmark = pytest.mark.plain  # it tests the documents

ROOT = pathlib.Path(__file__).resolve().parents[2]
TUTORIALS = sorted((ROOT / "docs/tutorials").glob("*.md"))


# The commands use the machine's own compiler and programs, and find launchers by name.
@pytest.mark.native
@pytest.mark.parametrize("path", TUTORIALS, ids=lambda path: path.stem)
def test_a_tutorial_prints_what_it_shows(path, shell):
    shell.follow(path, "console", "sh")


def test_there_are_tutorials():
    assert len(TUTORIALS) >= 4
