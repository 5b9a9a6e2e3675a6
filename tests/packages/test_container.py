"""The launcher as process 1 of a container, in namespaces with the contents of the
image: a small Debian, the packages and files of the Containerfile. `./lab.sh container`
tests the image itself with podman."""

import contextlib
import json
import os
import pathlib
import shutil
import time

import pytest

from support import control
from support.containerfile import ROOT, read_stages
from support.control import Cmd, State
from support.debian_root import DebianRoot
from support.process_tree import children_of, status_field
from support.log import parse_log
from support.waiting import eventually

pytestmark = [
    pytest.mark.plain,  # the image has no sanitizer's libraries
    pytest.mark.xdist_group("image"),  # one process makes it, and runs them all
]

LAUNCHER = "/usr/bin/vornlaunch"
HIGH = 10000  # the image's nodes get pids above this

# The preparations of an engine before process 1: a volume, pids from 1 on, and a
# read-only /proc/sys where pids must not be set.
PREPARE = """
set -e
mount -t tmpfs tmpfs /tmp
mkdir /tmp/vornlaunch
echo 1 >/proc/sys/kernel/ns_last_pid
"$1" || mount -o bind,ro /proc/sys /proc/sys
shift
exec "$@"
"""

# A node of one process that takes some seconds to exit after SIGTERM, and creates a
# file when it has finished. Its file .ready indicates that it can be stopped.
CAREFUL = """#!/usr/bin/perl
my ($name, $seconds) = @ARGV;
$SIG{TERM} = sub {
  select(undef, undef, undef, $seconds);
  open(my $file, '>', $name);
  exit 0;
};
open(my $file, '>', "$name.ready");
sleep 1 while 1;
"""

LEAVES_ORPHANS = """#!/bin/sh
for i in 1 2 3 4 5; do (sleep 0.1 &); done
exec sleep infinity
"""


class Image:
    """A root as the Containerfile creates it, without building its programs."""

    def __init__(self, view, programs):
        self.view = view
        self.final = read_stages()[-1]
        view.run("apt-get", "-qq", "update", network=True)
        view.run("apt-get", "-qq", "install", "-y", "--no-install-recommends",
                 *self.final.packages, network=True)
        for stage, sources, target in self.final.copies:
            directory = view.path(target)
            directory.mkdir(parents=True, exist_ok=True)
            for source in map(pathlib.Path, sources):
                built = programs / source.name if stage else ROOT / source
                shutil.copy2(built, directory)


@pytest.fixture(scope="module", name="image")
def fixture_image(debian_root, namespaces, program, tmp_path_factory):
    # pylint: disable=unused-argument
    view = DebianRoot(debian_root, tmp_path_factory.mktemp("image"))
    yield Image(view, program.parent)
    view.close()


class Container:
    """A container of the image, with its own /tmp. The directory /srv/NAME contains its
    launch file and programs, and remains after it."""

    def __init__(self, image, name, log):
        self.image = image
        self._log = log
        self.inside = f"/srv/{name}"
        self.directory = image.view.path(self.inside)
        self.directory.mkdir(parents=True)
        self.launch_file = f"{self.inside}/launch.yaml"
        self.process = None

    def script(self, name, text):
        path = self.directory / name
        path.write_text(text, encoding="utf-8")
        path.chmod(0o755)
        return f"{self.inside}/{name}"

    def careful(self, *names, seconds=1):
        """A launch file of careful nodes."""
        path = self.script("careful", CAREFUL)
        return {"vornnode": {
            name: {"path": path, "argv": f"{self.inside}/{name} {seconds}"}
            for name in names}}

    def start(self, launch, *command, may_set_pids=True):
        """Starts this command as process 1, by default the launcher, with the
        launch file as its argument."""
        with open(self._log, "wb") as log:
            self.process = self.image.view.start(
                *self._prepared(launch, command or [LAUNCHER], may_set_pids),
                stdout=log, stderr=log)
        return self

    def start_image(self, launch, **options):
        """Starts the entry point of the image."""
        return self.start(launch, *self.image.final.command[:-1], **options)

    def run_image(self, launch):
        """Runs the entry point of the image to its end. Returns the exit status and the
        output."""
        done = self.image.view.execute(
            *self._prepared(launch, self.image.final.command[:-1], True), timeout=60)
        return done.returncode, done.stdout

    def _prepared(self, launch, command, may_set_pids):
        text = launch if isinstance(launch, str) else json.dumps(launch)
        (self.directory / "launch.yaml").write_text(text, encoding="utf-8")
        return ["sh", "-c", PREPARE, "sh", "true" if may_set_pids else "false",
                *command, self.launch_file]

    @property
    def host_pid(self):
        return self.process.host_pid

    def request(self, cmd, name):
        return control.exchange(
            f"/proc/{self.host_pid}/root/tmp/vornlaunch", cmd, name)

    def wait_until_up(self):
        def answers():
            assert not self.process.has_ended, self.output()
            with contextlib.suppress(FileNotFoundError, ConnectionError):
                return self.request(Cmd.STATUS, "no such node")

        eventually(answers, "the launcher answers")
        return self

    def wait_until_ready(self, *names):
        """Waits until these careful nodes are prepared for SIGTERM."""
        self.wait_until_up()
        for name in names:
            eventually((self.directory / f"{name}.ready").exists, f"{name} is ready")
        return self

    def pid(self, name):
        """A node's pid in the container."""
        return self.request(Cmd.STATUS, name).pid

    def host_pid_of(self, name):
        [host_pid] = [child for child in children_of(self.host_pid)
                      if status_field(child, "NSpid").split()[-1]
                      == str(self.pid(name))]
        return host_pid

    def has_ended_well(self, name):
        """Whether a careful node has finished."""
        return (self.directory / name).exists()

    def execute(self, *command):
        return self.image.view.execute(*command, of=self.process)

    def health(self):
        """The exit status and the output of the health command."""
        done = self.execute("sh", "-c", self.image.final.health_command)
        return done.returncode, done.stdout

    def stop(self):
        """Stops it as an engine does. Returns the exit status and the seconds."""
        begin = time.monotonic()
        self.process.signal(15)
        return self.process.wait(), time.monotonic() - begin

    def output(self):
        return self._log.read_text(encoding="utf-8", errors="replace")

    def log(self):
        return parse_log(self.output())


@pytest.fixture(name="container")
def fixture_container(image, tmp_path, request):
    container = Container(image, request.node.name.replace("[", "-").strip("]"),
                          tmp_path / "log")
    yield container
    if container.process is not None:
        container.process.kill()


# -- Process 1.


def test_as_process_1_the_launcher_collects_orphans(container):
    path = container.script("leaves", LEAVES_ORPHANS)
    container.start({"vornnode": {"leaves": {"path": path}}}).wait_until_up()
    eventually(lambda: sum(line.func == "reapOneProcess"
                           and line.text.startswith("si_pid: ")
                           for line in container.log()) == 5,
               "five orphans are collected")
    assert children_of(container.host_pid) == [container.host_pid_of("leaves")]


def test_stopping_the_image_stops_all_nodes_within_the_grace_period(container):
    nodes = ["camera", "detector"]
    container.start_image(container.careful(*nodes)).wait_until_ready(*nodes)
    grace = int(container.execute("vornctl", "check", "--print", "stop-timeout",
                                  container.launch_file).stdout)
    status, seconds = container.stop()
    assert status == 0, container.output()
    assert seconds < grace
    assert all(map(container.has_ended_well, nodes))


def test_an_invalid_launch_file_makes_the_image_exit_with_status_1(container):
    status, said = container.run_image("vornnode: {camera: {path: }}\n")
    assert status == 1
    assert "[null-value]" in said
    assert "terminate called" not in said


@pytest.mark.native  # the emulator waits for that exit, and dumps no core
def test_as_process_1_the_launcher_does_not_exit_on_an_invalid_launch_file(container):
    container.start("vornnode: {camera: {path: }}\n")
    eventually(lambda: "terminate called" in container.output(), "it has failed")
    stat = pathlib.Path(f"/proc/{container.host_pid}/stat")

    def ticks():
        fields = stat.read_text(encoding="ascii").split()
        return int(fields[13]) + int(fields[14])

    begin = ticks()
    eventually(lambda: ticks() > begin + 5, "it takes a core")
    container.process.signal(15)
    begin = ticks()
    eventually(lambda: ticks() > begin + 5, "it takes a core after SIGTERM too")


# -- Health.


def test_the_health_command_says_unhealthy_without_a_launcher(container):
    container.start("", "sh", "-c", "exec sleep infinity")
    status, said = container.health()
    assert status == 1
    assert said.startswith("vornctl: no launcher is running")


# -- Low pids.


@pytest.mark.native  # the emulator's threads take pids
def test_nodes_with_low_pids_are_started_and_supervised(container):
    container.start(container.careful("camera", "detector"))
    container.wait_until_ready("camera", "detector")
    assert (container.pid("camera"), container.pid("detector")) == (2, 3)
    os.kill(container.host_pid_of("camera"), 9)
    eventually(lambda: container.pid("camera") not in (0, 2), "the camera runs again")
    container.request(Cmd.RESTART, "detector")
    assert container.has_ended_well("detector")
    assert container.request(Cmd.STATUS, "detector").state == State.RUNNING


def test_stopping_a_low_pid_takes_no_longer_than_the_node(container):
    """Its own zombie ends the wait, even if other pids contain its digits."""
    container.start(container.careful("camera", "detector"))
    container.wait_until_ready("camera", "detector")
    begin = time.monotonic()
    container.request(Cmd.STOP, "camera")
    assert time.monotonic() - begin < 9
    assert container.has_ended_well("camera")


@pytest.mark.native  # as above
def test_stopping_a_low_pid_kills_it_if_a_zombie_has_its_digits(container):
    container.start(container.careful("camera", "detector"))
    container.wait_until_ready("camera", "detector")
    # The camera, stopped first, must have the pid 13; the detector has 3.
    container.request(Cmd.STOP, "camera")
    eventually(lambda: container.pid("camera") == 0, "the camera is collected")
    for name in ("camera", "camera.ready"):
        (container.directory / name).unlink()
    container.execute("sh", "-c", "echo 12 >/proc/sys/kernel/ns_last_pid")
    container.request(Cmd.START, "camera")
    container.wait_until_ready("camera")
    assert (container.pid("camera"), container.pid("detector")) == (13, 3)
    assert container.stop()[0] == 0
    assert container.has_ended_well("camera")
    assert not container.has_ended_well("detector")


@pytest.mark.parametrize("may_set_pids", [True, False], ids=["set", "forked"])
def test_the_image_starts_with_high_pids(container, may_set_pids):
    container.start_image(container.careful("camera"), may_set_pids=may_set_pids)
    container.wait_until_up()
    assert HIGH < container.pid("camera") < HIGH + 100


def test_the_image_can_be_stopped_while_it_raises_the_pids(container):
    # Never high enough: only the signal terminates it.
    path = "/usr/libexec/vornlaunch/high-pids"
    slow = container.image.view.path(path).read_text(encoding="utf-8")
    slow = slow.replace("first=10000", "first=4000000")
    container.start({}, container.script("slow", slow), "true", may_set_pids=False)
    children = set()
    eventually(lambda: children.update(children_of(container.host_pid))
               or len(children) > 30, "it forks")
    assert container.stop()[0] == 143


# -- Without procps.


@pytest.fixture(name="without_ps")
def fixture_without_ps(container):
    directory = container.directory / "bin"
    directory.mkdir()
    (directory / "grep").symlink_to("/usr/bin/grep")
    return ["env", f"PATH={container.inside}/bin", LAUNCHER]


def test_without_ps_a_stop_does_not_wait_for_the_node(container, without_ps):
    container.start(container.careful("camera", seconds=3), *without_ps)
    container.wait_until_ready("camera")
    container.request(Cmd.STOP, "camera")
    assert not container.has_ended_well("camera")
    assert "ps: not found" in container.output()
    eventually(lambda: container.has_ended_well("camera"), "the camera ends")


def test_without_ps_a_shutdown_kills_the_nodes(container, without_ps):
    container.start(container.careful("camera", seconds=3), *without_ps)
    container.wait_until_ready("camera")
    assert container.stop()[0] == 0
    assert not container.has_ended_well("camera")
