"""The monitors of wrapped nodes under load: storms of output that cannot be written, and
many nodes for a long time. The node never blocks, every byte is written or counted, the
memory does not grow and no zombie remains."""

import json
import os
import pathlib
import re
import subprocess
import time

import pytest
from support.machine import PYTHON
from support.process_tree import children_of, read_proc
from support.waiting import eventually

NOTICE = re.compile(rb"\n?vornrun: (\d+) bytes dropped[^\n]*\n")
MEMORY_GROWTH_KB = 64
MOST_PRIVATE_KB = 400  # of the monitor and its guardian together

# Writes `sys.argv[1]` times 1000 bytes without waiting for a reader, in two halves.
STORM = """
import os, sys, time
count, piece = int(sys.argv[1]), sys.argv[2].encode() * 999
piece += b"\\n" if sys.argv[2] == "l" else b"x"
def storm():
    for _ in range(count // 2):
        left = piece
        while left:
            left = left[os.write(1, left):]
def wait_for(name):
    while not os.path.exists(name):
        time.sleep(0.01)
storm()
open("half", "w").close()
wait_for("continue")
storm()
open("written", "w").close()
wait_for("end")
"""


@pytest.fixture(name="count")
def fixture_count(is_long):
    """The number of pieces of 1000 bytes: 1 GB in the long form."""
    return 1_000_000 if is_long else 10_000


def state_of(directory):
    path = directory / "state/lamp.json"
    return json.loads(path.read_text(encoding="utf-8")) if path.exists() else {}


def start_storm(program, directory, options, count, kind, wrapper=(), **keys):
    (directory / "storm.py").write_text(STORM, encoding="utf-8")
    command = [*wrapper, program.with_name("vornrun"), "--state-dir",
               directory / "state", *options, "--", PYTHON, directory / "storm.py",
               str(count), kind]
    return subprocess.Popen(
        command, cwd=directory, env=dict(os.environ, __VORN_NODE_NAME__="lamp"),
        stdin=subprocess.DEVNULL, **keys)


def test_a_storm_onto_a_full_disk_is_written_or_counted(tmp_path, program, count,
                                                        namespaces):
    # pylint: disable=unused-argument
    (tmp_path / "log").mkdir()
    script = ("mount -t tmpfs -o size=3M none log &&"
              " head -c 1M /dev/zero >log/filler && exec \"$@\"")
    unshare = ["unshare", "--mount"]
    if os.geteuid() != 0:
        unshare += ["--user", "--map-root-user"]
    options = ["--log-dir", tmp_path / "log", "--log-size", "500K", "--log-keep", "50"]
    process = start_storm(program, tmp_path, options, count, "x",
                          wrapper=[*unshare, "sh", "-c", script, "sh"])
    eventually((tmp_path / "half").exists, "half of it is written", 600)
    log = pathlib.Path(f"/proc/{process.pid}/root{tmp_path}/log")
    before = eventually(lambda: state_of(tmp_path).get("droppedBytes"),
                        "the disk is full")
    (log / "filler").unlink()
    eventually(lambda: NOTICE.search((log / "current").read_bytes()),
               "the loss is reported as soon as there is space")
    (tmp_path / "continue").touch()
    eventually((tmp_path / "written").exists, "all of it is written", 600)
    assert process.poll() is None

    def written():
        texts = [file.read_bytes() for file in log.iterdir()]
        return sum(len(NOTICE.sub(b"", text)) for text in texts)

    eventually(lambda: written() + state_of(tmp_path)["droppedBytes"] == count * 1000,
               "every byte is in a file or counted")
    assert state_of(tmp_path)["droppedBytes"] > before
    (tmp_path / "end").touch()
    assert process.wait(timeout=60) == 0


def test_a_storm_for_a_stopped_reader_is_written_or_counted(tmp_path, program, count):
    process = start_storm(program, tmp_path, ["--log-prefix"], count, "l",
                          stdout=subprocess.PIPE)
    eventually((tmp_path / "half").exists, "half of it is written", 600)
    (tmp_path / "continue").touch()
    eventually((tmp_path / "written").exists, "all of it is written", 600)
    lines = dropped = 0
    while lines * 1000 + dropped < count * 1000:
        line = process.stdout.readline()
        notice = NOTICE.fullmatch(line.removeprefix(b"lamp stdout: "))
        if notice:
            dropped += int(notice[1])
        else:
            assert line == b"lamp stdout: " + b"l" * 999 + b"\n"
            lines += 1
    assert dropped > 0
    eventually(lambda: state_of(tmp_path)["droppedBytes"] == dropped, "it is counted")
    (tmp_path / "end").touch()
    assert process.communicate(timeout=60) == (b"", None)


@pytest.mark.long
def test_an_unhealthy_node_that_ignores_the_signal_is_killed(tmp_path, program):
    done = subprocess.run(
        [program.with_name("vornrun"), "--state-dir", tmp_path / "state", "--watchdog",
         "100ms", "--", "sh", "-c", "trap '' TERM; while :; do sleep 0.1; done"],
        check=False, stderr=subprocess.PIPE, timeout=60)
    assert done.returncode == -9
    assert done.stderr == (
        b"vornrun: sh: --watchdog: no WATCHDOG=1 within 100ms: sending SIGTERM\n"
        b"vornrun: sh: still running after 10s: sending SIGKILL\n")


def private_kb(pid):
    """The private memory of a process in KiB; 0 if it does not exist."""
    text = read_proc(pid, "smaps_rollup")
    return sum(int(kb) for kb in re.findall(rb"^Private_\w+: +(\d+) kB$", text, re.M))


class Monitors:
    """The guardians of a machine, each with its monitor."""

    def __init__(self, machine):
        self.machine = machine

    def memory(self):
        """The private memory in KiB of each guardian with its monitor."""
        found = {}
        for process in self.machine.processes():
            if process.name != "vornrun-monitor" or not process.is_alive:
                continue
            children = children_of(process.host_pid)
            if not children or read_proc(children[0], "comm") != b"vornrun-monitor\n":
                continue
            both = private_kb(process.host_pid), private_kb(children[0])
            if all(both):  # otherwise one has exited meanwhile
                found[process.host_pid] = sum(both)
        return found

    def zombies(self):
        return {process.host_pid for process in self.machine.processes()
                if process.state == "Z"}


# The pages of a sanitizer are not those that users have.
@pytest.mark.plain
def test_many_wrapped_nodes_have_flat_memory_and_no_zombies(machine, is_long):
    stable, restarting, seconds = (80, 20, 600) if is_long else (6, 2, 5)
    machine.script("talk", "while echo line; do echo more >&2; sleep 1; done")
    machine.script("leave", "echo line; sleep 2; echo partial")
    options = ("--log-prefix --log-dir /tmp/log/{} --log-size 20K --log-keep 2"
               " --log-compress --state-dir /tmp/state --ready exec:true"
               " --probe exec:true --probe-period 5s --probe-timeout 60s")
    nodes = {}
    for i in range(stable):
        nodes[f"talk-{i}"] = machine.wrapped(options.format(f"talk-{i}"),
                                             "/tmp/bin/talk")
    for i in range(restarting):
        nodes[f"leave-{i}"] = machine.wrapped(options.format(f"leave-{i}"),
                                              "/tmp/bin/leave")
    machine.start({"vornnode": nodes})
    monitors = Monitors(machine)
    eventually(lambda: len(list((machine.tmp / "state").glob("talk-*.json"))) == stable
               and len(monitors.memory()) >= stable, "all nodes are monitored")
    time.sleep(min(30, seconds / 5))  # until each buffer has been used
    first = monitors.memory()
    end = time.monotonic() + seconds
    zombies = [set(), set(), set()]
    while time.monotonic() < end:
        time.sleep(1)
        zombies = [*zombies[1:], monitors.zombies()]
        assert not set.intersection(*zombies), "a process was not collected for 2 s"
    last = monitors.memory()
    both = first.keys() & last.keys()
    assert len(both) >= stable
    print(f"\n   private memory in KiB of the monitor and its guardian: at first "
          f"{max(first[pid] for pid in both)}, at the end "
          f"{max(last[pid] for pid in both)}")
    assert max(last[pid] - first[pid] for pid in both) <= MEMORY_GROWTH_KB
    assert max(last.values()) <= MOST_PRIVATE_KB
    machine.signal(15)
    assert machine.wait() == 0
    eventually(lambda: not monitors.memory(), "the monitors exit")
