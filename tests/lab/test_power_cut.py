"""Power cuts at any time: the launch file is whole at the next boot."""

import json
import random

import pytest

from guest import guest_with_service

ROUNDS = 10
FILE = "/etc/vornlaunch/launch.yaml"


def cut_power_during(guest, command, chance):
    """Cuts the power up to 3 s after the start of this command, and boots again."""
    guest.run(f"systemd-run --no-block {command}; sleep {chance.uniform(0, 3):.2f}")
    guest.cut_power()
    guest.boot()
    guest.wait_until_running("camera", "planner")


@pytest.fixture(name="guest")
def fixture_guest(image, installed, tmp_path):
    with guest_with_service(image, installed, tmp_path) as guest:
        yield guest


def test_the_launch_file_is_whole_after_a_power_cut_during_apply(guest):
    chance = random.Random("apply")
    old = json.loads(guest.output(f"cat {FILE}"))
    new = json.loads(json.dumps(old))
    new["vornnode"]["camera"]["argv"] = "--new"
    whole = [old, new]
    for turn in range(ROUNDS):
        guest.write("/root/new.yaml", json.dumps(whole[(turn + 1) % 2]))
        cut_power_during(guest, "vornctl apply --for 1s /root/new.yaml", chance)
        assert json.loads(guest.output(f"cat {FILE}")) in whole
    guest.run("vornctl apply --for 1s /root/new.yaml")
    assert json.loads(guest.output(f"cat {FILE}")) == whole[ROUNDS % 2]
