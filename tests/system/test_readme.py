"""The pictures of vornctl in README.md are what it prints."""

import pathlib
import re
import shutil

import pytest

from support.control import State
from support.terminal import Terminal
from support.vornctl import VORNCTL

ROOT = pathlib.Path(__file__).resolve().parents[2]


@pytest.fixture(name="demo")
def fixture_demo(machine):
    """A machine in which the demo runs, its lamp broken."""
    shutil.copytree(ROOT / "examples/demo", machine.tmp / "demo")
    machine.start(arguments=["demo/launch.yaml"], environment={"VORN_ROOT": "/tmp/demo"})
    machine.wait_for_state("prepare", State.DISABLED)
    machine.wait_for_state("lamp", State.RESTARTING)
    return machine


def picture(title):
    """The lines of README.md's picture below the sentence that begins so."""
    text = (ROOT / "README.md").read_text(encoding="utf-8")
    return re.search(rf"^`{title}`.*?```text\n(.*?)```", text, re.M | re.S)[1].splitlines()


def without_numbers(lines):
    """The same without pids, times and what they do to the columns."""
    return [re.sub(" {2,}", "  ", re.sub(r"\d+", "0", line)) for line in lines]


def check(lines, title):
    """What to put into README.md is shown when it differs."""
    assert without_numbers(lines) == without_numbers(picture(title)), "\n".join(lines)


def test_the_picture_of_status_is_what_it_prints(demo):
    check(demo.vornctl("status").stdout.splitlines(), "vornctl status")


def test_the_picture_of_top_is_what_it_shows(demo):
    terminal = Terminal(demo, VORNCTL, "top", rows=11)
    terminal.wait_for_text("POLICY")
    terminal.press("Down", "r")
    screen = terminal.wait_for(
        lambda screen: screen[-2] == "camera: restarted"
        and any(re.match("lamp +restarting", line) for line in screen)
        and sum(" running " in line for line in screen[2:]) == 2,
        "all is as on the picture")
    check(screen, "vornctl top")
