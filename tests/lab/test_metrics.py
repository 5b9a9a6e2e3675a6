"""Prometheus and node-exporter with the file of vornctl metrics: the alerts."""

import os
import signal

import pytest

from monitoring import LIMIT, Prometheus, node_exporter, rule_expressions
from support.waiting import eventually

FILE = "metrics/vornlaunch.prom"


class Monitored:
    """A machine whose metrics are scraped once a second."""

    def __init__(self, machine, prometheus):
        self.machine = machine
        self.prometheus = prometheus

    def write(self):
        """Writes the metrics as the timer does."""
        assert self.machine.vornctl("metrics", "-o", f"/tmp/{FILE}").returncode == 0

    def wait_for(self, *alerts, write=True):
        """Waits until exactly these alerts fire."""

        def fire():
            if write:
                self.write()
            return self.prometheus.firing() == set(alerts)

        eventually(fire, f"{alerts} fire", LIMIT)

    def wait_for_value(self, expression, value):
        def has_value():
            self.write()
            return self.prometheus.value(expression) == value

        eventually(has_value, f"{expression} is {value}", LIMIT)


@pytest.fixture(name="monitored")
def fixture_monitored(machine, tmp_path_factory):
    directory = tmp_path_factory.mktemp("monitoring")
    textfiles = machine.tmp / "metrics"
    textfiles.mkdir()
    exporter = node_exporter(directory, textfiles)
    prometheus = Prometheus(directory, [{"targets": [exporter.address]}], "1s",
                            shorten=True)
    yield Monitored(machine, prometheus)
    prometheus.close()
    exporter.close()


@pytest.fixture(name="camera")
def fixture_camera(monitored):
    """A launcher with one node; no alert fires."""
    path = monitored.machine.script("camera", "exec sleep 1001")
    monitored.machine.start({"vornnode": {"camera": {"path": path}}})
    monitored.wait_for_value('vornlaunch_node_up{node="camera"}', 1)
    assert monitored.prometheus.value("node_textfile_scrape_error") == 0
    monitored.wait_for()
    return monitored


def test_each_rule_has_a_test():
    assert set(rule_expressions()) == {
        "VornlaunchDown", "VornlaunchOrphans", "VornlaunchNodeCrashLooping",
        "VornlaunchNodeGaveUp", "VornlaunchFileStale", "VornlaunchMetricsTooOld"}


def test_a_killed_launcher_is_down_and_leaves_orphans(camera):
    camera.machine.signal(signal.SIGKILL)
    camera.machine.wait()
    camera.wait_for(("VornlaunchDown", None), ("VornlaunchOrphans", None))
    assert camera.machine.vornctl("orphans", "--kill", "--yes").returncode == 0
    camera.machine.start_again()
    camera.wait_for()


def test_a_crash_loop_and_a_failed_oneshot_are_reported_by_node(monitored):
    failing = monitored.machine.script("failing", "exit 3")
    monitored.machine.start({"vornnode": {
        "camera": {"path": failing}, "init": {"path": failing, "oneshot": True}}})
    monitored.wait_for(("VornlaunchNodeCrashLooping", "camera"),
                       ("VornlaunchNodeGaveUp", "init"))


def test_a_changed_launch_file_is_stale(camera):
    path = camera.machine.tmp / "launch.yaml"
    old = path.read_text(encoding="utf-8")
    path.write_text(old + "\n", encoding="utf-8")
    camera.wait_for(("VornlaunchFileStale", None))


def test_metrics_that_are_not_updated_are_too_old(camera):
    path = camera.machine.tmp / FILE
    before = path.stat().st_mtime - 301
    os.utime(path, (before, before))
    camera.wait_for(("VornlaunchMetricsTooOld", None), write=False)
    camera.wait_for()
