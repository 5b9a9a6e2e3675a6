"""The time that a program which sets attributes of a process adds to the execution of
another program."""

import os
import time

from harness.figures import Table, summary

ROUNDS, QUICK_ROUNDS = 1000, 100
PROGRAM = "/bin/true"
USER_ID = "65534"


def subjects(build):
    """The commands, each with the attributes that its program can set."""
    return {
        "the program": [PROGRAM],
        "vornrun": [
            str(build / "bin/vornrun"), "--user", f"{USER_ID}:{USER_ID}", "--limit",
            "nofile=256", "--nice", "1", "--directory", "/", "--", PROGRAM],
        "setpriv": ["/usr/bin/setpriv", f"--reuid={USER_ID}", f"--regid={USER_ID}",
                    "--clear-groups", PROGRAM],
        "chpst": ["/usr/bin/chpst", "-u", f":{USER_ID}:{USER_ID}", "-o", "256", "-n", "1", PROGRAM],
        "s6-softlimit": ["/usr/bin/s6-softlimit", "-o", "256", PROGRAM],
        "env, nice, prlimit and setpriv": [
            "/usr/bin/env", "-C", "/", "nice", "-n", "1", "prlimit", "--nofile=256",
            "setpriv", f"--reuid={USER_ID}", f"--regid={USER_ID}", "--clear-groups",
            PROGRAM],
    }


def _seconds(command):
    """The processor time of the command, and its duration."""
    begin = time.perf_counter()
    pid = os.posix_spawn(command[0], command, os.environ)
    _, status, usage = os.wait4(pid, 0)
    assert status == 0, command
    return usage.ru_utime + usage.ru_stime, time.perf_counter() - begin


def measure(build, quick):
    """The processor time of each command and the time from the creation of its process
    to the exit, in seconds."""
    used, lasted = Table("s"), Table("s")
    for _ in range(QUICK_ROUNDS if quick else ROUNDS):
        for name, command in subjects(build).items():
            processor, whole = _seconds(command)
            used.add(name, processor)
            lasted.add(name, whole)
    return {name: {"processor seconds": summary(used.values[name]),
                   "seconds": summary(lasted.values[name])} for name in used.values}
