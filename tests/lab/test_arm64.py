"""The packages and the programs on an emulated arm64 machine."""

import json
import shutil
import subprocess

import pytest

from guest import ROOT, Guest, install

STATE_MODEL_LIMIT = 3 * 3600  # seconds; only ends a hang


@pytest.fixture(scope="module", name="robot")
def fixture_robot(tmp_path_factory):
    """A machine with the packages whose service runs."""
    image = ROOT / "build-lab/arm64"
    directory = tmp_path_factory.mktemp("arm64")
    guest = Guest(image, image / "disk.qcow2", directory, "arm64")
    try:
        guest.boot()
        install(guest, "arm64")
        guest.run("systemctl enable --now vornlaunch.service && sync")
        guest.wait_until_running("camera", "planner")
        yield guest
    finally:
        guest.close()
    shutil.rmtree(directory, ignore_errors=True)


def test_the_packages_run_the_nodes_after_a_reboot(robot):
    assert robot.output("uname -m") == "aarch64\n"
    robot.reboot()
    robot.wait_until_running("camera", "planner")


def test_vornctl_controls_the_nodes(robot):
    robot.run("vornctl stop planner && vornctl restart camera")
    nodes = json.loads(robot.output("vornctl status --json"))["nodes"]
    assert {node["name"]: node["state"] for node in nodes} == {
        "camera": "running", "planner": "stopped"}
    assert "is stopped" in robot.output("vornctl why planner")


def test_random_commands_agree_with_the_model(robot, tmp_path):
    archive = tmp_path / "tests.tar"
    programs = [f"build-arm64/bin/{name}" for name in (
        "vornlaunch", "vornlaunch-dynamic", "vornctl", "vornrun")]
    subprocess.run(["tar", "-cf", archive, "--exclude=__pycache__", "tests/conftest.py",
                    "tests/support", "tests/reliability", *programs],
                   cwd=ROOT, check=True)
    robot.copy([archive], "/root")
    robot.run("cd /root && tar -xf tests.tar && python3 -m pytest -q -p no:cacheprovider "
              "--timeout=0 --build=build-arm64 tests/reliability/test_state_model.py",
              timeout=STATE_MODEL_LIMIT)
