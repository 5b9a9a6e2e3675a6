"""A real launcher that executes the steps of a story and is compared with the model
after each step."""

import collections
import errno
import json
import mmap
import os
import re
import signal
import struct
import subprocess

import state_model
from support.control import RESPONSE, Cmd, Result, State, pack_request
from support.control import read_exactly, unpack_response
from support.blocking import NO_LIMIT, held, limit_of_wait
from support.journal import entry, write_journal
from support.log import parse_log
from support.machine import Machine
from support.waiting import PATIENCE, eventually

# A node's program: executes the commands in its own FIFO, and reports when each is
# done.
NODE = """
orders=/tmp/orders/$$
mkfifo "$orders"
exec 3<>"$orders"
while read -r order <&3; do
  eval "$order"
  : >"$orders.done"
done"""
OFFSPRING = ["sleep", "1000000"]

SYSTEM = struct.Struct("=qqqq")  # struct System of fake_system.c
POLL_MS = 1000  # between two checks for due restarts


def build_fake_system(directory):
    """Compiles fake_system.c; returns the library."""
    source = os.path.join(os.path.dirname(__file__), "fake_system.c")
    library = directory / "fake_system.so"
    subprocess.run(
        ["cc", "-shared", "-fPIC", "-O1", "-Wall", "-Wextra", "-Werror",
         "-o", library, source],
        check=True,
    )
    return library


class Driver:
    """A launcher in a machine of its own. Its methods have the names of the model's;
    each gets the model before the step."""

    def __init__(self, tmp, program, library, nodes, patience=PATIENCE,
                 is_wrapped=False):
        self.patience = patience
        self.is_wrapped = is_wrapped
        self.machine = Machine(tmp, program)
        self.pids = {}  # of every process of the model so far
        self.log_position = 0
        self.refused = "nothing"
        os.link(library, tmp / "fake_system.so")
        (tmp / "orders").mkdir()
        self.machine.file("system", bytes(mmap.PAGESIZE))
        with open(tmp / "system", "r+b") as file:
            self.system = mmap.mmap(file.fileno(), mmap.PAGESIZE)
        for key in nodes:
            self._write_node(key)

    def _write_node(self, key):
        body = NODE
        if self.is_wrapped:
            program = self.machine.script(f"wrapped/{key}", NODE)
            node = self.machine.wrapped("--nice 1", program)
            body = f"exec {node['path']} {node['argv']}"
        self.machine.script(key, body)

    def start(self, nodes, model):
        self._set_system(model)
        environment = ["LD_PRELOAD=/tmp/fake_system.so", "FAKE_SYSTEM=/tmp/system"]
        if self.machine.sanitized:
            environment.append(
                "ASAN_OPTIONS=detect_leaks=0:verify_asan_link_order=0")
        self.machine.start(launch_file(nodes), wrapper=["env", *environment])
        # The machine's own view of its processes, which are far fewer than the host's.
        init = self.machine.find_process(self.machine.pid).parent
        self.proc = f"/proc/{init}/root/proc"
        self.launcher = self.machine.pid

    def shut_down(self):
        self.machine.shut_down()
        self.system.close()

    def _set_system(self, model):
        values = (model.clock_ms, model.wall_clock_ms, model.refused == "fork",
                  model.refused == "SIGTERM")
        self.system[: SYSTEM.size] = SYSTEM.pack(*values)

    # -- Steps. `model` is the model before the step.

    def command(self, model, cmd, name, dying=()):
        request = Cmd[cmd.upper()], name
        if not dying:
            return self.machine.request(*request).result.name
        with held(self.machine) as client:
            for key in dying:
                process = model.oldest(key)
                self._tell(process, "exit 1")
                self._wait_until(lambda p=process: self._state(p) == "Z", "it exits")
            client.sendall(pack_request(*request))
            return unpack_response(read_exactly(client, RESPONSE.size)).result.name

    def dies(self, model, key, how):
        process = model.oldest(key)
        self._tell(process, how)
        self._wait_until(lambda: self._state(process) is None, f"{key} is collected")

    def ignores(self, model, key):
        self._tell_and_wait(model, key, "trap '' TERM")

    def forks(self, model, key):
        self._tell_and_wait(model, key, f"{' '.join(OFFSPRING)} 3<&- &")

    def floods(self, model, key):
        self._tell_and_wait(model, key, "head -c 300000 /dev/zero")

    def program(self, _, key, what):
        path = self.machine.tmp / "bin" / key
        if what == "gone":
            path.unlink(missing_ok=True)
        else:
            self._write_node(key)
            path.chmod(0o755 if what == "runs" else 0o644)

    def passes(self, model, milliseconds):
        """Nothing to do: compare() sets the clocks."""

    def sets_wall_clock(self, model, milliseconds):
        """Nothing to do: compare() sets the clocks."""

    def refuses(self, model, what):
        """Nothing to do: compare() sets it."""

    def ends(self, _, name):
        self.machine.signal(signal.Signals[name])
        status = self.machine.wait()
        assert status == 0, f"the launcher has ended with status {status}"

    # -- Commands to processes.

    def _orders(self, process):
        return self.machine.tmp / "orders" / str(self.pids[process])

    def _tell(self, process, order):
        def opened():
            try:
                return os.open(self._orders(process), os.O_WRONLY | os.O_NONBLOCK)
            except OSError as error:
                if error.errno == errno.ENXIO:
                    return None  # it has not opened it yet
                raise

        fifo = self._wait_until(opened, f"{process.key} takes orders")
        os.write(fifo, order.encode() + b"\n")
        os.close(fifo)

    def _tell_and_wait(self, model, key, order):
        process = model.oldest(key)
        self._tell(process, order)
        done = self._orders(process).with_suffix(".done")
        self._wait_until(done.exists, f"{key} has done what it was told")
        done.unlink()

    def _wait_until(self, condition, what):
        return eventually(condition, what, self.patience)

    # -- Observation.

    def _read(self, pid, file):
        with open(f"{self.proc}/{pid}/{file}", "rb") as opened:
            return opened.read()

    def _read_launcher(self, file):
        return self._read(self.launcher, file)

    def _stat(self, pid):
        """(state, parent) of a process, or None."""
        try:
            fields = self._read(pid, "stat").rpartition(b") ")[2].split()
            return fields[0].decode(), int(fields[1])
        except (FileNotFoundError, ProcessLookupError):
            return None

    def _state(self, process):
        stat = self._stat(self.pids[process])
        return stat and stat[0]

    def _table(self):
        """The processes of the machine by pid, except process 1 and the launcher: the
        key of a node, "offspring", or another name."""
        table = {}
        for pid in map(int, filter(str.isdigit, os.listdir(self.proc))):
            try:
                state, _ = self._stat(pid)
                argv = self._read(pid, "cmdline").decode().split("\0")[:-1]
            except (TypeError, FileNotFoundError, ProcessLookupError):
                continue  # exited in the meantime
            if pid in (1, self.launcher):
                continue
            if state in "ZX":
                table[pid] = "zombie"
            elif argv == OFFSPRING:
                table[pid] = "offspring"
            elif argv[:-1] == ["/bin/sh"] and argv[-1].startswith("/tmp/bin/"):
                table[pid] = os.path.basename(argv[-1])
            else:
                table[pid] = " ".join(argv)
        return table

    def _new_events(self):
        """The starred log lines since the last call, with those of exits separately."""
        with open(self.machine.tmp / "stderr", "rb") as file:
            file.seek(self.log_position)
            text = file.read()
        self.log_position += len(text)
        events, exits = [], []
        for line in parse_log(text.decode(errors="replace")):
            if line.event and line.pid == self.launcher:
                log = exits if line.func == "reap" else events
                log.append((line.level, line.text))
        return events, exits

    # -- Comparison.

    def compare_history(self, model):
        """Checks that vornctl derives every exit and its cause from the log, in a file
        and in the journal."""
        if len({node.name for node in model.nodes}) < len(model.nodes):
            return  # in the log, nodes of one name look the same
        expected = collections.Counter(
            (model.name(process.key), process.cause) for process in model.collected)
        known = {self.pids[process]: (model.name(process.key), process.cause)
                 for process in model.collected if process in self.pids}
        journal = self.machine.tmp / "journal/launcher.journal"
        write_journal(journal, self._journal_entries())
        for log in (self.machine.tmp / "stderr", journal.parent):
            exits = [event for event in self._history(log)
                     if event["event"] == "exited"]
            for event in exits:
                if known.get(event["pid"]) == (event["node"], "unclear"):
                    event["cause"] = "unclear"
            found = collections.Counter((e["node"], e["cause"]) for e in exits)
            assert found == expected, f"history of {log}: {found}, not {expected}"
            by_pid = {e["pid"]: (e["node"], e["cause"]) for e in exits}
            assert known.items() <= by_pid.items(), (
                f"history of {log}: {by_pid}, not {known}")

    def _history(self, log):
        vornctl = self.machine.install / "bin/vornctl"
        done = subprocess.run(
            [vornctl, "history", "--json", "--log", log, "-n", "1000000"],
            stdout=subprocess.PIPE, check=True)
        return json.loads(done.stdout)["events"]

    def _journal_entries(self):
        """The log as the journal receives it: without times in the text."""
        entries = []
        for number, line in enumerate(self.machine.log()):
            mark = "*" if line.event else ""
            entries.append(entry(
                1_700_000_000 + number / 1000, line.pid,
                f"{mark}{line.level:<5} {line.name}[{line.pid}] {line.file}:{line.line}"
                f" {line.func}: {line.text}"))
        return entries

    def compare(self, model):
        """Checks that the launcher agrees with `model`, the model after the step."""
        self._set_system(model)
        # Otherwise a reply could separate a stop from its exit in the log: SIGKILL
        # takes effect some time after kill(2).
        ended = set(self.pids) - set(model.processes)
        self._wait_until(lambda: all(self._state(p) in (None, "Z", "X") for p in ended),
                         "the stopped processes are dead")
        if not model.has_ended:
            # The second reply follows a whole iteration of the loop after the step, so
            # all due nodes have been started.
            for _ in range(2):
                unknown = self.machine.status("nobody")
                assert unknown.result == Result.NOT_FOUND, unknown
        self._compare_processes(model)
        if not model.has_ended:
            self._compare_statuses(model)
            limit = POLL_MS if model.waits_for_restart else NO_LIMIT
            self._wait_until(
                lambda: limit_of_wait(self._read_launcher) == limit,
                f"the launcher waits for events with the limit {limit}")
        events, exits = self._new_events()
        assert events == model.events, f"log: {events}, not {model.events}"
        # The kernel chooses the order of simultaneous exits.
        assert sorted(exits) == sorted(model.exit_events), (
            f"log of exits: {exits}, not {model.exit_events}")
        model.events.clear()
        model.exit_events.clear()

    def _compare_processes(self, model):
        """No zombie, and every process is one that the model knows. Learns the
        pids of new ones."""
        expected = sorted(["offspring"] * model.offspring
                          + [process.key for process in model.processes])
        old = {self.pids[p]: p.key for p in model.processes if p in self.pids}
        dead = set(self.pids.values()) - set(old)
        table = {}

        def is_as_expected():
            nonlocal table
            table = self._table()
            return (sorted(table.values()) == expected and not dead & set(table)
                    and old.items() <= table.items())

        try:
            self._wait_until(is_as_expected, "the processes are those of the model")
        except AssertionError as error:
            raise AssertionError(
                f"processes: {table}, not {expected}, of which {old} were there "
                "before") from error
        # After a step, at most one new process of each node exists.
        new = {key: pid for pid, key in table.items() if pid not in old}
        for process in model.processes:
            if process not in self.pids:
                self.pids[process] = new.pop(process.key)
                # Only then has the process read its program, which may change from now
                # on.
                self._wait_until(self._orders(process).exists,
                                 f"{process.key} has begun")

    def _compare_statuses(self, model):
        for name in dict.fromkeys(node.name for node in model.nodes):
            node = model.find(name)
            expected = (
                Result.SUCCESS,
                self.pids[node.process] if node.process else 0,
                State[node.state],
                node.start_seconds,
            )
            reply = self.machine.status(name)
            status = reply.result, reply.pid, reply.state, reply.start_seconds
            assert status == expected, f"status of {name}: {status}, not {expected}"


def launch_file(nodes):
    """The launch file of a story."""
    entries = []
    for key, keys in nodes.items():
        description = {"path": f"/tmp/bin/{key}"} | {
            k: v for k, v in keys.items() if k != "called"}
        entries.append(f"{json.dumps(keys.get('called', key))}: "
                       f"{json.dumps(description)}")
    return '{"vornnode": {' + ", ".join(entries) + "}}"


def play(directory, program, library, nodes, steps, **options):
    """Runs the steps on a launcher and compares it with the model after each. The
    options are those of Driver. Returns the model."""
    model = state_model.Model(nodes)
    directory.mkdir()
    driver = Driver(directory, program, library, nodes, **options)
    done = []
    try:
        driver.start(nodes, model)
        driver.compare(model)
        for step in steps:
            done.append(step)
            verb, *arguments = step
            result = getattr(driver, verb)(model, *arguments)
            expected = model.apply(step)
            assert result == expected, f"{step} answers {result}, not {expected}"
            driver.compare(model)
        driver.compare_history(model)
        log = driver.machine.stderr()
        assert not re.search("Sanitizer|runtime error:", log), log
    except AssertionError as error:
        raise AssertionError(f"{error}\n\n{as_kept(nodes, done)}") from error
    finally:
        driver.shut_down()
    return model


def as_kept(nodes, steps):
    """The story as an entry of KEPT in test_state_model.py."""
    lines = ["    'what it shows': ({"]
    lines += [f"        {key!r}: {keys!r}," for key, keys in nodes.items()]
    lines += ["    }, ["]
    lines += [f"        {step!r}," for step in steps]
    lines += ["    ]),"]
    return "\n".join(lines).replace("'", '"')
