"""The image of docs/containers.md, built and run by podman."""

import json
import os
import re
import shutil
import signal
import subprocess

import pytest

from engine import ROOT, Engine, documented
from support.process_tree import children_of, has_ended, status_field
from support.waiting import eventually

HIGH = 10000  # the nodes get pids above this
LIMIT = 300

# A node that takes two seconds to exit after SIGTERM, and then creates a file on the
# volume. Its file .ready indicates that it can be stopped.
CAREFUL = """#!/usr/bin/perl
my $name = "/tmp/vornlaunch/$ARGV[0]";
$SIG{TERM} = sub { sleep 2; open(my $file, '>', $name); exit 0; };
open(my $file, '>', "$name.ready");
sleep 1 while 1;
"""
NODES = ["camera", "detector"]
LAUNCH_FILE = json.dumps({"vornnode": {
    name: {"path": "/opt/robot/careful", "argv": name} for name in NODES}})


@pytest.fixture(scope="module", name="engine")
def fixture_engine():
    """An engine whose registry images are made of this Debian's packages."""
    storage = ROOT / "build-lab/containers"
    engine = Engine(storage)
    if engine.podman("image", "exists", "debian:12", check=False).returncode != 0:
        engine.shell("tar -C build-packages/root-amd64 -c . | podman import - "
                     "docker.io/library/debian:12 && "
                     "podman tag debian:12 docker.io/library/debian:12-slim")
    yield engine
    engine.close()


def build(engine, directory, options="", tag="vornlaunch"):
    """Builds the launcher's image by the documented command with these options, and
    from it an image with nodes; returns its name."""
    command = documented("sh", "podman build").splitlines()[0]
    engine.shell(command.replace("-t vornlaunch", f"-t {tag} {options}"))
    (directory / "robot").mkdir()
    (directory / "robot/careful").write_text(CAREFUL, "utf-8")
    (directory / "robot/careful").chmod(0o755)
    (directory / "launch.yaml").write_text(LAUNCH_FILE, "utf-8")
    (directory / "Containerfile").write_text(
        documented("dockerfile", "FROM vornlaunch").replace(
            "FROM vornlaunch", f"FROM localhost/{tag}"), "utf-8")
    engine.podman("build", "--format", "docker", "-t", f"robot-{tag}", ".",
                  cwd=directory)
    return f"robot-{tag}"


@pytest.fixture(scope="module", name="image")
def fixture_image(engine, tmp_path_factory):
    return build(engine, tmp_path_factory.mktemp("image"))


class Container:
    """The container `robot` of an image, started by the documented command; the
    directory `volume` contains its control socket."""

    def __init__(self, engine, vornctl, directory):
        self.engine = engine
        self.volume = directory / "robot-launcher"
        self.volume.mkdir()
        self._vornctl = vornctl
        self._directory = directory

    def start(self, image):
        (self._directory / "launch.yaml").write_text(LAUNCH_FILE, "utf-8")
        command = re.search(r"^podman run.*", documented("sh", "podman run"),
                            re.M | re.S)[0]
        command = command.replace("/run/robot-launcher", str(self.volume))
        command = command.replace('"$(vornctl', f'"$({self._vornctl}')
        self.engine.shell(command.replace("\n  vornlaunch\n", f"\n  {image}\n"),
                          cwd=self._directory)
        self.wait_until_ready()
        return self

    def wait_until_ready(self):
        for name in NODES:
            eventually((self.volume / f"{name}.ready").exists,
                       f"{name} is ready", LIMIT)

    def vornctl(self, *arguments):
        """Runs vornctl in the container; returns the standard output."""
        return self.engine.output("exec", "robot", "vornctl", *arguments)

    @property
    def host_pid(self):
        return int(self.engine.inspect("robot", "{{.State.Pid}}"))

    def health(self):
        """Runs the health check once; returns the status of the container."""
        self.engine.podman("healthcheck", "run", "robot", check=False)
        return self.engine.inspect("robot", "{{.State.Health.Status}}")

    def has_stopped_well(self):
        return all((self.volume / name).exists() for name in NODES)


@pytest.fixture(name="container")
def fixture_container(engine, program, tmp_path):
    yield Container(engine, program.with_name("vornctl"), tmp_path)
    engine.podman("rm", "--force", "--time", "1", "robot", check=False)


def test_the_documented_commands_start_the_launcher_as_process_1(
        container, image, program):
    container.start(image)
    assert container.engine.output(
        "exec", "robot", "readlink", "/proc/1/exe") == "/usr/bin/vornlaunch"
    inside = container.vornctl("status", "--plain", "--no-header", "-o",
                               "node,state,pid")
    outside = subprocess.run(
        [program.with_name("vornctl"), "--socket",
         container.volume / "vornlaunch.sock", "status", "--plain", "--no-header", "-o",
         "node,state,pid"], stdout=subprocess.PIPE, encoding="utf-8", check=True).stdout
    assert inside == outside.strip()
    rows = [line.split("\t") for line in inside.splitlines()]
    assert [row[:2] for row in rows] == [[name, "running"] for name in NODES]
    assert all(int(row[2]) > HIGH for row in rows)


@pytest.mark.parametrize("user", [0, 1000])
def test_podman_stop_gives_all_nodes_their_time(container, engine, image, user,
                                                tmp_path):
    if user != 0:
        (tmp_path / "image").mkdir()
        image = build(engine, tmp_path / "image", f"--build-arg USER_ID={user}", "user")
        shutil.chown(container.volume, user, user)
    container.start(image)
    launcher = container.host_pid
    nodes = children_of(launcher)
    for pid in (launcher, *nodes):
        assert status_field(pid, "Uid").split() == [str(user)] * 4
    engine.podman("stop", "robot")
    assert engine.inspect("robot", "{{.State.ExitCode}} {{.State.Running}}") == "0 false"
    assert container.has_stopped_well()
    assert all(map(has_ended, nodes))


def test_the_health_check_follows_the_launcher(container, image):
    """Its interval needs a timer of systemd; here the test starts each check."""
    container.start(image)
    assert container.health() == "healthy"
    container.engine.podman("kill", "--signal", "STOP", "robot")
    # The checks of the first minute do not count.
    eventually(lambda: container.health() == "unhealthy", "it is unhealthy", LIMIT)
    assert container.engine.inspect("robot", "{{.State.Health.FailingStreak}}") == "3"
    container.engine.podman("kill", "--signal", "CONT", "robot")
    assert container.health() == "healthy"


@pytest.mark.parametrize("end", [signal.SIGKILL, signal.SIGINT])
def test_podman_restarts_a_launcher_that_ends(container, image, end):
    container.start(image)
    before = container.host_pid
    nodes = children_of(before)
    for name in NODES:
        (container.volume / f"{name}.ready").unlink()
    # As the kernel would; `podman kill` counts as an intentional stop.
    os.kill(before, end)
    eventually(lambda: container.host_pid not in (0, before), "another launcher runs",
               LIMIT)
    container.wait_until_ready()
    assert container.vornctl("status", "--plain", "--no-header", "-o", "node,state"
                             ).split() == ["camera", "running", "detector", "running"]
    assert all(map(has_ended, nodes))
    assert not container.has_stopped_well()
