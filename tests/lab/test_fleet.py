"""The rollout of examples/ansible to three machines, one of which is switched off."""

import json
import os
import re
import subprocess

import pytest

from guest import LAUNCH_FILE, ROOT, Guest, packages, write_programs

ANSIBLE = ROOT / "examples/ansible"
FILE = "/etc/vornlaunch/launch.yaml"
ON = ["robot1", "robot2"]


def text_of(camera="/opt/robot/camera", planner="/opt/robot/planner"):
    file = json.loads(json.dumps(LAUNCH_FILE))
    file["vornnode"]["camera"]["path"] = camera
    file["vornnode"]["planner"]["path"] = planner
    return json.dumps(file)


class Fleet:
    """Machines without the packages; the last one never boots."""

    def __init__(self, image, directory):
        self.directory = directory
        self.robots = {name: Guest(image, image / "disk.qcow2", directory / name)
                       for name in (*ON, "robot3")}
        self.files = {}
        for name in self.robots:
            self.use(name, text_of())

    def boot(self):
        for name in ON:
            self.robots[name].start()
        for name in ON:
            self.robots[name].wait_for_ssh()
            write_programs(self.robots[name])

    def use(self, name, text):
        """Rolls out this launch file to a robot from now on."""
        (self.directory / f"{name}.yaml").write_text(text, "utf-8")

    def roll_out(self, *options):
        """Runs the playbook. Returns the exit status, and the numbers of the recap by
        robot."""
        inventory = {"robots": {
            "hosts": {name: {**robot.ansible_variables(),
                             "vornlaunch_file": str(self.directory / f"{name}.yaml")}
                      for name, robot in self.robots.items()},
            "vars": {"vornlaunch_packages": list(map(str, packages())),
                     "vornlaunch_healthy_for": "10s"}}}
        path = self.directory / "inventory.json"
        path.write_text(json.dumps(inventory), "utf-8")
        done = subprocess.run(
            ["ansible-playbook", "-i", path, *options, "rollout.yml"], cwd=ANSIBLE,
            env={**os.environ, "ANSIBLE_NOCOLOR": "1", "ANSIBLE_TIMEOUT": "60",
                 "ANSIBLE_PIPELINING": "True",
                 "ANSIBLE_HOST_KEY_CHECKING": "False"},
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            encoding="utf-8", check=False)
        recap = {name: {key: int(number) for key, number in
                        re.findall(r"(\w+)=(\d+)", rest)} for name, rest in
                 re.findall(r"^(\w+) +: (ok=.*)", done.stdout, re.M)}
        return done, recap

    def file_of(self, name):
        return self.robots[name].output(f"cat {FILE}")


@pytest.fixture(scope="module", name="fleet")
def fixture_fleet(image, tmp_path_factory):
    fleet = Fleet(image, tmp_path_factory.mktemp("fleet"))
    try:
        fleet.boot()
        yield fleet
    finally:
        for robot in fleet.robots.values():
            robot.close()


def test_the_playbook_follows_the_rules_of_ansible_lint():
    done = subprocess.run(["ansible-lint", "--offline", "--nocolor"], cwd=ANSIBLE,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, encoding="utf-8", check=False)
    assert done.returncode == 0, done.stdout


def test_a_rollout_installs_the_robots_that_are_on_and_omits_the_others(fleet):
    done, _ = fleet.roll_out("--check", "--diff")
    assert done.returncode == 0, done.stdout
    for name in ON:
        robot = fleet.robots[name]
        assert robot.output("dpkg-query -W 'vorn*' 2>/dev/null || true") == ""
    done, recap = fleet.roll_out()
    assert done.returncode == 0, done.stdout
    for name in ON:
        assert recap[name]["failed"] == 0 and recap[name]["changed"] > 0
        fleet.robots[name].wait_until_running("camera", "planner")
        assert fleet.file_of(name) == text_of()
    assert '"robot3"' in done.stdout


def test_a_second_rollout_changes_nothing(fleet):
    before = [fleet.robots[name].launcher_pid() for name in ON]
    for options in ([], ["--check", "--diff"]):
        done, recap = fleet.roll_out(*options)
        assert done.returncode == 0, done.stdout
        assert [recap[name]["changed"] for name in ON] == [0, 0], done.stdout
    assert [fleet.robots[name].launcher_pid() for name in ON] == before


def test_a_canary_that_fails_is_rolled_back_and_ends_the_rollout(fleet):
    fleet.use("robot1", text_of(camera="/bin/false"))
    fleet.use("robot2", text_of(planner="/opt/robot/camera"))
    second = fleet.robots["robot2"].launcher_pid()
    done, recap = fleet.roll_out()
    assert done.returncode == 2, done.stdout
    assert recap["robot1"]["failed"] == 1
    assert "the old launch file is back, and its nodes are healthy" in done.stdout
    assert [fleet.file_of(name) for name in ON] == [text_of(), text_of()]
    assert fleet.robots["robot2"].launcher_pid() == second
    fleet.robots["robot1"].wait_until_running("camera", "planner")


def test_the_corrected_rollout_reaches_all_robots(fleet):
    new = text_of(planner="/opt/robot/camera")
    for name in ON:
        fleet.use(name, new)
    assert fleet.roll_out("--check")[1]["robot2"]["changed"] == 1
    done, _ = fleet.roll_out()
    assert done.returncode == 0, done.stdout
    assert [fleet.file_of(name) for name in ON] == [new, new]
