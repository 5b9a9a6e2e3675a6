"""The memory that the launcher keeps."""

import re

import pytest

from support.control import State


def heap_in_use(machine):
    """The resident pages of the launcher's heap in KiB."""
    text = machine.process.read("smaps").decode()
    heap = text[text.index("[heap]"):]
    return int(re.search(r"^Private_Dirty: +(\d+) kB$", heap, re.M)[1])


@pytest.mark.native
@pytest.mark.plain  # a sanitizer has a heap of its own
def test_the_heap_is_less_than_a_kilobyte_for_each_of_a_thousand_nodes(machine):
    nodes = {f"node{i}": {"path": "/bin/true", "argv": "a b c", "autostart": False}
             for i in range(1000)}
    machine.start({"vornnode": nodes})
    assert machine.status("node999").state == State.STOPPED
    # Without packing, they would keep the whole tree's 3.2 MiB.
    assert heap_in_use(machine) < 1000
