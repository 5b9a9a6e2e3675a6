"""Fixtures of the tests on virtual machines, which ./lab.sh runs."""

import re
import shutil

import pytest

from guest import ROOT, Guest, guest_with_service, install

def pytest_addoption(parser):
    parser.addoption("--rounds", type=int, default=10,
                     help="the number of power cuts of each kind")
    parser.addoption("--robots", type=int, default=1000,
                     help="the number of simulated robots")


@pytest.fixture(scope="session", name="image")
def fixture_image():
    directory = ROOT / "build-lab/amd64"
    if not (directory / "disk.qcow2").exists():
        pytest.fail(f"{directory} is missing; run ./lab.sh")
    return directory


@pytest.fixture(scope="session", name="steps")
def fixture_steps():
    """The commands of docs/install.md, a list for each heading."""
    text = (ROOT / "docs/install.md").read_text(encoding="utf-8")
    return {section.split("\n")[0]:
            "".join(re.findall(r"^```sh\n(.*?)^```", section, re.M | re.S))
            for section in re.split("^## ", text, flags=re.M)[1:]}


@pytest.fixture(scope="session", name="installed")
def fixture_installed(image, tmp_path_factory):
    """A disk with the packages and a launch file; nothing is enabled."""
    guest = Guest(image, image / "disk.qcow2", tmp_path_factory.mktemp("installed"))
    guest.boot()
    try:
        install(guest)
        guest.shut_down()
    finally:
        guest.close()
    return guest.disk


@pytest.fixture(name="guest")
def fixture_guest(image, installed, tmp_path):
    """A machine for one test; its service runs."""
    with guest_with_service(image, installed, tmp_path) as guest:
        yield guest


@pytest.fixture(scope="module", name="robot")
def fixture_robot(image, installed, tmp_path_factory):
    """A machine that the tests of a module share; its service runs."""
    directory = tmp_path_factory.mktemp("robot")
    with guest_with_service(image, installed, directory) as guest:
        yield guest
    shutil.rmtree(directory, ignore_errors=True)
