"""vornctl health checks whether all nodes are healthy."""

import json
import signal

from support.control import State


def test_health_waits_until_the_nodes_have_run_and_the_oneshots_have_succeeded(machine):
    camera = machine.script("camera", "exec sleep 1001")
    # The node exits once.
    flaky = machine.script("flaky", "test -e /tmp/x || { > /tmp/x; exit 3; }\n"
                                    "exec sleep 1002")
    machine.start({"vornnode": {
        "camera": {"path": camera}, "flaky": {"path": flaky},
        "init": {"path": "/bin/true", "oneshot": True}}})
    done = machine.vornctl("health", "--for", "1s")
    assert (done.returncode, done.stdout, done.stderr) == (
        0, "3 nodes are healthy\n", "")
    machine.child("flaky", ["sleep", "1002"])


def test_health_gives_the_reasons_in_each_format(machine):
    camera = machine.script("camera", "exec sleep 1001")
    failing = machine.script("failing", "exit 3")
    machine.start({"vornnode": {
        "camera": {"path": camera},
        "init": {"path": failing, "oneshot": True}}})
    machine.wait_for_state("init", State.DISABLED)
    reason = "has failed: it exited with status 3"
    # It does not wait, because a failed oneshot does not recover.
    done = machine.vornctl("health", "--for", "1h", "--timeout", "2h")
    assert (done.returncode, done.stdout) == (1, "")
    assert f"vornctl: init {reason}\n" in done.stderr
    done = machine.vornctl("health", "--format", "json")
    assert done.returncode == 1
    assert json.loads(done.stdout) == {
        "schema": 1, "healthy": False, "nodes": 2,
        "reasons": [{"node": "init", "reason": reason}]}
    done = machine.vornctl("health", "--format", "nagios")
    assert (done.returncode, done.stdout) == (
        2, f"VORNLAUNCH CRITICAL - init {reason}\n")
    machine.signal(signal.SIGTERM)
    machine.wait()
    done = machine.vornctl("health", "--format", "nagios")
    assert done.returncode == 2
    assert done.stdout.startswith("VORNLAUNCH CRITICAL - no launcher is running")
