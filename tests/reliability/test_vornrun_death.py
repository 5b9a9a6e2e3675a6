"""The launcher is killed at a random moment while vornrun starts its nodes with
--pdeathsig KILL: neither a node nor a helper of vornrun remains."""

import os
import random
import signal
import sys
import time

from support.waiting import eventually

ROUNDS = 5
LONG_ROUNDS = 1000
LONGEST_LIFE = 0.05  # seconds, longer than the start of all nodes

OPTIONS = {
    "plain": "",
    "user": "--user 65534:65534",
    "logged": "--log-prefix",
    "probed": "--probe exec:true --probe-period 10ms",
    "waiting": "--wait-for exec:false",
    "delayed": "--backoff 1h",
}


def remaining(machine):
    return [process for process in machine.processes() if process.is_alive]


def test_no_process_remains_when_the_launcher_is_killed(machine, is_long):
    seed = random.randrange(2**32)
    print(f"seed {seed}", file=sys.stderr)
    moments = random.Random(seed)
    options = {name: text for name, text in OPTIONS.items()
               if name != "user" or os.geteuid() == 0}
    machine.start({"vornnode": {
        name: machine.wrapped(f"--pdeathsig KILL {text}", "sleep", "1000")
        for name, text in options.items()}})
    for number in range(LONG_ROUNDS if is_long else ROUNDS):
        time.sleep(moments.uniform(0, LONGEST_LIFE))
        machine.signal(signal.SIGKILL)
        assert machine.wait() == -signal.SIGKILL
        eventually(lambda: not remaining(machine), f"seed {seed}, round {number}: "
                   "all processes exit")
        machine.start_again(wait_until_up=False)
