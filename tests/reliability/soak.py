"""Soak: nodes of every kind and a request every 100 ms, for an hour. The memory
and descriptors of the launcher and the delay of its restarts are recorded every
10 seconds.

It fails if the descriptors vary, the memory grows, a zombie remains, a restart
is missed, early or more than 1.2 s late, the log has an ERROR line other than
for a refused fork, or a node remains after SIGTERM. A restart is due 5 s after
the last start, or at the exit if that is later; the time in which the launcher
served a request or waited for a processor does not count.

`./reliability.sh soak` runs it; test_soak.py runs a minute of it.
"""

import argparse
import bisect
import collections
import csv
import dataclasses
import datetime
import heapq
import os
import pathlib
import random
import re
import shutil
import signal
import statistics
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests"))

from support import log_texts
from support.control import Cmd, Result, State  # noqa: E402
from support.log import parse_log  # noqa: E402
from support.machine import Machine  # noqa: E402

REQUEST_INTERVAL = 0.1
SAMPLE_INTERVAL = 10.0

# A node is restarted 5 s after its last start; the launcher checks once per second, and
# a machine under load adds a delay.
RESTART_INTERVAL = 5.0
LATE = 1.2
MISSED = 10.0  # the launcher has had this long with nothing else to do
EARLY = 1.0  # may pass between taking the time and writing the line

# The permitted growth of the launcher's memory after its allocator has settled.
MEMORY_GROWTH_KB = 256

# The frequency of each command in percent.
COMMANDS = {
    Cmd.STATUS: 88, Cmd.START: 3, Cmd.STOP: 3, Cmd.RESTART: 3, Cmd.DISABLE: 1,
    Cmd.ENABLE: 2,
}

# -- The nodes. Processes that a node's shell starts have IS_HELPER in their
# environment.

RANDOM = "read -r uuid < /proc/sys/kernel/random/uuid\nrandom=$((0x${uuid%%-*}))\n"
SCRIPTS = {
    "stay": "exec sleep 100000",
    "exit-at-once": "exit 1",
    "exit-sometime": RANDOM + "exec sleep $((random % 20 + 1))",
    "crash": RANDOM + """\
ulimit -c 0
IS_HELPER=1 sleep $((random % 8))
kill -SEGV $$
""",
    "ignore-sigterm": "trap '' TERM\nexec sleep 100000",
    "leave-helpers": """\
IS_HELPER=1 sleep 2 &
IS_HELPER=1 sleep 6 &
IS_HELPER=1 sleep 1
""",
    "talk": """\
while :; do
  for i in 1 2 3 4 5 6 7 8 9 10; do
    echo "a line $i"
    echo "another line $i" >&2
  done
  IS_HELPER=1 sleep 5
done
""",
    "once": RANDOM + "exec sleep $((random % 5))",
}

# Of 200 nodes: how many, which script, which other keys.
MIXTURE = [
    (80, "stay", {}),
    (14, "exit-at-once", {}),
    (40, "exit-sometime", {}),
    (10, "crash", {}),
    (2, "ignore-sigterm", {}),
    (12, "leave-helpers", {}),
    (8, "talk", {}),
    (10, "once", {"oneshot": True}),
    (6, "exit-sometime", {"sleep": 20}),
    (2, "stay", {"sleep": 1500}),
    (2, "stay", {"autostart": False}),
    (2, "stay", {"disabled": True}),
]
PAIRS = 6  # of 200: one that exits at some time, and the one that it requires
WHOLE = sum(number for number, _, _ in MIXTURE) + 2 * PAIRS


def launch_content(count, rng):
    """The launch file's content: about `count` nodes of the mixture, shuffled,
    at least one of each kind."""
    nodes = []

    def add(kind, keys):
        name = f"{kind}-{len(nodes)}"
        nodes.append((name, {"path": f"/tmp/bin/{kind}", **keys}))
        return name

    def share(number):
        return max(1, round(number * count / WHOLE))

    for number, kind, keys in MIXTURE:
        for _ in range(share(number)):
            add(kind, keys)
    for _ in range(share(PAIRS)):
        add("exit-sometime", {"required": [add("stay", {})]})
    rng.shuffle(nodes)
    return {"vornnode": dict(nodes)}


# -- Observations.


class BusyTimes:
    """The times in which the launcher could not restart a node: from each request to
    its reply, because it serves a request at once unless it is busy; and while it
    waited for the processor."""

    def __init__(self, launcher):
        self._launcher = launcher
        self._begins, self._ends, self._busy = [], [], []
        self._last_end, self._last_waited = time.time(), launcher.waited()

    def add_request(self, begin, end):
        waited = self._launcher.waited()
        self._add(self._last_end, begin, waited - self._last_waited)
        self._add(begin, end, end - begin)
        self._last_end, self._last_waited = end, waited

    def _add(self, begin, end, busy):
        self._begins.append(begin)
        self._ends.append(end)
        self._busy.append(busy)

    def between(self, begin, end):
        """The upper bound of the time in which it was busy, in seconds."""
        busy = 0.0
        for i in range(bisect.bisect_right(self._ends, begin), len(self._ends)):
            if self._begins[i] >= end:
                break
            seconds = min(end, self._ends[i]) - max(begin, self._begins[i])
            busy += min(seconds, self._busy[i])
        return busy


class Client:
    """Sends requests one at a time, and records the times."""

    def __init__(self, machine, launcher, names, rng):
        self._machine, self._names, self._rng = machine, names, rng
        self._later = []  # requests that undo earlier ones: (when, cmd, name)
        self._starts = collections.defaultdict(lambda: collections.deque(maxlen=9))
        self.busy = BusyTimes(launcher)
        self.count = collections.Counter()
        self.longest = collections.Counter()  # seconds, by command
        self.unknown = 0

    def request(self, cmd, name):
        begin = time.time()
        response = self._machine.request(cmd, name)
        end = time.time()
        self.busy.add_request(begin, end)
        self.count[cmd] += 1
        self.longest[cmd] = max(self.longest[cmd], end - begin)
        self.unknown += response.result == Result.NOT_FOUND
        if cmd in (Cmd.START, Cmd.RESTART):
            self._starts[name].append((begin, end))
        return response

    def has_started(self, name, when):
        """Whether one of its requests can have started the node at that time."""
        return any(begin <= when <= end for begin, end in self._starts[name])

    def request_something(self):
        now = time.time()
        if self._later and self._later[0][0] <= now:
            self.request(*heapq.heappop(self._later)[1:])
            return
        cmd = self._rng.choices(*zip(*COMMANDS.items()))[0]
        name = self._rng.choice(self._names)
        if cmd in (Cmd.STOP, Cmd.DISABLE):
            self.start_later(name)
        self.request(cmd, name)

    def start_later(self, name):
        then = time.time() + self._rng.uniform(5, 60)
        heapq.heappush(self._later, (then, Cmd.ENABLE, name))
        heapq.heappush(self._later, (then + 0.1, Cmd.START, name))


class Supervision:
    """The exits and restarts in the launcher's log."""

    def __init__(self, path, client):
        self._file = open(path, "rb")  # pylint: disable=consider-using-with
        self._rest = b""
        self._client = client
        self._started = {}  # the last start of each node
        self._due = {}  # when the nodes that wait are to be started again
        self._begun = {}  # when the delay before a start has begun
        self._overdue = set()
        self.lateness = []  # of every restart, without the busy times
        self.exits = self.restarts = self.early = self.missed = 0
        self.refused_forks = 0  # by a kernel that is short of something
        self.longest_wait = 0.0  # for an overdue restart, with the busy times
        self.errors = []

    def follow(self):
        """Reads the new part of the log."""
        data = self._rest + self._file.read()
        whole, _, self._rest = data.rpartition(b"\n")
        for line in parse_log(whole.decode(errors="replace")):
            self._take(line)

    def _take(self, line):
        when = datetime.datetime.fromisoformat(line.time).timestamp()
        if match := re.fullmatch(r"name: (.+) fork failed\.", line.text):
            self.refused_forks += 1
            self._begun.pop(match[1], None)
            self._forget(match[1])
            self._client.start_later(match[1])  # the launcher does not
        elif line.level == "ERROR":
            self.errors.append(f"{line.func}: {line.text}")
        elif line.func == "startInternal":
            if match := re.fullmatch(log_texts.started(r"(.+)"), line.text):
                self._take_start(match[1], when)
            elif match := re.fullmatch(r"(.+) sleep \d+ms", line.text):
                self._begun[match[1]] = when
        elif match := re.fullmatch(log_texts.ready_to_restart(r"(.+)"), line.text):
            due = max(self._started[match[1]] + RESTART_INTERVAL, when)
            self._due[match[1]] = due
            self.exits += 1
        elif match := re.fullmatch(r"Node '(.+)' is restarting, .*", line.text):
            self._forget(match[1])

    def _take_start(self, name, when):
        begun = self._begun.pop(name, when)
        due = self._forget(name)
        self._started[name] = when
        if due is None or self._client.has_started(name, when):
            return
        self.restarts += 1
        self.early += begun < due - EARLY
        self.longest_wait = max(self.longest_wait, begun - due)
        busy = self._client.busy.between(due, begun)
        self.lateness.append(max(0.0, begun - due - busy))

    def _forget(self, name):
        self._overdue.discard(name)
        return self._due.pop(name, None)

    def look_for_missed(self):
        """Counts the overdue restarts."""
        now = time.time()
        self.follow()
        for name, due in self._due.items():
            idle = now - due - self._client.busy.between(due, now)
            if idle > MISSED and name not in self._overdue:
                self._overdue.add(name)
                self.missed += 1

    @property
    def late(self):
        return sum(seconds > LATE for seconds in self.lateness)

    @property
    def waiting(self):
        return len(self._due)


class LauncherProcess:
    """The kernel's data about the launcher."""

    def __init__(self, machine):
        self._directory = pathlib.Path(f"/proc/{machine.process.host_pid}")
        counts = []
        for _ in range(50):
            counts.append(self._open_descriptors())
            time.sleep(0.02)
        self._usual_descriptors = min(counts)

    def memory(self):
        """Its resident memory in kB."""
        status = (self._directory / "status").read_text(encoding="ascii")
        return int(re.search(r"VmRSS:\s+(\d+) kB", status)[1])

    def waited(self):
        """The seconds in which it was ready to run and waited for a processor."""
        schedstat = (self._directory / "schedstat").read_text(encoding="ascii")
        return int(schedstat.split()[1]) / 1e9

    def _open_descriptors(self):
        return len(os.listdir(self._directory / "fd"))

    def descriptors(self):
        """The number of open descriptors while it waits for events; it opens others
        only for a moment."""
        fewest = self._open_descriptors()
        deadline = time.monotonic() + 30
        while fewest > self._usual_descriptors and time.monotonic() < deadline:
            time.sleep(0.02)
            fewest = min(fewest, self._open_descriptors())
        return fewest

    def children(self):
        path = next((self._directory / "task").iterdir()) / "children"
        return path.read_text(encoding="ascii").split()

    def zombies(self):
        """Its exited children: (pid, start time)."""
        found = set()
        for pid in self.children():
            try:
                stat = pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="utf-8")
            except (FileNotFoundError, ProcessLookupError):
                continue
            fields = stat.rpartition(")")[2].split()
            if fields[0] == "Z":
                found.add((pid, fields[19]))
        return found


# -- The run.


@dataclasses.dataclass
class Sample:
    """One line of the record."""

    seconds: int
    memory_kb: int
    descriptors: int
    children: int
    zombies: int  # that have existed for three iterations of the loop
    running: int
    restarting: int
    stopped: int
    disabled: int
    requests: int
    restarts: int
    late: int
    missed: int
    status_max_ms: float  # the longest reply since the last line
    command_max_ms: float
    load: float  # of the machine, caused by any process


class Soak:
    """A machine under soak."""

    def __init__(self, machine, node_count):
        rng = random.Random(1)
        for name, body in SCRIPTS.items():
            machine.script(name, body)
        content = launch_content(node_count, rng)
        machine.start(content)
        self._machine = machine
        self._names = list(content["vornnode"])
        self._launcher = LauncherProcess(machine)
        self.client = Client(machine, self._launcher, self._names, rng)
        self.supervision = Supervision(machine.tmp / "stderr", self.client)
        self.samples = []
        self.seconds_to_end = self._waited = None
        self.problems = []

    def run(self, seconds, on_sample=lambda sample: None):
        """Keeps the launcher busy for this time, then terminates it."""
        begin = now = time.time()
        next_request, next_sample = begin, begin + SAMPLE_INTERVAL
        while next_sample <= begin + seconds:
            if now >= next_sample:
                self.samples.append(self._take_sample(round(now - begin)))
                on_sample(self.samples[-1])
                next_sample += SAMPLE_INTERVAL
            # Requests that were delayed follow at once.
            self.client.request_something()
            next_request += REQUEST_INTERVAL
            now = time.time()
            if now < next_request:
                self.supervision.follow()
                time.sleep(max(0.0, next_request - time.time()))
                now = time.time()
        self.supervision.look_for_missed()
        self._waited = self._launcher.waited()
        self._end()
        self._judge()

    def _take_sample(self, seconds):
        client, supervision = self.client, self.supervision
        longest, client.longest = client.longest, collections.Counter()
        states = collections.Counter(
            client.request(Cmd.STATUS, name).state for name in self._names
        )
        supervision.look_for_missed()
        return Sample(
            seconds=seconds,
            memory_kb=self._launcher.memory(),
            descriptors=self._launcher.descriptors(),
            children=len(self._launcher.children()),
            zombies=len(self._lasting_zombies()),
            running=states[State.RUNNING],
            restarting=states[State.RESTARTING],
            stopped=states[State.STOPPED],
            disabled=states[State.DISABLED],
            requests=client.count.total(),
            restarts=supervision.restarts,
            late=supervision.late,
            missed=supervision.missed,
            status_max_ms=round(1000 * longest.pop(Cmd.STATUS, 0.0), 1),
            command_max_ms=round(1000 * max(longest.values(), default=0.0), 1),
            load=round(os.getloadavg()[0], 1),
        )

    def _lasting_zombies(self):
        zombies = self._launcher.zombies()
        if zombies:
            # By the third reply, the loop has checked for events.
            for _ in range(3):
                self.client.request(Cmd.STATUS, self._names[0])
            zombies &= self._launcher.zombies()
        return zombies

    def _end(self):
        begin = time.monotonic()
        self._machine.signal(signal.SIGTERM)
        # Every node can take ten seconds or more.
        status = self._machine.wait(timeout=60 + 20 * len(self._names))
        self.seconds_to_end = time.monotonic() - begin
        self._expect(status == 0, f"the launcher ended with {status}")
        left = [p for p in self._machine.processes() if is_node(p)]
        self._expect(not left, f"nodes are left: {left}")

    def _judge(self):
        samples, supervision = self.samples, self.supervision
        descriptors = {sample.descriptors for sample in samples}
        self._expect(len(descriptors) == 1, f"descriptors vary: {descriptors}")
        zombies = max(sample.zombies for sample in samples)
        self._expect(zombies == 0, f"{zombies} children were not collected")
        missed, early = supervision.missed, supervision.early
        self._expect(missed == 0, f"{missed} restarts have not come")
        self._expect(early == 0, f"{early} restarts came too early")
        self._expect(supervision.restarts > 0, "no restart was seen")
        unknown = self.client.unknown
        self._expect(unknown == 0, f"{unknown} times a node was not found")
        errors = collections.Counter(supervision.errors)
        self._expect(not errors, f"errors in the log: {dict(errors)}")
        # A sanitizer delays the release of memory.
        if not self._machine.sanitized:
            growth = self.memory_growth()
            self._expect(growth <= MEMORY_GROWTH_KB, f"{growth} kB more memory")

    def _expect(self, is_well, problem):
        if not is_well:
            self.problems.append(problem)

    def settled(self):
        """The samples after the first tenth of the run."""
        return self.samples[len(self.samples) // 10 :]

    def memory_growth(self):
        memory = [sample.memory_kb for sample in self.settled()]
        return memory[-1] - memory[0]

    def memory_slope(self):
        """The slope by the method of least squares, in kB per hour."""
        settled = self.settled()
        if len(settled) < 2:
            return 0.0
        return 3600 * statistics.linear_regression(
            [sample.seconds for sample in settled],
            [sample.memory_kb for sample in settled],
        ).slope

    def summary(self):
        """The results, one line each."""
        samples, supervision, client = self.samples, self.supervision, self.client
        memory = [sample.memory_kb for sample in samples]
        lateness = supervision.lateness or [0.0]
        counts = ", ".join(f"{cmd.name} {client.count[cmd]}" for cmd in Cmd)
        return "\n".join([
            f"nodes: {len(self._names)}, seconds: {samples[-1].seconds}",
            f"load of the machine: {min(s.load for s in samples)}"
            f" to {max(s.load for s in samples)}",
            f"resident memory: {memory[0]} kB at first, {memory[-1]} kB at last, "
            f"{min(memory)} to {max(memory)} kB",
            f"after the first tenth: {self.memory_growth():+} kB, "
            f"slope {self.memory_slope():+.1f} kB/h",
            f"descriptors: {sorted({s.descriptors for s in samples})}",
            f"zombies: {max(s.zombies for s in samples)}",
            f"requests: {client.count.total()} ({counts})",
            "longest reply: status "
            f"{max(s.status_max_ms for s in samples):.0f} ms, "
            f"others {max(s.command_max_ms for s in samples):.0f} ms",
            f"exits: {supervision.exits}, restarts: {supervision.restarts}, "
            f"waiting at the end: {supervision.waiting}",
            f"restarts missed: {supervision.missed}, early: {supervision.early}, "
            f"more than {LATE} s late: {supervision.late}, "
            f"forks refused by the kernel: {supervision.refused_forks}",
            f"lateness: median {1000 * statistics.median(lateness):.0f} ms, "
            f"worst {1000 * max(lateness):.0f} ms; with the time the launcher was "
            f"busy or waited for the processor: worst {supervision.longest_wait:.1f} s",
            f"the launcher waited for the processor: {self._waited:.0f} s in all",
            f"SIGTERM: ended after {self.seconds_to_end:.0f} s",
            *(f"WRONG: {problem}" for problem in self.problems),
        ])


def is_node(process):
    try:
        environment = process.environment
    except (FileNotFoundError, ProcessLookupError):
        return False
    return "__VORN_NODE_NAME__" in environment and "IS_HELPER" not in environment


# -- The program.


def plot(samples, path):
    """Draws the record as SVG, the same for the same record."""
    import matplotlib  # only the long form needs it

    matplotlib.use("svg")
    matplotlib.rcParams["svg.hashsalt"] = "soak"
    matplotlib.rcParams["svg.fonttype"] = "none"  # keep text as text, not as outlines
    from matplotlib import pyplot

    minutes = [sample.seconds / 60 for sample in samples]
    figure, axes = pyplot.subplots(4, 1, sharex=True, figsize=(8, 9))

    def draw(axis, label, *fields):
        for field in fields:
            axis.plot(minutes, [getattr(s, field) for s in samples],
                      label=field.replace("_", " "), linewidth=1)
        axis.set_ylabel(label)
        axis.set_ylim(bottom=0)
        axis.legend(loc="upper right", fontsize="small")

    draw(axes[0], "kB", "memory_kb")
    draw(axes[1], "number", "descriptors", "zombies", "late", "missed")
    draw(axes[2], "nodes", "running", "restarting", "stopped", "disabled")
    draw(axes[3], "longest reply, ms", "status_max_ms", "command_max_ms")
    axes[-1].set_xlabel("minutes")
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})


def parse_arguments():
    parser = argparse.ArgumentParser(
        prog="./reliability.sh soak",
        description="Runs many nodes and a request every 100 ms.",
    )
    parser.add_argument("--minutes", type=float, default=60)
    parser.add_argument("--nodes", type=int, default=WHOLE)
    parser.add_argument("--output", type=pathlib.Path, metavar="DIR",
                        default=ROOT / "build" / "soak",
                        help="for the record, the plot and the machine's files")
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build",
                        help="the build directory whose bin/vornlaunch is run")
    return parser.parse_args()


def main():
    options = parse_arguments()
    output = options.output.resolve()
    shutil.rmtree(output / "machine", ignore_errors=True)
    (output / "machine").mkdir(parents=True)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # with a shutdown
    machine = Machine(output / "machine", options.build / "bin" / "vornlaunch")
    try:
        soak = Soak(machine, options.nodes)
        # Only this process gets a higher priority, so that it is not late; the launcher
        # does not.
        if os.geteuid() == 0:
            os.setpriority(os.PRIO_PROCESS, 0, -10)
        with open(output / "soak.csv", "w", encoding="ascii", newline="") as file:
            record = csv.writer(file)
            record.writerow(field.name for field in dataclasses.fields(Sample))

            def write(sample):
                record.writerow(dataclasses.astuple(sample))
                file.flush()

            soak.run(60 * options.minutes, write)
    finally:
        machine.shut_down()
    late = soak.supervision.late
    if late:
        soak.problems.append(f"{late} restarts were more than {LATE} s late")
    print(soak.summary())
    (output / "summary.txt").write_text(soak.summary() + "\n", encoding="ascii")
    plot(soak.samples, output / "soak.svg")
    return 1 if soak.problems else 0


if __name__ == "__main__":
    sys.exit(main())
