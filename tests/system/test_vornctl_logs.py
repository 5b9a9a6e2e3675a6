"""vornctl prints the launcher's log and the output of nodes, from files and from the
journal."""

import gzip
import os
import pty
import re
import signal
import socket
import time

import pytest

from support import log_texts
from support.journal import entry, write_journal
from support.vornctl import on_terminal, running
from support.waiting import eventually

UNPRIVILEGED = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]

needs_root = pytest.mark.skipif(
    os.geteuid() != 0, reason="no right to become another user")


def at(seconds, text, *, level="*INFO", pid=42):
    """A line of a launcher at this second of an hour."""
    return (f"2026-11-20T12:{seconds // 60:02}:{seconds % 60:02}.000000Z"
            f" {level:5} vornlaunch[{pid}] node.cpp:1 f: {text}\n")


def texts_of(output):
    """The texts of the launcher's lines."""
    return [line.split(": ", 1)[1] for line in output.splitlines()]


@pytest.fixture(name="robot")
def fixture_robot(machine):
    """A machine whose nodes write to the launcher's log."""
    path = machine.script("talk", 'echo "$1 talks" >&2; exec sleep 1000')
    machine.start({"vornnode": {
        "camera": {"path": path, "argv": "camera"},
        "lidar": {"path": path, "argv": "lidar"}}})
    for name in ("camera", "lidar"):
        eventually(lambda: f"{name} talks" in machine.stderr(), "the node has written")
    return machine


class TestAFile:
    @staticmethod
    def test_is_printed_whole_without_names(robot):
        shown = robot.vornctl("logs")
        assert (shown.returncode, shown.stderr) == (0, "")
        assert shown.stdout == robot.stderr()

    @staticmethod
    def test_has_the_launchers_lines_about_the_named_nodes(robot):
        shown = robot.vornctl("logs", "cam*")
        assert shown.returncode == 0
        assert texts_of(shown.stdout) == ["name: camera", log_texts.started("camera")]
        assert shown.stderr == (
            f"vornctl: {robot.tmp}/stderr does not show which node has written a line: "
            "printing only the launcher's lines about the nodes; see 'Output of "
            "single nodes' in operations.md\n")
        assert robot.vornctl("logs", "-q", "camera").stderr == ""

    @staticmethod
    def test_is_found_although_the_launcher_does_not_answer(robot):
        robot.signal(signal.SIGSTOP)
        shown = robot.vornctl("logs", "-q", "camera", "-n1")
        robot.signal(signal.SIGCONT)
        assert (shown.returncode, shown.stderr) == (0, "")
        assert texts_of(shown.stdout) == [log_texts.started("camera")]

    @staticmethod
    def test_is_read_after_its_deletion(robot):
        (robot.tmp / "stderr").unlink()
        shown = robot.vornctl("logs", "-q", "lidar", "-n1")
        assert texts_of(shown.stdout) == [log_texts.started("lidar")]

    @staticmethod
    def test_gets_no_line_by_being_read(robot):
        before = robot.stderr()
        assert robot.vornctl("logs").returncode == 0
        assert robot.stderr() == before

    @staticmethod
    def test_is_followed_across_a_truncation(robot):
        with running(robot, "logs", "-f", "-n0") as client:
            client.wait_until_polling()
            robot.file("stderr", "")
            robot.status("after the truncation")
            assert "control cmd: 3" in client.line()
            client.signal(signal.SIGTERM)
            assert client.end()[0] == -signal.SIGTERM


class TestANamedLog:
    """The log of --log, without a launcher."""

    @staticmethod
    def logs(machine, *arguments, log="/tmp/log", **options):
        shown = machine.vornctl("logs", "-q", "--log", log, *arguments, **options)
        assert (shown.returncode, shown.stderr) == (0, "")
        return shown.stdout

    def test_can_be_standard_input(self, machine):
        machine.start_without_launcher()
        text = at(1, "Node start 'a' ok") + at(2, "Node start 'b' ok")
        assert self.logs(machine, log="-", stdin=text) == text
        assert self.logs(machine, "b", log="-", stdin=text) == (
            at(2, "Node start 'b' ok"))
        assert self.logs(machine, "-n1", log="-", stdin=text) == (
            at(2, "Node start 'b' ok"))

    def test_continues_in_rotated_files(self, machine):
        machine.start_without_launcher()
        machine.file("log.2.gz", gzip.compress(at(1, "Node start 'a' ok").encode()))
        machine.file("log.1", at(2, "'a' exited with status: 1."))
        machine.file("log", at(3, "Node 'a' ready to restarting"))
        assert texts_of(self.logs(machine, "a")) == [
            "Node start 'a' ok", "'a' exited with status: 1.",
            "Node 'a' ready to restarting"]
        assert texts_of(self.logs(machine, "--since", "2026-11-20T12:00:02Z")) == [
            "'a' exited with status: 1.", "Node 'a' ready to restarting"]
        assert texts_of(self.logs(machine, "-n", "1")) == [
            "Node 'a' ready to restarting"]

    def test_reaches_the_terminal_without_control_characters(self, machine):
        machine.start_without_launcher()
        machine.file("log", b"\x1b]0;title\x07\xff\r::error::\n" + b"x" * 100000)
        status, shown = on_terminal(machine, "logs", "--log", "/tmp/log")
        assert status == 0
        first, second = shown.splitlines()
        assert first == "\\x1b]0;title\\x07\\xff\\r::error::"
        assert set(second) == {"x"} and len(second) == 65536

    def test_has_colours_for_the_launchers_lines_by_level(self, machine):
        machine.start_without_launcher()
        machine.file("log", at(1, "a", level="WARN") + at(2, "b", level="ERROR"))
        shown = self.logs(machine, "--color", "always").splitlines()
        assert [line[:5] for line in shown] == ["\x1b[33m", "\x1b[31m"]

    def test_shows_the_previous_run_of_a_node(self, machine):
        machine.start_without_launcher()
        machine.file("log", "".join([
            at(1, "Node start 'a' ok"),
            at(2, "si_pid: 7, si_code: 1, si_status: 1"),
            at(2, "'a' exited with status: 1."),
            at(2, "Node 'a' ready to restarting"),
            at(10, "Node start 'a' ok"),
            at(11, "si_pid: 8, si_code: 1, si_status: 2"),
            at(11, "'a' exited with status: 2."),
            at(11, "Node 'a' ready to restarting"),
            at(20, "Node start 'a' ok")]))
        assert texts_of(self.logs(machine, "--previous", "a")) == [
            "Node start 'a' ok", "'a' exited with status: 2.",
            "Node 'a' ready to restarting"]
        none = machine.vornctl("logs", "-q", "--previous", "b", "--log", "/tmp/log")
        assert (none.returncode, none.stderr) == (
            1, "vornctl: b: /tmp/log contains no run that has ended\n")


# What the log is, and the reason why it cannot be read.
UNREADABLE = {
    "/dev/null": "writes its log to /dev/null; restart the launcher with 2>>FILE or as "
                 "a service",
    "a pipe": "writes its log to a pipe; if the reader of the pipe stores it in a file, "
              "name its log with --log FILE",
    "a terminal": "writes its log to the terminal PTS, which cannot be read; restart the "
                  "launcher with 2>>FILE or as a service",
    "a socket": "writes its log to a socket that is not the journal's; if the reader of "
                "the socket stores it in a file, name its log with --log FILE",
}


class TestALogThatCannotBeRead:
    @staticmethod
    def refusal(machine, *arguments, wrapper=()):
        done = machine.execute(*wrapper, "/tmp/install/bin/vornctl", "logs", *arguments)
        assert (done.returncode, done.stdout) == (2, "")
        return done.stderr

    @pytest.mark.parametrize("kind", UNREADABLE)
    def test_has_a_reason_and_a_remedy(self, machine, kind):
        ends = {"/dev/null": lambda: [os.open("/dev/null", os.O_WRONLY)] * 2,
                "a pipe": os.pipe, "a terminal": pty.openpty,
                "a socket": lambda: [end.detach() for end in socket.socketpair()]}
        reader, writer = ends[kind]()
        name = os.ttyname(writer) if kind == "a terminal" else ""
        machine.start("vornnode: {}", stderr=writer)
        assert self.refusal(machine) == (
            f"vornctl: launcher {machine.pid} "
            + UNREADABLE[kind].replace("PTS", name) + "\n")
        for descriptor in {reader, writer}:
            os.close(descriptor)

    def test_can_be_closed(self, machine):
        machine.start("vornnode: {}", wrapper=["sh", "-c", 'exec "$@" 2>&-', "sh"])
        assert self.refusal(machine) == (
            f"vornctl: launcher {machine.pid} has closed its standard error, so it "
            "has no log; restart the launcher with 2>>FILE or as a service\n")

    @needs_root
    def test_can_belong_to_another_user(self, robot):
        robot.tmp.chmod(0o1777)
        assert self.refusal(robot, wrapper=UNPRIVILEGED) == (
            f"vornctl: cannot examine the standard error of launcher {robot.pid}: "
            "Permission denied; run vornctl as root or as the user of the launcher, or "
            "name its log with --log FILE\n")

    def test_can_be_missing(self, machine):
        machine.start_without_launcher()
        assert self.refusal(machine, "--log", "/tmp/none") == (
            "vornctl: cannot read the log /tmp/none: No such file or directory\n")
        os.mkfifo(machine.tmp / "fifo")
        assert self.refusal(machine, "--log", "/tmp/fifo") == (
            "vornctl: cannot read the log /tmp/fifo: it is not a regular file; use "
            "--log - to read a pipe\n")

    @staticmethod
    def test_is_not_looked_for_without_a_launcher(machine):
        machine.start_without_launcher()
        done = machine.vornctl("logs")
        assert (done.returncode, done.stdout) == (5, "")

    @staticmethod
    def test_is_not_looked_for_if_a_node_does_not_exist(robot):
        done = robot.vornctl("logs", "camra")
        assert (done.returncode, done.stdout, done.stderr) == (
            4, "", "vornctl: camra: no such node; did you mean 'camera'?\n")


class TestTheJournal:
    """A directory with journal files, which can be from another machine."""

    @staticmethod
    def entries():
        """Two launchers of a service and their nodes, and another service."""
        def launcher(seconds, text, pid=100):
            return entry(seconds, pid, f"*INFO  vornlaunch[{pid}] node.cpp:1 f: {text}")

        def node(seconds, pid, text, **fields):
            return entry(seconds, pid, text, comm="program", **fields)

        return [
            launcher(10, "name: camera", pid=50),
            launcher(11, "Node start 'camera' ok", pid=50),
            node(12, 51, "earlier camera" "\n" "in two lines"),
            launcher(13, "si_pid: 51, si_code: 1, si_status: 0", pid=50),
            launcher(13, "'camera' exited with status: 0.", pid=50),
            launcher(13, "Node 'camera' ready to restarting", pid=50),
            launcher(19, "name: camera"),
            launcher(20, "Node start 'camera' ok"),
            launcher(20, "Node start 'lidar' ok"),
            node(21, 101, "camera \x1b[2J"),
            node(21, 102, "lidar"),
            node(22, 103, "camera in its journal", identifier="camera"),
            node(23, 104, "*INFO  vornlaunch[100] f:1 f: Node start 'camera' ok"),
            node(23, 105, "another service", unit="other.service"),
            launcher(24, "si_pid: 101, si_code: 2, si_status: 11"),
            launcher(24, "'camera' receive signal: 11."),
            launcher(24, "Node 'camera' ready to restarting"),
            launcher(29, "Node start 'camera' ok"),
            node(30, 101, "another process with the pid"),
        ]

    @pytest.fixture(name="robot")
    def fixture_robot(self, machine):
        machine.start_without_launcher()
        write_journal(machine.tmp / "journal/a.journal", self.entries()[:10])
        write_journal(machine.tmp / "journal/b.journal", self.entries()[10:])
        return machine

    @staticmethod
    def logs(machine, *arguments):
        """The second and the text of each printed line."""
        shown = machine.vornctl("logs", "--log", "/tmp/journal", *arguments)
        assert (shown.returncode, shown.stderr) == (0, "")
        found = re.findall(r"1970-01-01T00:00:(\d\d)\.000000Z (.*)\n", shown.stdout)
        assert len(found) == len(shown.stdout.splitlines())
        return [(int(second), re.sub(r"^\*INFO .* f: ", "", text))
                for second, text in found]

    def test_has_the_lines_of_all_launchers_and_nodes_of_the_service(self, robot):
        assert self.logs(robot, "--since", "1970-01-01T00:00:22Z", "-n4") == [
            (24, "'camera' receive signal: 11."),
            (24, "Node 'camera' ready to restarting"),
            (29, "Node start 'camera' ok"),
            (30, "-[101]: another process with the pid")]
        # One entry has two lines, and one is of another service.
        assert len(self.logs(robot)) == len(self.entries())

    def test_has_the_lines_of_a_nodes_processes(self, robot):
        assert self.logs(robot, "camera") == [
            (10, "name: camera"),
            (11, "Node start 'camera' ok"),
            (12, "camera[51]: earlier camera"),
            (12, "camera[51]: in two lines"),
            (13, "'camera' exited with status: 0."),
            (13, "Node 'camera' ready to restarting"),
            (19, "name: camera"),
            (20, "Node start 'camera' ok"),
            (21, "camera[101]: camera \\x1b[2J"),
            (22, "camera[103]: camera in its journal"),
            (24, "'camera' receive signal: 11."),
            (24, "Node 'camera' ready to restarting"),
            (29, "Node start 'camera' ok")]

    def test_has_the_previous_run(self, robot):
        assert self.logs(robot, "camera", "--previous") == [
            (20, "Node start 'camera' ok"),
            (21, "camera[101]: camera \\x1b[2J"),
            (22, "camera[103]: camera in its journal"),
            (24, "'camera' receive signal: 11."),
            (24, "Node 'camera' ready to restarting")]

    @staticmethod
    def test_is_followed(robot):
        with running(robot, "logs", "-f", "-n1", "camera",
                     "--log", "/tmp/journal") as client:
            assert client.line().endswith("Node start 'camera' ok")
            write_journal(robot.tmp / "journal/c.journal", [
                entry(31, 106, "unknown until the exit", comm="program"),
                entry(32, 107, "never known", comm="program"),
                entry(33, 100, "INFO  vornlaunch[100] f:1 f: si_pid: 106, si_code: 1, "
                               "si_status: 3"),
                entry(33, 100, "INFO  vornlaunch[100] f:1 f: 'camera' exited with "
                               "status: 3."),
                entry(33, 100, "*INFO  vornlaunch[100] f:1 f: Node 'camera' ready to "
                               "restarting")])
            following = [client.line().partition("Z ")[2] for _ in range(3)]
            assert following == [
                "INFO  vornlaunch[100] f:1 f: 'camera' exited with status: 3.",
                "camera[106]: unknown until the exit",
                "*INFO  vornlaunch[100] f:1 f: Node 'camera' ready to restarting"]
            client.signal(signal.SIGINT)
            assert client.end()[0] == -signal.SIGINT

    @staticmethod
    def test_needs_entries_of_a_launcher(machine):
        machine.start_without_launcher()
        (machine.tmp / "journal").mkdir()
        done = machine.vornctl("logs", "--log", "/tmp/journal")
        assert (done.returncode, done.stderr) == (
            2, "vornctl: the journal in /tmp/journal has no entries of a launcher that "
               "this user can read; copy the *.journal files into it and make them "
               "readable\n")

    @staticmethod
    @pytest.mark.native
    def test_needs_libsystemd(machine):
        machine.start_without_launcher()
        (machine.tmp / "journal").mkdir()
        machine.run("sh", "-c", "PATH=$PATH:/sbin ldconfig -p | sed -n"
                    " 's/.*libsystemd.so.0 .*=> //p' | while read -r library; do"
                    " mount --bind /dev/null $library; done")
        done = machine.vornctl("logs", "--log", "/tmp/journal")
        assert (done.returncode, done.stderr) == (
            2, "vornctl: cannot load libsystemd.so.0, which reads the journal; install "
               "it (Debian: libsystemd0), or use: journalctl -o cat -u UNIT | vornctl "
               "COMMAND --log -\n")


class TestTheJournalOfTheMachine:
    """A launcher whose standard error is a stream of the journal."""

    @pytest.fixture(name="robot")
    def fixture_robot(self, machine):
        stream, other_end = socket.socketpair()
        with stream, other_end:
            status = os.fstat(stream.fileno())
            path = machine.script("stay", "exec sleep 1000")
            machine.start(
                {"vornnode": {"camera": {"path": path}}}, stderr=stream.fileno(),
                environment={"JOURNAL_STREAM": f"{status.st_dev}:{status.st_ino}"})
            machine.file("machine-id", "0123456789abcdef0123456789abcdef\n")
            machine.run("sh", "-c", "mount -t tmpfs none /run && mount --bind"
                        " /tmp/machine-id /etc/machine-id && mkdir -p"
                        " /run/log/journal && ln -s /tmp/journal"
                        " /run/log/journal/0123456789abcdef0123456789abcdef")
            yield machine

    @staticmethod
    def write(machine, entries):
        write_journal(machine.tmp / "journal/system.journal", entries)

    def test_has_the_lines_of_running_nodes(self, robot):
        now = time.time()
        node = robot.status("camera").pid
        robot.child("camera", ["sleep", "1000"])
        service = {"unit": "robot.service"}
        self.write(robot, [
            entry(1, 5, "an earlier launcher's node", comm="program", **service),
            entry(now, robot.pid,
                  f"INFO  vornlaunch[{robot.pid}] f:1 f: Node start 'camera' ok",
                  **service),
            entry(now + 3, node, "camera's line", comm="sleep", **service),
            entry(now + 4, node, "other", comm="sleep", unit="other.service")])
        shown = robot.vornctl("logs", "camera")
        assert (shown.returncode, shown.stderr) == (0, "")
        assert [line.split("Z ", 1)[1] for line in shown.stdout.splitlines()] == [
            f"INFO  vornlaunch[{robot.pid}] f:1 f: Node start 'camera' ok",
            f"camera[{node}]: camera's line"]
        assert "an earlier launcher's node" in robot.vornctl("logs").stdout

    def test_of_a_session_has_the_lines_of_the_stream(self, robot):
        now = time.time()
        session = {"unit": "session-1.scope"}
        self.write(robot, [
            entry(now, robot.pid, "launcher", **session, _STREAM_ID="a"),
            entry(now, 4, "node", comm="program", **session, _STREAM_ID="a"),
            entry(now, 5, "other program", comm="sh", **session, _STREAM_ID="b")])
        shown = robot.vornctl("logs").stdout
        assert "node" in shown and "other program" not in shown

    def test_may_be_unreadable(self, robot):
        self.write(robot, [entry(1, 5, "other", comm="program", unit="other.service")])
        done = robot.vornctl("logs")
        assert (done.returncode, done.stdout, done.stderr) == (
            2, "", f"vornctl: the journal has no entries of launcher {robot.pid} that "
                   "this user can read; run vornctl as root or as a member of the "
                   "group systemd-journal\n")
