"""vornctl metrics writes the metrics of a launcher and its nodes."""

import re
import signal
import stat

from support.control import State
from support.waiting import eventually

FILE = "/tmp/metrics/vornlaunch.prom"


def series(machine):
    """The values in the file by series."""
    text = (machine.tmp / "metrics/vornlaunch.prom").read_text(encoding="utf-8")
    return dict(line.rsplit(" ", 1) for line in text.splitlines()
                if not line.startswith("#"))


def write(machine):
    done = machine.vornctl("metrics", "--output", FILE)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    return series(machine)


def test_a_timer_can_write_the_metrics_of_each_state(machine):
    camera = machine.script("camera", "exec sleep 1001")
    failing = machine.script("failing", "kill -SEGV $$")
    machine.file("metrics/other", "")
    machine.start({"vornnode": {
        "camera": {"path": camera},
        "init": {"path": failing, "oneshot": True},
        "manual": {"path": camera, "autostart": False}}})
    pid = machine.child("camera", ["sleep", "1001"]).pid
    machine.wait_for_state("init", State.DISABLED)
    before = len(machine.log_lines("control cmd: 3"))
    found = write(machine)
    assert len(machine.log_lines("control cmd: 3")) == before + 3
    path = machine.tmp / "metrics/vornlaunch.prom"
    assert stat.S_IMODE(path.stat().st_mode) == 0o644
    expected = {
        "vornlaunch_up": "1", "vornlaunch_launch_file_stale": "0",
        "vornlaunch_orphans": "0", 'vornlaunch_nodes{state="running"}': "1",
        'vornlaunch_node_up{node="camera"}': "1",
        'vornlaunch_node_state{node="manual"}': "0",
        'vornlaunch_node_state{node="init"}': "4",
        'vornlaunch_node_last_exit_code{node="init"}': "139",
        'vornlaunch_node_last_exit_signal{node="init"}': "11",
        'vornlaunch_node_restarts_total{node="camera",cause="operator"}': "0"}
    assert {name: found[name] for name in expected} == expected
    assert int(found['vornlaunch_node_resident_memory_bytes{node="camera"}']) > 0
    assert re.fullmatch(r"[\d.]+",
                        found['vornlaunch_node_cpu_seconds_total{node="camera"}'])

    # The counts continue with the saved ones, without the old log.
    assert machine.vornctl("restart", "camera").returncode == 0
    eventually(lambda: machine.status("camera").pid != pid, "camera has restarted")
    name = 'vornlaunch_node_restarts_total{node="camera",cause="operator"}'
    assert write(machine)[name] == "1"
    assert machine.vornctl("restart", "camera").returncode == 0
    assert write(machine)[name] == "2"


def test_a_launcher_that_does_not_run_is_a_metric_and_no_failure_of_a_timer(machine):
    machine.file("metrics/other", "")
    machine.start({"vornnode": {"camera": {"path": machine.script(
        "camera", "exec sleep 1001")}}})
    machine.child("camera", ["sleep", "1001"])
    machine.signal(signal.SIGKILL)
    machine.wait()
    done = machine.vornctl("metrics", "--output", FILE)
    assert done.returncode == 0
    found = series(machine)
    assert (found["vornlaunch_up"], found["vornlaunch_orphans"]) == ("0", "1")
    assert machine.vornctl("metrics").returncode == 5
