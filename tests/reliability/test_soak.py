"""A minute of the soak that soak.py describes."""

import pytest
from soak import Soak

SECONDS = 60
NODES = 60


# The other tests cover the same code under the sanitizers in less time.
@pytest.mark.plain
def test_a_minute_of_mixed_load_loses_no_restart_and_leaks_nothing(machine):
    soak = Soak(machine, NODES)
    soak.run(SECONDS)
    # The delay of restarts does not matter here: other tests load the machine.
    assert soak.problems == [], soak.summary()
