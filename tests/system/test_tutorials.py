"""The tutorials, typed from their beginnings to their ends."""

import pathlib
import re

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
TUTORIALS = sorted((ROOT / "docs/tutorials").glob("*.md"))

# A reader links the client library by the compiler of the machine, without the
# options of a sanitized build.
MARKS = {"client": [pytest.mark.plain, pytest.mark.native]}


@pytest.mark.parametrize("path", [
    pytest.param(path, id=path.stem, marks=MARKS.get(path.stem, []))
    for path in TUTORIALS
])
def test_a_tutorial_prints_what_it_shows(path, shell):
    shell.follow(path, "console", "sh")


@pytest.mark.usefixtures("shell")  # which has the installation made
def test_an_installation_has_the_tutorials_and_what_they_point_at(machine):
    for path in TUTORIALS:
        installed = machine.install / "share/doc/vornlaunch" / path.relative_to(ROOT)
        text = installed.read_text(encoding="utf-8")
        for link in re.findall(r"\]\(([^)#]*)", text):
            assert (installed.parent / link).resolve().exists(), link


def test_there_are_tutorials():
    assert len(TUTORIALS) >= 3
