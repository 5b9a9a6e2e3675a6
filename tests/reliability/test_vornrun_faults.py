"""Each system call of the start of a node by vornrun fails once, by strace: vornrun
fails with one line, or the program runs with all of its settings."""

import collections
import json
import os
import re
import shutil

import pytest
from support.machine import PYTHON
from support.waiting import eventually

POINTS = 10  # of each scenario in the short form
# Calls that cannot fail, load vornrun itself, or execute programs.
OTHER_CALLS = re.compile(
    "arch_prctl|brk|clock_|execve|exit|futex|get|m(map|protect|unmap)|rseq|rt_sig|set_|"
    "umask|wait|(r|fst)atfs")
ERRORS = ["EIO", "ENOMEM", "EMFILE"]
FAILED = (125, 126, 127)

SETTINGS = """--directory /tmp/home --umask 027 --env-file /tmp/variables --env A=1
--limit nofile=100:200 --limit core=0 --nice 5 --sched batch --cpu-list 0
--ionice idle --oom-score-adj 100 --no-new-privs --pdeathsig TERM""".split()
MONITOR = """--state-dir /tmp/state --log-dir /tmp/log --log-prefix --ready fd:5
--watchdog 1h --backoff 1ms..1ms --give-up 1000/1ms --wait-for exec:true
--wait-for path:/""".split()

# Prints a line, and writes its settings to a file.
SHOW = """
import json, os, resource
print("a line", flush=True)
fields = dict(line.rstrip("\\n").split(":\\t", 1)
              for line in open("/proc/self/status", encoding="utf-8"))
kept = "Uid Gid Groups Umask NoNewPrivs Cpus_allowed SigIgn SigBlk"
with open("/tmp/shown.new", "w", encoding="utf-8") as file:
    json.dump({
        **{name: fields[name] for name in kept.split()},
        "environment": sorted(f"{name}={value}" for name, value in os.environ.items()
                              if name not in ("NOTIFY_SOCKET", "WATCHDOG_PID")),
        "sockets": sorted({"NOTIFY_SOCKET", "WATCHDOG_PID"} & set(os.environ)),
        "directory": os.getcwd(),
        "limits": [resource.getrlimit(number) for number in range(16)],
        "nice": os.getpriority(os.PRIO_PROCESS, 0),
        "policy": os.sched_getscheduler(0),
        "oom": open("/proc/self/oom_score_adj", encoding="ascii").read(),
        "descriptors": [fd for fd in range(100) if os.path.exists(f"/proc/self/fd/{fd}")
                        and fd != file.fileno()],
    }, file)
os.rename("/tmp/shown.new", "/tmp/shown")
"""


class Start:
    """Runs the program by vornrun under strace, in a machine."""

    def __init__(self, machine, options):
        self.machine = machine
        self.reached = 0  # calls that have failed
        if os.geteuid() == 0:
            options = ["--user", "1234:1235", *options]
        machine.file("variables", "B=2\n")
        (machine.tmp / "home").mkdir()
        machine.wrapped("", "true")
        machine.tmp.chmod(0o777)
        machine.start_without_launcher()
        self.options = options

    def run(self, *strace):
        """Returns the finished process and the settings that the program saw; None if
        it did not run."""
        shown = self.machine.tmp / "shown"
        shown.unlink(missing_ok=True)
        shutil.rmtree(self.machine.tmp / "state", ignore_errors=True)
        # A command of --wait-for may fail each time.
        limit = "3s" if strace else "1h"
        done = self.machine.execute(
            "strace", "-f", "--detach-on=execve", "-qq", "-o", "/tmp/trace", *strace,
            "/tmp/install/bin/vornrun", "--wait-timeout", limit, *self.options, "--",
            PYTHON, "-c", SHOW, environment={"__VORN_NODE_NAME__": "node"})
        found = json.loads(shown.read_bytes()) if shown.exists() else None
        return done, found

    def calls(self):
        """The pid and the text of each call, without the first: the execution of
        vornrun."""
        lines = (self.machine.tmp / "trace").read_text(encoding="utf-8").splitlines()
        return [line.split(maxsplit=1) for line in lines[1:]]

    def points(self):
        """The calls of vornrun's processes: a name, and the number of the call among
        those of this name by the same process."""
        counts = collections.defaultdict(collections.Counter)
        found = {}
        finished = set()
        for pid, call in self.calls():
            name = call.partition("(")[0]
            # The coverage build writes its counters, which must not fail.
            if call.startswith("prlimit64(0, RLIMIT_FSIZE, NULL"):
                finished.add(pid)
            if pid in finished:
                continue
            counts[pid][name] += 1
            if name.isidentifier() and not OTHER_CALLS.match(name):
                found[name, counts[pid][name]] = None
        return list(found)


    def problems(self, error, name, number, expected):
        """What is wrong if this call fails."""
        done, shown = self.run("-e", f"inject={name}:error={error}:when={number}")
        calls = self.calls()
        hit = {pid for pid, call in calls if "(INJECTED)" in call}
        if not hit:  # some calls of the monitor depend on the time
            return
        self.reached += 1
        lines = done.stderr.splitlines()
        if any(not line.startswith("vornrun: node: ") for line in lines):
            yield "another line"
        is_reported = done.returncode in FAILED and 1 <= len(lines) <= len(hit)
        if shown is None and not is_reported:
            yield f"status {done.returncode}: {lines}"
        if shown is not None and (done.returncode != 0 or shown != expected):
            yield f"other settings: {shown}"
        # The monitor itself may be unable to remove its file.
        left = [file for file in (self.machine.tmp / "state").glob("*")
                if file.suffix != ".starts"]
        if left and hit == {calls[0][0]}:
            yield f"files remain: {left}"


@pytest.mark.native
@pytest.mark.plain  # a sanitizer has system calls of its own
@pytest.mark.parametrize("options", [SETTINGS, MONITOR], ids=["settings", "monitor"])
def test_a_failed_call_costs_the_start_or_no_setting(machine, options, is_long):
    start = Start(machine, options)
    done, expected = start.run()
    assert (done.returncode, done.stderr) == (0, "")
    points = start.points()
    if not is_long:
        points = points[::-(-len(points) // POINTS)]
    found = [f"{name} {number} {error}: {problem}"
             for error in (ERRORS if is_long else ERRORS[:1])
             for name, number in points
             for problem in start.problems(error, name, number, expected)]
    assert not found, "\n".join(found)
    assert start.reached > len(points) / 2
    eventually(lambda: not [p for p in machine.processes() if p.is_alive],
               "all processes exit")
