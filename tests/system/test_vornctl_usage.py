"""vornctl status shows the resources of nodes, and whether their programs were replaced."""

import json
import shutil

import pytest

from support.waiting import eventually

COLUMNS = ["--no-header", "-o"]


def node(machine):
    """The JSON object of the only node."""
    [found] = json.loads(machine.vornctl("status", "--json").stdout)["nodes"]
    return found


def start(machine, body="exec sleep 1001", **keys):
    path = machine.script("program", body)
    machine.start({"vornnode": {"node": {"path": path, **keys}}})
    return path


def start_binary(machine):
    """Starts a node whose program is a copy of sleep."""
    shutil.copy2("/bin/sleep", machine.tmp / "sleeper")
    machine.start({"vornnode": {"node": {"path": "/tmp/sleeper", "argv": "1001"}}})
    machine.child("node", ["/tmp/sleeper", "1001"])


def replace(machine, name, content):
    """Replaces a program as a package manager does, with an old modification time."""
    new = machine.tmp / "new"
    new.write_bytes(content)
    shutil.copystat(machine.tmp / name, new)
    new.rename(machine.tmp / name)


def test_memory_is_that_of_the_node_and_its_descendants(machine):
    start(machine, "sleep 1001 & sleep 1002 & wait")

    def sums_agree():
        done = json.loads(machine.vornctl("ps", "--json").stdout)
        [processes] = [each["processes"] for each in done["nodes"]]
        each = [process["memoryBytes"] for process in processes]
        return len(each) == 3 and node(machine)["memoryBytes"] == sum(each)

    eventually(sums_agree, "the memory of three processes")


def test_cpu_is_the_share_since_the_start_of_all_processes(machine):
    start(machine, "(while :; do :; done) & wait")
    eventually(lambda: (node(machine)["cpuPercent"] or 0) > 1,
               "the node uses the processor")


def test_the_columns_have_units_for_users_and_bytes_for_scripts(machine):
    start(machine)
    machine.child("node", ["sleep", "1001"])
    words = machine.vornctl("status", *COLUMNS, "cpu,memory,stale").stdout.split()
    assert float(words[0]) >= 0 and words[1][-1] in "KM" and words[2] == "no"
    plain = machine.vornctl("status", "--plain", *COLUMNS, "cpu,memory,stale").stdout
    assert plain.split()[1].isdigit()


def test_a_node_without_a_process_has_no_resources(machine):
    start(machine, autostart=False)
    assert machine.vornctl("status", *COLUMNS, "cpu,memory,stale").stdout == (
        "-  -  -\n")
    assert [node(machine)[key] for key in ("cpuPercent", "memoryBytes", "stale")] == [
        None, None, None]


def test_wide_shows_all_columns(machine):
    start(machine)
    header = machine.vornctl("status", "-o", "wide").stdout.splitlines()[0].split()
    assert header[0] == "NODE" and header[-4:] == ["CPU", "MEMORY", "STALE", "READY"]
    assert len(header) == len(set(header)) == 14


def test_a_replaced_program_is_stale(machine):
    start_binary(machine)
    assert node(machine)["stale"] is False
    replace(machine, "sleeper", (machine.tmp / "sleeper").read_bytes())
    assert node(machine)["stale"] is True
    assert machine.vornctl("status", *COLUMNS, "stale").stdout == "yes\n"


def test_a_removed_program_is_stale(machine):
    start_binary(machine)
    (machine.tmp / "sleeper").unlink()
    assert node(machine)["stale"] is True


def test_a_replaced_script_is_stale(machine):
    path = start(machine, "sleep 1001 & wait")
    machine.child("node", ["/bin/sh", path])
    assert node(machine)["stale"] is False

    def is_stale_when_replaced():
        # The kernel rounds the start of a process, so a replacement counts only when
        # it is clearly later.
        replace(machine, "bin/program", b"#!/bin/sh\n")
        return node(machine)["stale"]

    eventually(is_stale_when_replaced, "the replaced script is stale")


def test_a_program_that_executes_another_is_not_stale(machine):
    start(machine)
    machine.child("node", ["sleep", "1001"])
    assert node(machine)["stale"] is False


@pytest.mark.parametrize("columns", ["cpu", "memory", "stale"])
def test_a_node_in_a_container_has_resources_outside(machine, columns):
    path = machine.script("program", "exec sleep 1001")
    machine.start({"vornnode": {"node": {"path": path}}}, wrapper=[
        "unshare", "--pid", "--fork", "--kill-child", "--mount-proc"])
    eventually(lambda: machine.vornctl("status", *COLUMNS, columns).stdout != "-\n",
               "a value")
