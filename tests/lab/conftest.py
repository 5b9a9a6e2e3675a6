"""Fixtures of the tests on virtual machines, which ./lab.sh runs."""

import json
import pathlib
import re
import shutil

import pytest

from guest import Guest, guest_with_service

ROOT = pathlib.Path(__file__).resolve().parents[2]
LAUNCH_FILE = {"vornnode": {
    "camera": {"path": "/opt/robot/camera"},
    "planner": {"path": "/opt/robot/planner", "required": ["camera"]},
}}


@pytest.fixture(scope="session", name="image")
def fixture_image():
    directory = ROOT / "build-lab/image"
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


def packages():
    return [path for path in sorted((ROOT / "build-packages/amd64").glob("vorn*.deb"))
            if "-dbgsym_" not in path.name]


@pytest.fixture(scope="session", name="installed")
def fixture_installed(image, tmp_path_factory):
    """A disk with the packages and a launch file; nothing is enabled."""
    guest = Guest(image, image / "disk.qcow2", tmp_path_factory.mktemp("installed"))
    guest.boot()
    try:
        guest.run("mkdir /root/packages /opt/robot")
        guest.copy(packages(), "/root/packages")
        guest.run("cd /root/packages && apt-get install -y ./vornlaunch_*.deb "
                  "./vornctl_*.deb")
        for name in ("camera", "planner"):
            guest.write(f"/opt/robot/{name}",
                        f"#!/bin/sh\necho {name} starts\nexec sleep 100000\n", "755")
        guest.write("/root/launch.yaml", json.dumps(LAUNCH_FILE))
        guest.run("cp /root/launch.yaml /etc/vornlaunch")
        guest.shut_down()
    finally:
        guest.close()
    return guest.disk


@pytest.fixture(scope="module", name="robot")
def fixture_robot(image, installed, tmp_path_factory):
    """A machine that the tests of a module share; its service runs."""
    directory = tmp_path_factory.mktemp("robot")
    with guest_with_service(image, installed, directory) as guest:
        yield guest
    shutil.rmtree(directory, ignore_errors=True)
