"""Power cuts at any time: at the next boot the launch file is whole, and the nodes
run."""

import json
import random

import pytest

UNIT = "vornlaunch.service"
FILE = "/etc/vornlaunch/launch.yaml"


def cut_power_during(guest, command, chance):
    """Cuts the power up to 3 s after the start of this command, and boots again."""
    guest.run(f"systemd-run --no-block {command}; sleep {chance.uniform(0, 3):.2f}")
    guest.cut_power()
    guest.boot()
    guest.wait_until_running("camera", "planner")


@pytest.fixture(name="rounds")
def fixture_rounds(pytestconfig):
    return pytestconfig.getoption("--rounds")


def test_the_launch_file_is_whole_after_a_power_cut_during_apply(guest, rounds):
    chance = random.Random("apply")
    old = json.loads(guest.output(f"cat {FILE}"))
    new = json.loads(json.dumps(old))
    new["vornnode"]["camera"]["argv"] = "--new"
    whole = [old, new]
    for turn in range(rounds):
        guest.write("/root/new.yaml", json.dumps(whole[(turn + 1) % 2]))
        cut_power_during(guest, "vornctl apply --for 1s /root/new.yaml", chance)
        assert json.loads(guest.output(f"cat {FILE}")) in whole
    guest.run("vornctl apply --for 1s /root/new.yaml")
    assert json.loads(guest.output(f"cat {FILE}")) == whole[rounds % 2]


@pytest.mark.parametrize("before, command", [("stop", "start"), ("start", "stop")])
def test_the_nodes_run_after_a_power_cut_during(guest, rounds, before, command):
    chance = random.Random(command)
    for _ in range(rounds):
        guest.run(f"systemctl {before} {UNIT} && sync")
        cut_power_during(guest, f"systemctl {command} {UNIT}", chance)
        assert guest.run("vornctl orphans").returncode == 0
        assert guest.output(f"systemctl show -P NRestarts {UNIT}") == "0\n"
