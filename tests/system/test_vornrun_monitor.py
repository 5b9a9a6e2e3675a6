"""The monitor of vornrun: logs, readiness, health and the state file of a node that
runs without a launcher."""

import contextlib
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import textwrap

import pytest
from support.machine import PYTHON
from support.process_tree import children_of, has_ended, status_field
from support.waiting import eventually

needs_root = pytest.mark.skipif(
    os.geteuid() != 0, reason="no right to become another user")

# Functions of the programs that run as nodes.
PRELUDE = """
import os, socket, subprocess, sys, time
def wait_for(path):
    while not os.path.exists(path):
        time.sleep(0.01)
def write(fd, data):
    while data:
        data = data[os.write(fd, data):]
def notify(text):
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
        sender.connect("\\0" + os.environ["NOTIFY_SOCKET"][1:])
        sender.send(text)
"""


class Node:
    """A node `lamp` that vornrun executes in the directory `tmp`."""

    def __init__(self, program, tmp):
        self.program = program.with_name("vornrun")
        self.tmp = tmp
        self.process = None
        self.output = b""

    def start(self, options, body, wrapper=(), **keys):
        """Executes this Python program with these options of vornrun."""
        source = self.tmp / "node.py"
        source.write_text(PRELUDE + textwrap.dedent(body), encoding="utf-8")
        environment = dict(os.environ, __VORN_NODE_NAME__="lamp",
                           NOTIFY_SOCKET="/of/the/unit")
        command = [*wrapper, self.program, "--state-dir", self.tmp / "state",
                   *options, "--", PYTHON, source]
        keys = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **keys}
        self.process = subprocess.Popen(command, cwd=self.tmp, env=environment,
                                        stdin=subprocess.DEVNULL, **keys)

    def wait(self):
        """Waits until the node and its monitor have exited. Returns the exit status,
        the standard output and the standard error."""
        # The monitor, too, has the pipes open.
        output, error = self.process.communicate(timeout=60)
        return self.process.returncode, output, error

    def run(self, options, body, **keys):
        self.start(options, body, **keys)
        return self.wait()

    def state(self):
        """The content of the state file; empty without one."""
        assert self.process.poll() is None, self.wait()
        try:
            text = (self.tmp / "state/lamp.json").read_text(encoding="utf-8")
        except FileNotFoundError:
            return {}
        return json.loads(text)

    def wait_for_phase(self, phase):
        return eventually(lambda: (self.state() if self.state().get("phase") == phase
                                   else None), f"the phase is {phase}")

    def touch(self, name):
        (self.tmp / name).touch()

    def exists(self, name):
        return (self.tmp / name).exists()

    def monitors(self):
        """The pids of the guardian and of the monitor, in this order."""
        found = []
        for entry in filter(str.isdigit, os.listdir("/proc")):
            with contextlib.suppress(OSError):
                with open(f"/proc/{entry}/cmdline", "rb") as file:
                    is_own = str(self.tmp).encode() in file.read()
                if is_own and status_field(entry, "Name") == "vornrun-monitor":
                    found.append(int(entry))
        return sorted(found, key=lambda pid: not children_of(pid))

    def log(self):
        path = self.tmp / "log/current"
        return path.read_bytes() if path.exists() else b""

    def close(self):
        if self.process is not None and self.process.poll() is None:
            self.process.kill()
            self.process.communicate()


@pytest.fixture(name="node")
def fixture_node(tmp_path, program):
    """A node that has not been started. After the test, nothing of it may remain."""
    tmp_path.chmod(0o755)
    node = Node(program, tmp_path)
    yield node
    node.close()
    eventually(lambda: all(map(has_ended, node.monitors())), "the monitor exits")
    state = tmp_path / "state"
    assert not state.is_dir() or os.listdir(state) == []


@pytest.fixture(name="log_options")
def fixture_log_options(tmp_path):
    return ["--log-dir", tmp_path / "log"]


class TestLogs:
    @staticmethod
    def test_a_prefix_names_the_node_and_the_stream(node):
        status, output, error = node.run(["--log-prefix"], """
            write(1, b"one\\ntwo")
            write(2, b"bad\\n")
            sys.exit(3)
        """)
        assert status == 3
        assert output == b"lamp stdout: one\nlamp stdout: two\n"
        assert error == b"lamp stderr: bad\n"

    @staticmethod
    def test_a_partial_line_is_written_after_a_pause(node):
        node.start(["--log-prefix"], "write(1, b'50 %'); wait_for('go')")
        assert node.process.stdout.readline() == b"lamp stdout: 50 %\n"
        node.touch("go")
        assert node.wait()[0] == 0

    @staticmethod
    def test_a_file_contains_every_byte_of_both_streams_in_order(node, log_options):
        node.run(log_options, r"""
            write(1, b"a\0\xff\r\n"); write(2, b"b"); write(1, bytes(range(256)))
        """)
        assert node.log() == b"a\0\xff\r\nb" + bytes(range(256))

    @staticmethod
    def test_finished_files_are_compressed_and_limited(node, log_options):
        node.run([*log_options, "--log-size", "10K", "--log-keep", "2",
                  "--log-compress"], """
            import glob
            for i in range(100):
                write(1, b"%999d\\n" % i)
            while not glob.glob("log/*.gz"):
                time.sleep(0.01)
        """)
        names = sorted(os.listdir(node.tmp / "log"))
        assert len(names) == 3
        assert re.fullmatch(r"00000008-\d{8}T\d{6}Z\.log(\.gz)?", names[0])
        assert node.log() == b"".join(b"%999d\n" % i for i in range(90, 100))

    @staticmethod
    def test_the_journal_has_the_name_of_the_node(machine, program):
        directory = machine.tmp / ".run/systemd/journal"
        directory.mkdir(parents=True)
        machine.wrapped("")  # installs vornrun
        machine.start_without_launcher()
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
            listener.bind(str(directory / "stdout"))
            listener.listen()
            machine.run("/tmp/install/bin/vornrun", "--log", "journal", "--",
                        "sh", "-c", "echo one; echo two >&2")
            received = []
            for _ in range(2):
                connection, _ = listener.accept()
                with connection, connection.makefile("rb") as file:
                    received.append(file.read())
        assert sorted(received) == [b"sh\n\n5\n1\n0\n0\n0\ntwo\n",
                                    b"sh\n\n6\n1\n0\n0\n0\none\n"]

    @staticmethod
    def test_a_terminal_passes_lines_on_at_once_and_unchanged(node):
        node.start(["--pty"], r"""
            print("ready", sys.stdout.isatty()); wait_for("go"); write(2, b"a\r\nb")
        """)
        assert node.process.stdout.readline() == b"ready True\n"
        node.touch("go")
        assert node.wait()[1:] == (b"a\r\nb", b"")

    @staticmethod
    @needs_root
    def test_another_user_can_open_its_output_again(node, log_options):
        subprocess.run([node.program, *log_options, "--user", "65534", "--state-dir",
                        node.tmp / "state", "--", "sh", "-c",
                        "echo hello >/dev/stderr"], check=True, timeout=60)
        eventually(lambda: node.log() == b"hello\n", "the log has the line")

    @staticmethod
    def test_lines_for_a_stopped_reader_are_dropped_and_counted(node):
        node.start(["--log-prefix"], """
            for i in range(1000):
                write(1, b"%999d\\n" % i)
            open("written", "w").close()
            wait_for("go")
        """)
        eventually(lambda: node.exists("written"), "the node was not blocked")
        prefix = b"lamp stdout: "
        printed = dropped = 0
        while printed + dropped < 1_000_000:
            line = node.process.stdout.readline()
            notice = re.fullmatch(prefix + rb"vornrun: (\d+) bytes dropped\n", line)
            if notice:
                dropped += int(notice[1])
            else:
                printed += 1000
                assert line.startswith(prefix) and len(line) == len(prefix) + 1000
        assert printed + dropped == 1_000_000 and dropped > 0
        eventually(lambda: node.state()["droppedBytes"] == dropped,
                   "the state has the number of bytes")
        node.touch("go")
        assert node.wait() == (0, b"", b"")

    @staticmethod
    def test_a_full_file_system_costs_output_that_is_counted(node, log_options,
                                                            namespaces):
        # pylint: disable=unused-argument
        (node.tmp / "log").mkdir()
        script = 'mount -t tmpfs -o size=64k none log && head -c 40k /dev/zero >log/x'
        unshare = ["unshare", "--mount"]
        if os.geteuid() != 0:
            unshare += ["--user", "--map-root-user"]
        node.start(log_options, r"""
            for i in range(1000):
                write(1, b"%999d\n" % i)
            os.unlink("log/x")
            wait_for("go")
        """, wrapper=[*unshare, "sh", "-c", script + ' && exec "$@"', "sh"])
        current = pathlib.Path(f"/proc/{node.process.pid}/root/{node.tmp}/log/current")
        notice = re.compile(rb"\n?vornrun: (\d+) bytes dropped: "
                            rb"No space left on device\n")
        found = eventually(lambda: current.exists() and re.search(
            notice, current.read_bytes()) and current.read_bytes(),
            "the number of bytes is in the log")
        dropped = sum(map(int, notice.findall(found)))
        assert len(notice.sub(b"", found)) + dropped == 1_000_000
        eventually(lambda: node.state()["droppedBytes"] == dropped,
                   "the number of bytes is in the state")
        node.touch("go")
        assert node.wait() == (0, b"", b"")

    @staticmethod
    @pytest.mark.parametrize("killed", [0, 1], ids=["guardian", "monitor"])
    def test_the_death_of_a_monitor_does_not_end_the_log(node, log_options, killed):
        node.start(log_options, """
            write(1, b"one\\n"); wait_for("go"); write(1, b"two\\n"); wait_for("end")
        """)
        eventually(lambda: node.log() == b"one\n", "the monitor runs")
        victim = eventually(lambda: len(node.monitors()) == 2
                            and node.monitors()[killed], "both run")
        os.kill(victim, signal.SIGKILL)
        eventually(lambda: has_ended(victim), "it is dead")
        node.touch("go")
        eventually(lambda: node.log() == b"one\ntwo\n", "the log continues")
        node.touch("end")
        report = b"vornrun: lamp: the monitor was killed and is running again\n"
        assert node.wait() == (0, b"", report * killed)


READY = {
    "notify": "notify(b'READY=1\\nSTATUS=all lights on')",
    "fd:7": "write(7, b'\\n')",
    "tcp:127.0.0.1:PORT": "server = socket.create_server(('127.0.0.1', PORT))",
    "unix:DIRECTORY/socket":
        "server = socket.socket(socket.AF_UNIX); server.bind('socket');"
        " server.listen()",
    "exec:test -e DIRECTORY/lit": "open('lit', 'w').close()",
    "path:DIRECTORY/lit": "open('lit', 'w').close()",
    "http://127.0.0.1:PORT/node.py":
        "server = subprocess.Popen([sys.executable, '-m', 'http.server', '-b',"
        " '127.0.0.1', 'PORT'], stdout=-3, stderr=-3)",
}


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as server:
        return server.getsockname()[1]


class TestReadiness:
    @staticmethod
    @pytest.mark.parametrize("condition", READY, ids=lambda text: text.split(":")[0])
    def test_the_node_is_ready_when_the_condition_holds(node, condition):
        port = str(free_port())
        action = READY[condition].replace("PORT", port)
        condition = condition.replace("PORT", port).replace(
            "DIRECTORY", str(node.tmp))
        node.start(["--ready", condition], f"""
            server = None
            wait_for("go")
            {action}
            wait_for("end")
            if isinstance(server, subprocess.Popen):
                server.kill()
        """)
        assert node.wait_for_phase("starting")["ready"] is False
        node.touch("go")
        state = node.wait_for_phase("ready")
        assert state["ready"] is True
        assert state["pid"] == node.process.pid
        assert state["status"] == ("all lights on" if condition == "notify" else "")
        node.touch("end")
        assert node.wait() == (0, b"", b"")

    @staticmethod
    def test_other_processes_cannot_make_it_ready(node):
        node.start(["--ready", "notify"], """
            with open("address", "w") as file:
                file.write(os.environ["NOTIFY_SOCKET"])
            os.rename("address", "named"); wait_for("go")
        """)
        eventually(lambda: node.exists("named"), "the socket is known")
        name = (node.tmp / "named").read_text(encoding="utf-8")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.connect("\0" + name[1:])
            # A barrier of sd_notify(3) says nothing about the node.
            for text in (b"BARRIER=1", b"READY=1", b"\0" * 5000, b""):
                sender.send(text)
        eventually(lambda: node.state().get("ignoredMessages") == 3,
                   "the messages are counted")
        assert node.state()["ready"] is False
        node.touch("go")
        assert node.wait()[0] == 0

    @staticmethod
    def test_the_state_names_the_awaited_condition(node):
        first, second = node.tmp / "first", node.tmp / "second"
        node.start(["--wait-for", f"path:{first}", "--wait-for", f"path:{second}"],
                   "wait_for('go')")
        assert node.wait_for_phase("waiting")["status"] == f"path:{first}"
        first.touch()
        eventually(lambda: node.state()["status"] == f"path:{second}",
                   "the second condition is awaited")
        second.touch()
        assert node.wait_for_phase("running")["status"] == ""
        node.touch("go")
        assert node.wait()[0] == 0

    @staticmethod
    def test_a_program_for_systemd_runs_unchanged(node):
        node.start(["--ready", "notify", "--watchdog", "60s"], """
            assert os.environ["WATCHDOG_USEC"] == "60000000"
            assert os.environ["WATCHDOG_PID"] == str(os.getpid())
            run = lambda *words: subprocess.run(["systemd-notify", *words], check=True)
            run("--ready", "--status=warm")
            run("WATCHDOG=1")
            wait_for("go")
        """)
        eventually(lambda: node.state().get("watchdog", {}).get("lastMs"),
                   "the sign of life has arrived")
        state = node.wait_for_phase("ready")
        assert (state["status"], state["ignoredMessages"]) == ("warm", 0)
        node.touch("go")
        assert node.wait() == (0, b"", b"")


class TestHealth:
    @staticmethod
    def test_a_silent_node_gets_the_signal_of_the_watchdog(node):
        status, _, error = node.run(
            ["--ready", "notify", "--watchdog", "200ms", "--watchdog-signal", "ABRT",
             "--limit", "core=0"],
            "notify(b'READY=1'); wait_for('never')")
        assert status == -signal.SIGABRT
        assert error == (b"vornrun: lamp: --watchdog: no WATCHDOG=1 within 200ms:"
                         b" sending SIGABRT\n")

    @staticmethod
    def test_a_node_that_stops_is_not_watched(node):
        node.start(["--ready", "notify", "--watchdog", "50ms"], """
            notify(b"READY=1\\nSTOPPING=1\\nSTATUS=bye"); wait_for("go")
        """)
        eventually(lambda: node.state().get("status") == "bye", "it is stopping")
        assert node.state()["ready"] is False
        node.touch("go")
        assert node.wait() == (0, b"", b"")

    @staticmethod
    def test_failed_probes_in_a_row_end_the_node(node):
        status, _, error = node.run(
            ["--probe", "exec:echo too hot$__VORN_NODE_NAME__; exit 1",
             "--probe-period", "20ms",
             "--probe-failures", "2", "--probe-timeout", "30s"],
            "wait_for('never')")
        assert status == -signal.SIGTERM
        assert error == (b"vornrun: lamp: --probe: 2 failures in a row: too hot:"
                         b" sending SIGTERM\n")

    @staticmethod
    def test_a_slow_probe_does_not_delay_the_log(node, log_options):
        node.start([*log_options, "--probe", "exec:touch begun; sleep 1000",
                    "--directory", node.tmp, "--probe-timeout", "500s"],
                   "wait_for('begun'); write(1, b'one\\n'); wait_for('go')")
        eventually(lambda: node.log() == b"one\n", "the log has the line")
        node.touch("go")
        assert node.wait() == (0, b"", b"")

    @staticmethod
    def test_the_last_probe_is_in_the_state(node):
        node.start(["--probe", "exec:test -e ok", "--probe-failures", "1000",
                    "--probe-period", "20ms", "--probe-timeout", "30s",
                    "--directory", node.tmp], "wait_for('go')")
        eventually(lambda: (node.state().get("lastProbe") or {}).get("message")
                   == "exit status 1", "it has failed")
        node.touch("ok")
        eventually(lambda: node.state()["lastProbe"]["ok"], "it has succeeded")
        assert node.state()["phase"] == "running"
        node.touch("go")
        assert node.wait()[0] == 0


class TestTheMonitor:
    @staticmethod
    def test_is_not_a_child_of_the_program(node, log_options):
        status, _, error = node.run(log_options, """
            try:
                os.wait()
            except ChildProcessError:
                sys.exit(7)
        """)
        assert (status, error) == (7, b"")

    @staticmethod
    def test_has_only_its_own_descriptors_and_an_unnamed_environment(node, log_options):
        reading, writing = os.pipe()
        node.start(log_options, "write(1, b'one\\n'); wait_for('go')",
                   pass_fds=[writing])
        os.close(writing)
        eventually(lambda: node.log(), "the monitor runs")
        for pid in node.monitors():
            assert os.readlink(f"/proc/{pid}/cwd") == "/"
            with open(f"/proc/{pid}/environ", "rb") as file:
                assert b"__VORN_NODE_NAME__" not in file.read()
        # The descriptor of the caller is closed in every process of the node.
        assert os.read(reading, 1) == b""
        os.close(reading)
        node.touch("go")
        assert node.wait()[0] == 0

    @staticmethod
    def test_an_unusable_state_directory_costs_one_line(node):
        node.touch("state")
        status, output, error = node.run(["--log-prefix"], "print('one')")
        assert (status, output) == (0, b"lamp stdout: one\n")
        assert re.fullmatch(rb"vornrun: lamp: --state-dir: cannot write .*/state/"
                            rb"lamp.json: Not a directory\n", error)

    @staticmethod
    def test_a_failed_exec_ends_it(node, log_options):
        process = subprocess.run(
            [node.program, "--state-dir", node.tmp / "state", *log_options, "--",
             "/none"], check=False, capture_output=True, timeout=60)
        assert process.returncode == 127
        assert process.stderr == (b"vornrun: none: /none: cannot execute it: "
                                  b"No such file or directory\n")
