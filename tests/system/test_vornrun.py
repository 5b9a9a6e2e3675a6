"""vornrun: the settings of a program as the kernel shows them, and nodes that it
executes under a launcher."""

import json
import os
import re
import resource
import signal
import socket
import subprocess

import pytest
from support import log_texts
from support.control import Cmd, Result, State
from support.machine import PYTHON
from support.process_tree import has_ended
from support.waiting import eventually

needs_root = pytest.mark.skipif(
    os.geteuid() != 0, reason="no right to become another user")

# Prints the attributes of its own process.
SHOW = """
import json, os, resource, sys
status = dict(line.rstrip("\\n").split(":\\t", 1)
              for line in open("/proc/self/status", encoding="utf-8"))
fds = [int(fd) for fd in os.listdir("/proc/self/fd")]
json.dump({
    "arguments": sys.argv[1:],
    "environment": dict(os.environ),
    "directory": os.getcwd(),
    "user": status["Uid"].split(),
    "group": status["Gid"].split(),
    "groups": sorted(map(int, status["Groups"].split())),
    "umask": status["Umask"],
    "no new privileges": status["NoNewPrivs"],
    "nofile": resource.getrlimit(resource.RLIMIT_NOFILE),
    "core": resource.getrlimit(resource.RLIMIT_CORE),
    "nice": os.getpriority(os.PRIO_PROCESS, 0),
    "policy": os.sched_getscheduler(0),
    "priority": os.sched_getparam(0).sched_priority,
    "cpus": sorted(os.sched_getaffinity(0)),
    "oom": open("/proc/self/oom_score_adj", encoding="ascii").read().strip(),
    # Without that of the listing.
    "descriptors": sorted(fd for fd in fds if os.path.exists(f"/proc/self/fd/{fd}")),
}, sys.stdout)
"""


@pytest.fixture(name="vornrun")
def fixture_vornrun(program):
    """Runs vornrun with these arguments; returns what subprocess.run() does."""

    def run(*arguments, **options):
        options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options}
        return subprocess.run([program.with_name("vornrun"), *arguments],
                              check=False, encoding="utf-8", timeout=60, **options)

    return run


@pytest.fixture(name="shown")
def fixture_shown(vornrun):
    """The attributes of a program that vornrun executes with these options."""

    def show(*options, arguments=(), **how):
        done = vornrun(*options, "--", PYTHON, "-c", SHOW, *arguments, **how)
        assert (done.returncode, done.stderr) == (0, "")
        return json.loads(done.stdout)

    return show


def test_settings_that_need_no_rights_are_those_of_the_program(shown, tmp_path):
    variables = tmp_path / "variables"
    variables.write_text("A='from file'\nB=from file\n", encoding="utf-8")
    before = sorted(os.sched_getaffinity(0))
    found = shown(
        "--directory", str(tmp_path), "--umask", "027", "--env-file", str(variables),
        "--env", "B=from option", "--limit", "nofile=100:200", "--limit=core=0",
        "--nice", "19", "--sched", "batch", "--cpu-list", str(before[0]),
        "--oom-score-adj", "900", "--no-new-privs", "--expand",
        arguments=["$B", "${A}/x"])
    assert found["directory"] == str(tmp_path)
    assert found["umask"] == "0027"
    assert found["environment"]["A"] == "from file"
    assert found["environment"]["B"] == "from option"
    assert found["nofile"] == [100, 200]
    assert found["core"] == [0, 0]
    assert found["nice"] == 19
    assert found["policy"] == os.SCHED_BATCH
    assert found["cpus"] == before[:1]
    assert found["oom"] == "900"
    assert found["no new privileges"] == "1"
    assert found["arguments"] == ["from option", "from file/x"]


def test_without_options_nothing_changes(shown):
    found = shown(arguments=["$HOME"])
    assert found["arguments"] == ["$HOME"]
    assert found["nofile"] == list(resource.getrlimit(resource.RLIMIT_NOFILE))
    assert found["cpus"] == sorted(os.sched_getaffinity(0))
    assert found["no new privileges"] == "0"


def test_the_io_priority_is_that_of_the_program(vornrun):
    done = vornrun("--ionice", "best-effort:7", "ionice")
    assert done.stdout == "best-effort: prio 7\n"


def test_a_cleared_environment_has_only_the_given_variables(shown):
    found = shown("--clear-env", "--env", "A=1",
                  env={"X": "1", "__VORN_NODE_NAME__": "x(vornlaunch)"})
    found["environment"].pop("LC_CTYPE", None)  # Python's own
    assert found["environment"] == {
        "A": "1", "__VORN_NODE_NAME__": "x(vornlaunch)"}


def test_descriptors_are_closed_unless_they_are_kept(shown):
    end, other = os.pipe()
    assert shown(pass_fds=[end])["descriptors"] == [0, 1, 2]
    kept = shown("--close-fds", "no", pass_fds=[end])["descriptors"]
    assert kept == [0, 1, 2, end]
    os.close(end)
    os.close(other)


def test_a_configuration_file_has_arguments_with_blanks(shown, vornrun, tmp_path):
    config = tmp_path / "node.conf"
    config.write_text(
        f"umask = 027\nexec = {PYTHON}\narg = -c\n"
        "arg = import sys; print(sys.argv[1:], flush=True)\narg = a  b\narg =\n",
        encoding="utf-8")
    assert vornrun("--config", str(config)).stdout == "['a  b', '']\n"
    found = shown("--umask", "022", "--config", str(config))
    assert found["umask"] == "0022", "the command line replaces the file"


@needs_root
def test_the_user_has_its_own_groups(machine):
    machine.file("passwd", "root:x:0:0::/root:/bin/sh\n"
                 "robot:x:1234:1235:Robot:/home/robot:/bin/sh\n")
    machine.file("group", "root:x:0:\nrobot:x:1235:\n"
                 "dialout:x:20:robot\nvideo:x:44:other,robot\n")
    machine.wrapped("", "true")
    machine.start_without_launcher()
    for name in ("passwd", "group"):
        machine.run("mount", "--bind", f"/tmp/{name}", f"/etc/{name}")
    found = json.loads(machine.run(
        "/tmp/install/bin/vornrun", "--user", "robot", "--", PYTHON, "-c", SHOW))
    assert found["user"] == ["1234"] * 4
    assert found["group"] == ["1235"] * 4
    assert found["groups"] == [20, 44, 1235]
    assert found["environment"]["HOME"] == "/home/robot"
    assert found["environment"]["USER"] == "robot"


@needs_root
def test_root_can_give_a_user_rights_that_it_does_not_have(shown):
    found = shown("--user", "65534:65534", "--limit", "nofile=100:200",
                  "--nice", "-5", "--sched", "fifo:20")
    assert found["user"] == ["65534"] * 4
    assert found["groups"] == [65534]
    assert (found["nofile"], found["nice"]) == ([100, 200], -5)
    assert (found["policy"], found["priority"]) == (os.SCHED_FIFO, 20)


@needs_root
@pytest.mark.native
def test_the_settings_are_made_in_an_order_that_works(program, tmp_path):
    trace = tmp_path / "trace"
    subprocess.run(
        ["strace", "-o", trace, "-e",
         "trace=setpriority,prlimit64,setrlimit,setgroups,setresgid,setresuid,chdir,"
         "prctl,execve", program.with_name("vornrun"), "--pdeathsig", "KILL",
         "--no-new-privs", "--directory", "/", "--user", "65534:65534",
         "--limit", "core=0", "--nice", "1", "true"], check=True)
    calls = [re.match(r"(\w+)\((PR_\w+)?", line) for line in
             trace.read_text(encoding="utf-8").splitlines()[1:]]
    names = [call[2] or call[1] for call in calls if call]
    last = names.index("setpriority")
    # The signal also ends a start that waits.
    assert names[:last].count("PR_SET_PDEATHSIG") == 1
    limit = "prlimit64" if "prlimit64" in names else "setrlimit"
    assert names[last:] == [
        "setpriority", limit, "setgroups", "setresgid", "setresuid", "chdir",
        "PR_SET_PDEATHSIG", "PR_SET_NO_NEW_PRIVS", "execve",
        *names[names.index("execve") + 1:]]


# -- Failures.


@pytest.mark.parametrize(("arguments", "message"), [
    (["--user", "no-such-user", "x"], "--user: /etc/passwd has no user 'no-such-user'"),
    (["--user", "4000000001", "x"], "--user: /etc/passwd has no user 4000000001; "
     "add a group: 4000000001:GROUP"),
    (["--directory", "/nonexistent", "x"],
     "--directory: /nonexistent: No such file or directory"),
    (["--env-file", "/nonexistent", "x"],
     "--env-file: cannot read /nonexistent: No such file or directory"),
    (["--env-file", "/", "x"], "--env-file: cannot read /: Is a directory"),
    (["--expand", "x", "$NO_SUCH"], "--expand: the variable NO_SUCH is not set"),
    (["--cpu-list", "1023", "x"],
     "--cpu-list: this machine has none of these processors"),
    (["--wait-for", "tcp:no.such.host:1", "x"], "--wait-for: tcp:no.such.host:1: the "
     "host is neither an address nor in /etc/hosts"),
    (["--wait-for", "path:/nonexistent", "--wait-timeout", "1ms", "x"],
     "--wait-timeout: path:/nonexistent does not hold in time"),
    (["--nice", "x", "x"], "--nice: 'x' is not a number from -20 to 19"),
    (["--backoff", "1s", "--state-dir", "/proc/x", "x"],
     "--state-dir: cannot create /proc/x: No such file or directory"),
    (["--backoff", "1s", "--state-dir", "/dev/full", "x"],
     "--state-dir: cannot read /dev/full/x.starts: Not a directory"),
])
def test_a_failure_is_one_line_and_status_125(vornrun, arguments, message):
    done = vornrun(*arguments)
    assert (done.returncode, done.stdout) == (125, "")
    assert done.stderr == f"vornrun: x: {message}\n"


def test_an_unreadable_configuration_file_is_one_line(vornrun):
    done = vornrun("--config", "/nonexistent")
    assert done.returncode == 125
    assert done.stderr == ("vornrun: ?: --config: cannot read /nonexistent: "
                           "No such file or directory\n")


@needs_root
@pytest.mark.parametrize(("option", "message"), [
    ("--user=root", "--user: cannot set the groups: Operation not permitted; only "
     "root can change the user"),
    ("--nice=-5", "--nice: cannot set -5: Permission denied"),
    ("--sched=fifo:5", "--sched: cannot set the policy: Operation not permitted"),
    ("--oom-score-adj=-5", "--oom-score-adj: cannot set -5: Permission denied"),
    ("--limit=nofile=2000000:2000000",
     "--limit: cannot set nofile: Operation not permitted"),
    ("--backoff=1s", "--state-dir: cannot create /run/vornrun: Permission denied"),
])
def test_a_missing_right_is_one_line_and_status_125(machine, option, message):
    machine.tmp.chmod(0o755)
    machine.wrapped("", "true")
    machine.start_without_launcher()
    done = machine.execute(
        "setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
        "prlimit", "--rtprio=0", "--nofile=1024:4096",
        "/tmp/install/bin/vornrun", option, "x")
    assert (done.returncode, done.stdout) == (125, "")
    assert done.stderr == f"vornrun: x: {message}\n"


def test_a_full_file_system_is_one_line_and_status_125(machine):
    machine.wrapped("", "true")
    machine.start_without_launcher()
    (machine.tmp / "full").mkdir()
    machine.run("mount", "-t", "tmpfs", "-o", "size=4k", "tmpfs", "/tmp/full")
    machine.run("sh", "-c", "cat /dev/zero >/tmp/full/x 2>/dev/null", check=False)
    done = machine.execute("/tmp/install/bin/vornrun", "--backoff", "1s",
                           "--state-dir", "/tmp/full", "true")
    assert done.returncode == 125
    assert done.stderr == ("vornrun: true: --state-dir: cannot write "
                           "/tmp/full/true.starts: No space left on device\n")
    assert machine.run("ls", "/tmp/full") == "x\n"


@pytest.mark.parametrize(("name", "status", "reason"), [
    ("no-such-program", 127, "no such program in PATH"),
    ("/nonexistent", 127, "cannot execute it: No such file or directory"),
    ("/etc/passwd", 126, "cannot execute it: Permission denied"),
    ("script", 127, "its interpreter is missing"),
])
def test_a_program_that_cannot_be_executed_is_one_line(
        vornrun, tmp_path, name, status, reason):
    if name == "script":
        script = tmp_path / "script"
        script.write_text("#!/nonexistent\n", encoding="utf-8")
        script.chmod(0o755)
        name = str(script)
    done = vornrun(name)
    node = name.rsplit("/", 1)[-1]
    assert done.stderr == f"vornrun: {node}: {name}: {reason}\n"
    assert done.returncode == status


def test_a_message_is_one_line_whatever_it_contains(vornrun):
    done = vornrun("--user", "a\nb\x1b", "x")
    assert done.stderr == "vornrun: x: --user: /etc/passwd has no user 'a\\x0ab\\x1b'\n"


def test_a_setuid_program_with_a_parent_death_signal_causes_a_warning(
        vornrun, tmp_path):
    program = tmp_path / "program"
    program.write_text("#!/bin/sh\n", encoding="utf-8")
    program.chmod(0o4755)
    done = vornrun("--pdeathsig", "KILL", str(program))
    assert done.returncode == 0
    assert done.stderr == (
        f"vornrun: program: --pdeathsig: warning: {program} is a setuid program, for "
        "which the kernel clears the signal\n")
    assert vornrun("--pdeathsig", "KILL", "--no-new-privs", str(program)).stderr == ""


# -- Conditions.


def test_the_program_starts_when_all_conditions_hold(program, tmp_path):
    file, path = tmp_path / "file", str(tmp_path / "socket")
    curl = tmp_path / "curl"
    curl.write_text('#!/bin/sh\ntest "$6" = http://robot/\n', encoding="utf-8")
    curl.chmod(0o755)
    with socket.socket() as tcp, socket.socket(socket.AF_UNIX) as local:
        tcp.bind(("127.0.0.1", 0))
        with subprocess.Popen(
                [program.with_name("vornrun"), "--wait-for", f"path:{file}",
                 "--wait-for", f"tcp:localhost:{tcp.getsockname()[1]}",
                 "--wait-for", f"unix:{path}", "--wait-for", "exec:test $A = 1",
                 "--wait-for", "http://robot/", "--env", "A=1",
                 "--env", f"PATH={tmp_path}:/usr/bin:/bin", "echo", "started"],
                stdout=subprocess.PIPE, encoding="utf-8") as process:
            file.touch()
            tcp.listen()
            local.bind(path)
            assert process.poll() is None
            local.listen()
            assert process.stdout.read() == "started\n"


def test_a_command_is_killed_at_the_time_limit(vornrun, tmp_path):
    pid = tmp_path / "pid"
    done = vornrun("--wait-for", f"exec:echo $$ >{pid}; sleep 1000",
                   "--wait-timeout", "300ms", "x")
    assert done.stderr.endswith("does not hold in time\n")
    assert has_ended(int(pid.read_text(encoding="ascii")))


def waiting_node(machine, options):
    return {"vornnode": {"worker": machine.wrapped(options, "sleep", "1000")}}


@pytest.mark.parametrize("options", [
    "--wait-for path:/nonexistent", "--wait-for exec:false",
    "--pdeathsig KILL --wait-for path:/nonexistent"])
def test_a_node_that_waits_stops_at_once(machine, options):
    machine.start(waiting_node(machine, options))
    pid = machine.wait_for_state("worker", State.RUNNING).pid
    assert machine.request(Cmd.STOP, "worker").result == Result.SUCCESS
    machine.wait_for_log(log_texts.stopped("worker"))
    machine.wait_for_log(log_texts.killed("worker", signal.SIGTERM))
    assert not machine.is_alive(pid)


# -- Crash loops.


def test_quick_restarts_are_delayed_longer_each_time(machine):
    path = machine.script("crash", "exit 3")
    machine.start_without_launcher()
    machine.wrapped("", "true")
    run = ["/tmp/install/bin/vornrun", "--backoff", "1ms..3ms", path]
    said = [machine.execute(*run) for _ in range(4)]
    assert [done.returncode for done in said] == [3] * 4
    assert [done.stderr for done in said] == [
        "", "vornrun: crash: --backoff: restart 1: starting in 0.001 s\n",
        "vornrun: crash: --backoff: restart 2: starting in 0.002 s\n",
        "vornrun: crash: --backoff: restart 3: starting in 0.003 s\n"]
    again = machine.execute(*run[:-1], "--reset-after", "1ms", path)
    assert again.stderr == "", "a run that was long enough ends the series"


def test_a_node_that_is_delayed_stops_at_once(machine):
    options = "--backoff 1h --pdeathsig KILL"
    machine.start({"vornnode": {
        "worker": machine.wrapped(options, "sleep", "1000")}})
    machine.child("worker", ["sleep", "1000"])
    assert machine.request(Cmd.RESTART, "worker").result == Result.SUCCESS
    eventually(lambda: "starting in 3600 s" in machine.stderr(), "a delay")
    pid = machine.status("worker").pid
    assert machine.request(Cmd.STOP, "worker").result == Result.SUCCESS
    assert not machine.is_alive(pid)


def test_a_crash_loop_disables_the_node_which_can_be_enabled(machine):
    machine.script("crash", "exit 3")
    machine.start({"vornnode": {
        "worker": machine.wrapped("--give-up 2/1h", "/tmp/bin/crash")}})
    for number in (1, 2):
        machine.wait_for_log(log_texts.exited("worker", 3), count=number)
        machine.request(Cmd.RESTART, "worker")
    machine.wait_for_state("worker", State.DISABLED)
    lines = [line for line in machine.stderr().splitlines() if "vornrun:" in line]
    assert lines == [
        "vornrun: worker: --give-up: started 2 times within 3600 s; disabling the "
        "node, which can be enabled and started by vornctl"]
    first_line = "worker has given up after too many restarts\n"
    eventually(lambda: machine.vornctl("why", "worker").stdout.startswith(first_line),
               "the reason")
    assert machine.vornctl("enable", "--now", "worker").returncode == 0
    machine.wait_for_log(log_texts.exited("worker", 3), count=3)
    assert not machine.vornctl("why", "worker").stdout.startswith(first_line)


# -- Under the launcher.


def worker(machine, options="--nice 1", **keys):
    machine.script("worker", "exec sleep 1000")
    return machine.wrapped(options, "/tmp/bin/worker", **keys)


def test_a_node_keeps_its_pid_and_its_exit_status(machine):
    machine.script("exits", "exit 42")
    machine.start({"vornnode": {
        "worker": worker(machine),
        "exits": machine.wrapped("--nice 1", "/tmp/bin/exits", oneshot=True)}})
    process = machine.child("worker", ["sleep", "1000"])
    assert process.parent == machine.process.host_pid
    eventually(lambda: sorted(process.descriptors) == [0, 1, 2],
               "only its standard streams are open")
    machine.wait_for_log(log_texts.exited("exits", 42))
    assert len(machine.processes()) == 2, "no helper runs"


def test_a_node_stops_and_restarts_as_without_vornrun(machine):
    machine.start({"vornnode": {
        "camera": worker(machine, required=["detector"]),
        "detector": worker(machine)}})
    detector = machine.child("detector", ["sleep", "1000"])
    camera = machine.child("camera", ["sleep", "1000"])
    assert machine.request(Cmd.STOP, "camera").result == Result.SUCCESS
    machine.wait_for_log(log_texts.killed("camera", signal.SIGTERM))
    assert not machine.is_alive(camera.pid)
    eventually(lambda: machine.status("detector").pid != detector.pid,
               "the required node is restarted")
    assert machine.request(Cmd.START, "camera").result == Result.SUCCESS
    machine.child("camera", ["sleep", "1000"])
    machine.signal(signal.SIGTERM)
    assert machine.wait() == 0
    assert [p for p in machine.processes() if p.is_alive] == []


def test_a_node_started_by_a_command_does_not_keep_its_connection(machine):
    machine.start({"vornnode": {"worker": worker(machine, autostart=False)}})
    machine.request(Cmd.START, "worker")
    assert machine.request(Cmd.START, "worker").result == Result.SUCCESS
    process = machine.child("worker", ["sleep", "1000"])
    eventually(lambda: sorted(process.descriptors) == [0, 1, 2],
               "only its standard streams are open")


@needs_root
def test_a_node_has_a_control_group_of_its_own(machine):
    machine.script("fork", "sleep 1001 & exec sleep 1000")
    machine.start({"vornnode": {
        "node/1": machine.wrapped("--cgroup", "/tmp/bin/fork"),
    }}, wrapper=["sh", "-c", """
        mkdir /tmp/cgroup && mount -t cgroup2 none /tmp/cgroup && cd /tmp/cgroup &&
        cd "$(mktemp -d vornrun-test-XXXXXX)" &&
        python3 -c 'import os; os.setxattr(".", "user.delegate", b"1")' &&
        echo $$ >cgroup.procs && exec "$@" """, "sh"])
    process = machine.child("node/1", ["sleep", "1000"])
    own = machine.process.read("cgroup").decode().split("0::")[1].strip()
    assert f"0::{own}/node%2F1\n" in process.read("cgroup").decode()
    [left] = [p for p in machine.processes() if p.argv == ["sleep", "1001"]]
    machine.request(Cmd.RESTART, "node/1")
    machine.child("node/1", ["sleep", "1000"])
    assert not machine.is_alive(left.pid), "the processes of the earlier run are killed"
    # Groups outlive the machine.
    group = f"/tmp/cgroup{own}"
    machine.run("sh", "-c", f"""
        echo 1 >{group}/node%2F1/cgroup.kill
        for pid in $(cat {group}/cgroup.procs); do
          echo $pid >/tmp/cgroup/cgroup.procs; done
        until rmdir {group}/node%2F1 2>/dev/null; do sleep 0.1; done
        rmdir {group}""")


def test_a_group_that_is_not_delegated_is_an_error(machine):
    machine.wrapped("", "true")
    machine.start_without_launcher()
    done = machine.execute("/tmp/install/bin/vornrun", "--cgroup", "true")
    assert done.returncode == 125
    assert re.fullmatch(r"vornrun: true: --cgroup: (the control group /.* is not "
                        r"delegated; set Delegate=yes in the unit|this machine has no "
                        r"cgroup v2 hierarchy)\n", done.stderr)
